#pragma once
// Character values of a program: an expression pool beside the value graph.
//
// A text may depend on data (character columns) and on numbers. The choice between two texts by a mask always stands
// at the top of an expression (operations are pushed into both sides), so that a question about a text (is it equal to
// another, how long is it) becomes a graph select of questions about plain texts. Plain texts are evaluated one lane
// at a time; questions about one column alone are answered once per distinct value.

#include "engine/graph/graph.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>

namespace torvale::engine {

using TextId = std::int32_t;
inline constexpr TextId no_text = -1;

enum class TextOp : std::uint8_t {
  constant,    // `characters`
  column,      // character variable of the data: `symbol`
  select,      // mask `number`, a, b
  fit,         // a, cut or padded with blanks to `length`
  concatenate, // a then b
  substring,   // a from position `number` (from 1), `number2` characters; no_node: to the end
  replace_at,  // a with b put at position `number` over `number2` characters (SUBSTR on the left)
  upper,
  lower,
  proper,
  trim,
  left,
  strip,
  reverse,
  compress,
  replace,   // a with every occurrence of b replaced by c
  translate, // a with characters of c replaced by those of b at the same place
  word,      // word number `number` of a, separated by characters of b (blank when none)
  repeat,    // a, then `number` more copies
  put,       // `number` written in the format `characters`; empty: shortest
  kept,      // the text whose code is `number`: handed on from a record or a pass before
};

struct TextNode {
  TextOp op = TextOp::constant;
  TextId a = no_text, b = no_text, c = no_text;
  NodeId number = no_node, number2 = no_node;
  std::int32_t symbol = -1;
  std::int32_t length = 0; // most characters that it can have; variables are padded to it
  std::string characters;
};

enum class TextQuestion : std::uint8_t {
  less,
  less_equal,
  equal,
  not_equal,
  greater,
  greater_equal, // padded with blanks; `truncated`: cut to the shorter
  length,        // without trailing blanks, at least 1
  length_zero,   // the same, 0 for blanks
  index,         // position of b in a, 0 when absent
  index_any,     // position of the first character of a that is in b
  verify,        // position of the first character of a that is not in b
  count,         // occurrences of b in a
  rank,          // code of the first character
  to_number,     // the number that a spells, in the format b when there is one; missing when it does not
  words,         // count of words separated by characters of b
  code,          // the number by which a text is handed on to the next record or pass
};

struct TextTest {
  TextQuestion question = TextQuestion::equal;
  bool truncated = false;
  TextId a = no_text, b = no_text;
  std::vector<NodeId> inputs;    // numbers that the texts use, in the order of the graph node's operands
  std::int32_t only_symbol = -1; // the one column that the answer depends on, when it depends on nothing else
};

// What the interpreter reads: characters of a column at the lane's record, and values of numeric nodes.
class TextInputs {
public:
  virtual std::string_view column(std::int32_t symbol) const = 0;
  virtual double number(NodeId id) const = 0;

protected:
  ~TextInputs() = default;
};

// KeptTexts: texts under numbers, for values that go from record to record or from pass to pass, where only numbers
// can. One table for all frames of a model; the numbers depend on who comes first and mean nothing but the text.
class KeptTexts {
public:
  double code(const std::string& text);
  std::string text(double code) const;

private:
  mutable std::mutex lock_;
  std::vector<std::string> texts_;
  std::unordered_map<std::string, std::size_t> codes_; // never iterated
};

class TextPool {
public:
  explicit TextPool(GraphBuilder& graph) : graph_(graph) {}

  TextId constant(std::string_view characters);
  TextId column(std::int32_t symbol, std::int32_t width);
  TextId select(NodeId mask, TextId a, TextId b);
  TextId fit(TextId a, std::int32_t length);
  TextId kept(NodeId code, std::int32_t length);
  // Any other operation; selects inside the operands move to the top.
  TextId make(TextNode n);

  // The graph node that answers a question; *error is set (and no_node returned) when the texts use too many numbers.
  NodeId ask(TextQuestion q, TextId a, TextId b, bool truncated, std::string* error);

  const TextNode& node(TextId id) const { return nodes_[static_cast<std::size_t>(id)]; }
  const TextTest& test(std::int32_t index) const { return tests_[static_cast<std::size_t>(index)]; }
  std::int32_t length(TextId id) const { return node(id).length; }

  std::string evaluate(TextId id, const TextInputs& inputs) const;
  double answer(std::int32_t test_index, const TextInputs& inputs) const;
  // Numbers that a text is made from, its choices included.
  void numbers_of(TextId id, std::vector<NodeId>& numbers) const;
  // Character columns that a test reads, by symbol.
  void columns_of_test(std::int32_t test_index, std::vector<std::int32_t>& symbols) const;

private:
  using Key = std::tuple<TextOp, TextId, TextId, TextId, NodeId, NodeId, std::int32_t, std::int32_t, std::string>;
  using TestKey = std::tuple<TextQuestion, bool, TextId, TextId>;
  static Key key_of(const TextNode& n);
  TextId intern(TextNode n);
  void gather(TextId id, std::vector<NodeId>& numbers, std::vector<std::int32_t>& symbols) const;

  GraphBuilder& graph_;
  std::vector<TextNode> nodes_;
  std::vector<TextTest> tests_;
  std::map<Key, TextId> known_;
  std::map<Key, TextId> chosen_; // operations whose selects have moved to the top: what became of them
  std::map<TestKey, NodeId> answers_;
  mutable KeptTexts kept_;
};

// The number that a text spells, blanks around it allowed; the missing value for a lone dot and for anything else.
// Dates and times in ISO form too; a NaN for what spells nothing.
double number_from_text(std::string_view text);
// A number in a format, or without one in the shortest form that reads back to the same value; a missing value is its
// letter: a dot, _, A to Z.
std::string text_from_number(double value, std::string_view format);
// A text in a format of texts; without one the blanks at its end are left out.
std::string text_in_format(std::string_view text, std::string_view format);
// What is wrong with a format, as a sentence; empty when it is one.
std::string format_fault(std::string_view format);

} // namespace torvale::engine
