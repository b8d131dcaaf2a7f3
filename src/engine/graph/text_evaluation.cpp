// What the text expressions of a program are worth, and the conversions between texts and numbers.
#include "engine/graph/text_values.h"

#include "host/values/calendar.h"
#include "host/values/formats.h"
#include "host/values/missing.h"
#include "host/values/text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
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
  return host::compare_padded(a, b);
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

std::string proper_case(std::string s)
{
  char before = ' ';
  for (char& c : s) {
    c = before == ' ' || before == '-' || before == '.' || before == '(' || before == '/' ? upper_character(c)
                                                                                          : lower_character(c);
    before = c;
  }
  return s;
}

// Without leading blanks, which go behind.
std::string moved_left(std::string s)
{
  const std::size_t size = s.size();
  s.erase(0, std::min(s.find_first_not_of(' '), size));
  s.resize(size, ' ');
  return s;
}

// What operations on one text alone make of it.
std::string reshaped(TextOp op, std::string s)
{
  switch (op) {
  case TextOp::upper:
    std::transform(s.begin(), s.end(), s.begin(), upper_character);
    return s;
  case TextOp::lower:
    std::transform(s.begin(), s.end(), s.begin(), lower_character);
    return s;
  case TextOp::proper:
    return proper_case(std::move(s));
  case TextOp::trim:
    return std::string(without_trailing_blanks(s));
  case TextOp::left:
    return moved_left(std::move(s));
  case TextOp::strip:
    return std::string(without_trailing_blanks(moved_left(std::move(s))));
  default: // reverse
    std::reverse(s.begin(), s.end());
    return s;
  }
}

// `count` characters of s from position `from`, counted from 1.
std::string part_of(const std::string& s, double from, double count)
{
  const std::size_t at = as_count(from, s.size() + 1);
  if (at == 0 || at > s.size()) return {};
  return s.substr(at - 1, as_count(count, s.size()));
}

// s with `with` over `count` characters from position `from`.
std::string overwritten(std::string s, std::string with, double from, double count)
{
  const std::size_t at = as_count(from, s.size() + 1);
  if (at == 0 || at > s.size()) return s;
  const std::size_t size = std::min(as_count(count, s.size()), s.size() - at + 1);
  with.resize(size, ' ');
  return s.replace(at - 1, size, with);
}

// Word number k of s; negative numbers count from the end.
std::string word_of(const std::string& s, const std::string& separators, double k)
{
  const auto words = words_of(s, separators);
  const double index = k < 0.0 ? static_cast<double>(words.size()) + k : k - 1.0;
  if (!(index >= 0.0) || index >= static_cast<double>(words.size())) return {};
  return std::string(words[static_cast<std::size_t>(index)]);
}

std::string repeated(const std::string& s, double more)
{
  std::string out = s;
  for (std::size_t k = as_count(more, 1000); k > 0; --k) out += s;
  return out;
}

std::string without_characters(std::string s, const std::string& out)
{
  std::erase_if(s, [&](char c) { return out.find(c) != std::string::npos; });
  return s;
}

std::string translated(std::string s, const std::string& to, const std::string& from)
{
  for (char& c : s)
    if (const auto at = from.find(c); at != std::string::npos) c = at < to.size() ? to[at] : ' ';
  return s;
}

std::string padded(std::string s, std::size_t size)
{
  s.resize(size, ' ');
  return s;
}

} // namespace

double number_from_text(std::string_view text)
{
  text = without_trailing_blanks(text);
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double v = 0.0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (fault == std::errc() && end == text.data() + text.size() && !text.empty() && std::isfinite(v)) return v;
  return host::parse_iso(text, host::iso_moment(text)).value_or(std::numeric_limits<double>::quiet_NaN());
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

std::string TextPool::evaluate(TextId id, const TextInputs& in) const
{
  const TextNode& n = node(id);
  const auto sub = [&](TextId t) { return t == no_text ? std::string() : evaluate(t, in); };
  const auto num = [&](NodeId x, double otherwise) { return x == no_node ? otherwise : in.number(x); };
  switch (n.op) {
  case TextOp::constant:
    return n.characters;
  case TextOp::column: {
    const std::string_view s = in.column(n.symbol);
    return padded(std::string(s), std::max(s.size(), static_cast<std::size_t>(n.length)));
  }
  case TextOp::select: {
    const double m = in.number(n.number);
    return sub(m != 0.0 && !std::isnan(m) ? n.a : n.b);
  }
  case TextOp::fit:
    return padded(sub(n.a), static_cast<std::size_t>(n.length));
  case TextOp::concatenate:
    return sub(n.a) + sub(n.b);
  case TextOp::substring:
    return part_of(sub(n.a), num(n.number, 1.0), num(n.number2, 1e9));
  case TextOp::replace_at:
    return overwritten(sub(n.a), sub(n.b), num(n.number, 1.0), num(n.number2, 1e9));
  case TextOp::upper:
  case TextOp::lower:
  case TextOp::proper:
  case TextOp::trim:
  case TextOp::left:
  case TextOp::strip:
  case TextOp::reverse:
    return reshaped(n.op, sub(n.a));
  case TextOp::compress:
    return without_characters(sub(n.a), n.b == no_text ? std::string(" ") : sub(n.b));
  case TextOp::replace:
    return replaced(sub(n.a), std::string(without_trailing_blanks(sub(n.b))),
                    std::string(without_trailing_blanks(sub(n.c))));
  case TextOp::translate:
    return translated(sub(n.a), sub(n.b), sub(n.c));
  case TextOp::word:
    return word_of(sub(n.a), sub(n.b), num(n.number, 1.0));
  case TextOp::repeat:
    return repeated(sub(n.a), num(n.number, 0.0));
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

} // namespace torvale::engine
