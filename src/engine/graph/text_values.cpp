#include "engine/graph/text_values.h"

#include "host/values/formats.h"
#include "host/values/missing.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace torvale::engine {

namespace {

std::string_view without_trailing_blanks(std::string_view s)
{
  const auto last = s.find_last_not_of(' ');
  return last == std::string_view::npos ? std::string_view{} : s.substr(0, last + 1);
}

char upper_character(char c)
{
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

char lower_character(char c)
{
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// -1, 0, 1; the shorter text is padded with blanks, or the longer cut.
int compare_texts(std::string_view a, std::string_view b, bool truncated)
{
  if (truncated) {
    const std::size_t n = std::min(a.size(), b.size());
    a = a.substr(0, n);
    b = b.substr(0, n);
  }
  const std::size_t n = std::max(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const auto x = static_cast<unsigned char>(i < a.size() ? a[i] : ' ');
    const auto y = static_cast<unsigned char>(i < b.size() ? b[i] : ' ');
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

// A position or count as a number of characters; missing and negative count as 0, anything huge as `most`.
std::size_t as_count(double v, std::size_t most)
{
  if (!(v >= 1.0)) return 0;
  return v >= static_cast<double>(most) ? most : static_cast<std::size_t>(v);
}

std::string replaced(std::string s, const std::string& from, const std::string& to)
{
  if (from.empty()) return s;
  std::string out;
  std::size_t at = 0;
  for (;;) {
    const std::size_t hit = s.find(from, at);
    if (hit == std::string::npos) return out + s.substr(at);
    out += s.substr(at, hit - at) + to;
    at = hit + from.size();
  }
}

std::vector<std::string_view> words_of(std::string_view s, std::string_view separators)
{
  if (separators.empty()) separators = " ";
  std::vector<std::string_view> words;
  std::size_t at = 0;
  while ((at = s.find_first_not_of(separators, at)) != std::string_view::npos) {
    const std::size_t end = std::min(s.find_first_of(separators, at), s.size());
    words.push_back(s.substr(at, end - at));
    at = end;
  }
  return words;
}

} // namespace

double number_from_text(std::string_view text)
{
  text = without_trailing_blanks(text);
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double v = 0.0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (fault != std::errc() || end != text.data() + text.size() || text.empty() || !std::isfinite(v))
    return std::numeric_limits<double>::quiet_NaN();
  return v;
}

std::string text_from_number(double value, std::string_view format)
{
  std::string problem;
  if (const auto known = format.empty() ? std::nullopt : host::parse_value_format(format, problem))
    return host::format_value(value, *known);
  if (std::isnan(value)) return std::string(1, host::missing_letter(host::canonical_missing(value)));
  char buffer[64];
  const auto done = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, done.ptr);
}

std::string text_in_format(std::string_view text, std::string_view format)
{
  std::string problem;
  const auto known = host::parse_value_format(format, problem);
  return host::format_text(text, known.value_or(host::ValueFormat{}));
}

std::string format_fault(std::string_view format)
{
  std::string problem;
  if (host::parse_value_format(format, problem)) return {};
  problem[0] = static_cast<char>(problem[0] & ~0x20);
  return problem.ends_with('?') ? problem : problem + ".";
}

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

std::string TextPool::evaluate(TextId id, const TextInputs& in) const
{
  const TextNode& n = node(id);
  const auto sub = [&](TextId t) { return t == no_text ? std::string() : evaluate(t, in); };
  const auto num = [&](NodeId x, double otherwise) { return x == no_node ? otherwise : in.number(x); };
  switch (n.op) {
  case TextOp::constant:
    return n.characters;
  case TextOp::column: {
    std::string s(in.column(n.symbol));
    s.resize(std::max(s.size(), static_cast<std::size_t>(n.length)), ' ');
    return s;
  }
  case TextOp::select: {
    const double m = in.number(n.number);
    return sub(m != 0.0 && !std::isnan(m) ? n.a : n.b);
  }
  case TextOp::fit: {
    std::string s = sub(n.a);
    s.resize(static_cast<std::size_t>(n.length), ' ');
    return s;
  }
  case TextOp::concatenate:
    return sub(n.a) + sub(n.b);
  case TextOp::substring: {
    const std::string s = sub(n.a);
    const std::size_t from = as_count(num(n.number, 1.0), s.size() + 1);
    if (from == 0 || from > s.size()) return {};
    return s.substr(from - 1, as_count(num(n.number2, 1e9), s.size()));
  }
  case TextOp::replace_at: {
    std::string s = sub(n.a);
    std::string with = sub(n.b);
    const std::size_t from = as_count(num(n.number, 1.0), s.size() + 1);
    if (from == 0 || from > s.size()) return s;
    const std::size_t count = std::min(as_count(num(n.number2, 1e9), s.size()), s.size() - from + 1);
    with.resize(count, ' ');
    return s.replace(from - 1, count, with);
  }
  case TextOp::upper:
  case TextOp::lower: {
    std::string s = sub(n.a);
    std::transform(s.begin(), s.end(), s.begin(), n.op == TextOp::upper ? upper_character : lower_character);
    return s;
  }
  case TextOp::proper: {
    std::string s = sub(n.a);
    char before = ' ';
    for (char& c : s) {
      c = before == ' ' || before == '-' || before == '.' || before == '(' || before == '/' ? upper_character(c)
                                                                                            : lower_character(c);
      before = c;
    }
    return s;
  }
  case TextOp::trim:
    return std::string(without_trailing_blanks(sub(n.a)));
  case TextOp::left:
  case TextOp::strip: {
    std::string s = sub(n.a);
    const std::size_t size = s.size();
    s.erase(0, std::min(s.find_first_not_of(' '), size));
    if (n.op == TextOp::strip) return std::string(without_trailing_blanks(s));
    s.resize(size, ' ');
    return s;
  }
  case TextOp::reverse: {
    std::string s = sub(n.a);
    std::reverse(s.begin(), s.end());
    return s;
  }
  case TextOp::compress: {
    std::string s = sub(n.a);
    const std::string out = n.b == no_text ? std::string(" ") : sub(n.b);
    std::erase_if(s, [&](char c) { return out.find(c) != std::string::npos; });
    return s;
  }
  case TextOp::replace:
    return replaced(sub(n.a), std::string(without_trailing_blanks(sub(n.b))),
                    std::string(without_trailing_blanks(sub(n.c))));
  case TextOp::translate: {
    std::string s = sub(n.a);
    const std::string to = sub(n.b), from = sub(n.c);
    for (char& c : s)
      if (const auto at = from.find(c); at != std::string::npos) c = at < to.size() ? to[at] : ' ';
    return s;
  }
  case TextOp::word: {
    const std::string s = sub(n.a), separators = sub(n.b);
    const auto words = words_of(s, separators);
    const double k = num(n.number, 1.0);
    const double index = k < 0.0 ? static_cast<double>(words.size()) + k : k - 1.0;
    if (!(index >= 0.0) || index >= static_cast<double>(words.size())) return {};
    return std::string(words[static_cast<std::size_t>(index)]);
  }
  case TextOp::repeat: {
    const std::string s = sub(n.a);
    std::string out = s;
    for (std::size_t k = as_count(num(n.number, 0.0), 1000); k > 0; --k) out += s;
    return out;
  }
  case TextOp::put:
    return text_from_number(in.number(n.number), n.characters);
  case TextOp::kept:
    return kept_.text(in.number(n.number));
  }
  return {};
}

double TextPool::answer(std::int32_t test_index, const TextInputs& in) const
{
  const TextTest& t = test(test_index);
  const std::string a = evaluate(t.a, in);
  const std::string b = t.b == no_text ? std::string() : evaluate(t.b, in);
  const auto position = [](std::size_t at) { return at == std::string::npos ? 0.0 : static_cast<double>(at) + 1.0; };
  const int order = t.question <= TextQuestion::greater_equal ? compare_texts(a, b, t.truncated) : 0;
  switch (t.question) {
  case TextQuestion::less:
    return order < 0;
  case TextQuestion::less_equal:
    return order <= 0;
  case TextQuestion::equal:
    return order == 0;
  case TextQuestion::not_equal:
    return order != 0;
  case TextQuestion::greater:
    return order > 0;
  case TextQuestion::greater_equal:
    return order >= 0;
  case TextQuestion::length:
    return std::max(1.0, static_cast<double>(without_trailing_blanks(a).size()));
  case TextQuestion::length_zero:
    return static_cast<double>(without_trailing_blanks(a).size());
  case TextQuestion::index:
    return b.empty() ? 0.0 : position(a.find(b));
  case TextQuestion::index_any:
    return position(a.find_first_of(b));
  case TextQuestion::verify:
    return position(a.find_first_not_of(b));
  case TextQuestion::count: {
    double n = 0.0;
    for (std::size_t at = 0; !b.empty() && (at = a.find(b, at)) != std::string::npos; at += b.size()) n += 1.0;
    return n;
  }
  case TextQuestion::rank:
    return a.empty() ? 0.0 : static_cast<double>(static_cast<unsigned char>(a[0]));
  case TextQuestion::to_number: {
    std::string problem;
    const auto format = t.b == no_text ? std::nullopt : host::parse_value_format(evaluate(t.b, in), problem);
    return format ? host::read_value(a, *format) : number_from_text(a);
  }
  case TextQuestion::words:
    return static_cast<double>(words_of(a, b).size());
  case TextQuestion::code:
    return kept_.code(a);
  }
  return 0.0;
}

void TextPool::columns_of_test(std::int32_t test_index, std::vector<std::int32_t>& symbols) const
{
  std::vector<NodeId> numbers;
  gather(test(test_index).a, numbers, symbols);
  gather(test(test_index).b, numbers, symbols);
}

} // namespace torvale::engine
