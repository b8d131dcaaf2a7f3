#include "engine/graph/text_values.h"

#include <algorithm>
#include <cmath>

namespace torvale::engine {

double KeptTexts::code(const std::string& text)
{
  const std::lock_guard<std::mutex> guard(lock_);
  const auto [at, added] = codes_.try_emplace(text, texts_.size());
  if (added) texts_.push_back(text);
  return static_cast<double>(at->second);
}

std::string KeptTexts::text(double code) const
{
  const std::lock_guard<std::mutex> guard(lock_);
  return code >= 0.0 && code < static_cast<double>(texts_.size()) ? texts_[static_cast<std::size_t>(code)]
                                                                  : std::string();
}

TextPool::Key TextPool::key_of(const TextNode& n)
{
  return {n.op, n.a, n.b, n.c, n.number, n.number2, n.symbol, n.length, n.characters};
}

TextId TextPool::intern(TextNode n)
{
  Key key = key_of(n);
  if (const auto it = known_.find(key); it != known_.end()) return it->second;
  const auto id = static_cast<TextId>(nodes_.size());
  nodes_.push_back(std::move(n));
  known_.emplace(std::move(key), id);
  return id;
}

TextId TextPool::constant(std::string_view characters)
{
  TextNode n;
  n.characters = characters;
  n.length = static_cast<std::int32_t>(characters.size());
  return intern(std::move(n));
}

TextId TextPool::column(std::int32_t symbol, std::int32_t width)
{
  TextNode n;
  n.op = TextOp::column;
  n.symbol = symbol;
  n.length = width;
  return intern(std::move(n));
}

TextId TextPool::select(NodeId mask, TextId a, TextId b)
{
  if (graph_.is_constant(mask)) return graph_.value(mask) != 0.0 ? a : b;
  if (a == b) return a;
  TextNode n;
  n.op = TextOp::select;
  n.number = mask;
  n.a = a;
  n.b = b;
  n.length = std::max(length(a), length(b));
  return intern(std::move(n));
}

TextId TextPool::fit(TextId a, std::int32_t wanted)
{
  if (node(a).op == TextOp::fit && node(a).length == wanted) return a;
  TextNode n;
  n.op = TextOp::fit;
  n.a = a;
  n.length = wanted;
  return make(std::move(n));
}

TextId TextPool::kept(NodeId code, std::int32_t length)
{
  TextNode n;
  n.op = TextOp::kept;
  n.number = code;
  n.length = length;
  return make(std::move(n));
}

TextId TextPool::make(TextNode n)
{
  for (TextId TextNode::*side : {&TextNode::a, &TextNode::b, &TextNode::c}) {
    if (n.*side == no_text || node(n.*side).op != TextOp::select) continue;
    const Key key = key_of(n);
    if (const auto it = chosen_.find(key); it != chosen_.end()) return it->second;
    const TextNode choice = node(n.*side);
    TextNode yes = n, no = n;
    yes.*side = choice.a;
    no.*side = choice.b;
    const TextId a = make(std::move(yes));
    const TextId b = make(std::move(no));
    return chosen_.emplace(key, select(choice.number, a, b)).first->second;
  }
  // What depends on constants alone is worked out now.
  std::vector<NodeId> numbers;
  std::vector<std::int32_t> symbols;
  const TextId id = intern(std::move(n));
  gather(id, numbers, symbols);
  if (!symbols.empty() || node(id).op == TextOp::constant) return id;
  for (const NodeId in : numbers)
    if (!graph_.is_constant(in)) return id;
  struct Constants final : TextInputs {
    const GraphBuilder* graph = nullptr;
    std::string_view column(std::int32_t) const override { return {}; }
    double number(NodeId in) const override { return graph->value(in); }
  } constants;
  constants.graph = &graph_;
  return constant(evaluate(id, constants));
}

void TextPool::gather(TextId id, std::vector<NodeId>& numbers, std::vector<std::int32_t>& symbols) const
{
  if (id == no_text) return;
  const TextNode& n = node(id);
  for (const NodeId in : {n.number, n.number2})
    if (in != no_node && std::find(numbers.begin(), numbers.end(), in) == numbers.end()) numbers.push_back(in);
  if (n.op == TextOp::column && std::find(symbols.begin(), symbols.end(), n.symbol) == symbols.end())
    symbols.push_back(n.symbol);
  for (const TextId side : {n.a, n.b, n.c}) gather(side, numbers, symbols);
}

void TextPool::numbers_of(TextId id, std::vector<NodeId>& numbers) const
{
  std::vector<std::int32_t> symbols;
  gather(id, numbers, symbols);
}

NodeId TextPool::ask(TextQuestion q, TextId a, TextId b, bool truncated, std::string* error)
{
  if (q == TextQuestion::code && node(a).op == TextOp::kept) return node(a).number;
  const TestKey key{q, truncated, a, b};
  if (const auto it = answers_.find(key); it != answers_.end()) return it->second;
  NodeId answer_node = no_node;
  if (node(a).op == TextOp::select || (b != no_text && node(b).op == TextOp::select)) {
    const bool first = node(a).op == TextOp::select;
    const TextNode choice = node(first ? a : b);
    const NodeId yes = ask(q, first ? choice.a : a, first ? b : choice.a, truncated, error);
    const NodeId no = ask(q, first ? choice.b : a, first ? b : choice.b, truncated, error);
    if (yes == no_node || no == no_node) return no_node;
    answer_node = graph_.select(choice.number, yes, no);
  } else {
    TextTest t;
    t.question = q;
    t.truncated = truncated;
    t.a = a;
    t.b = b;
    std::vector<std::int32_t> symbols;
    gather(a, t.inputs, symbols);
    gather(b, t.inputs, symbols);
    if (t.inputs.size() > 6) {
      *error = "This text expression uses more than 6 numbers; assign parts of it to variables.";
      return no_node;
    }
    if (t.inputs.empty() && symbols.size() == 1) t.only_symbol = symbols[0];
    const bool folds = t.inputs.empty() && symbols.empty();
    const std::vector<NodeId> inputs = t.inputs;
    tests_.push_back(std::move(t));
    const auto index = static_cast<std::int32_t>(tests_.size()) - 1;
    if (folds) {
      struct Nothing final : TextInputs {
        std::string_view column(std::int32_t) const override { return {}; }
        double number(NodeId) const override { return 0.0; }
      } const nothing;
      const double v = answer(index, nothing);
      answer_node = std::isnan(v) ? graph_.missing() : graph_.constant(v);
    } else {
      answer_node = graph_.text(index, inputs);
    }
    // The six comparisons are truth values; `not_equal` 0 tells the graph so.
    if (q <= TextQuestion::greater_equal && !graph_.is_constant(answer_node))
      answer_node = graph_.compare(Kernel::not_equal, answer_node, graph_.zero());
  }
  answers_.emplace(key, answer_node);
  return answer_node;
}

void TextPool::columns_of_test(std::int32_t test_index, std::vector<std::int32_t>& symbols) const
{
  std::vector<NodeId> numbers;
  gather(test(test_index).a, numbers, symbols);
  gather(test(test_index).b, numbers, symbols);
}

} // namespace torvale::engine
