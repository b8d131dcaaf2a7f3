#include "language/macros.h"

#include "language/lexical.h"

#include <algorithm>
#include <charconv>

namespace torvale::language {

namespace {

constexpr std::size_t npos = std::string_view::npos;

// The word behind a % or & at `at`, upper case; empty when none follows.
std::string word_behind(std::string_view text, std::size_t at)
{
  if (at + 1 >= text.size() || !name_start(text[at + 1])) return {};
  return upper_case(text.substr(at + 1, word_end(text, at + 1) - at - 1));
}

// Place behind a quoted text or comment that begins at `at`; `at` when none does. An unclosed one ends at its line's
// end.
std::size_t pass_opaque(std::string_view text, std::size_t at)
{
  if (text[at] == '\'') return quote_shape(text, at).end;
  if (text.substr(at, 2) == "/*") {
    const std::size_t close = text.find("*/", at + 2);
    return close == npos ? text.size() : close + 2;
  }
  return at;
}

// Walks from `at` to the word that closes: "%mend" for "%macro", "%end" for "%do". Returns the place of its % or npos.
std::size_t find_close(std::string_view text, std::size_t at, std::string_view open, std::string_view close)
{
  int depth = 0;
  for (std::size_t i = at; i < text.size();) {
    if (const std::size_t j = pass_opaque(text, i); j > i) {
      i = j;
      continue;
    }
    if (text[i] == '%') {
      const std::string w = word_behind(text, i);
      if (w == open) ++depth;
      if (w == close && --depth == 0) return i;
    }
    ++i;
  }
  return npos;
}

std::size_t skip_spaces(std::string_view text, std::size_t at)
{
  return skip_blanks(text, at, nullptr);
}

std::string_view trimmed(std::string_view s)
{
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

// Splits the inside of a bracket at commas that stand in no bracket and no quote.
std::vector<std::string_view> split_arguments(std::string_view inside)
{
  std::vector<std::string_view> parts;
  std::size_t begin = 0;
  int depth = 0;
  for (std::size_t i = 0; i < inside.size(); ++i) {
    const char c = inside[i];
    if (c == '\'' || c == '"') {
      const std::size_t close = inside.find(c, i + 1);
      i = close == npos ? inside.size() - 1 : close;
    } else if (c == '(')
      ++depth;
    else if (c == ')')
      --depth;
    else if (c == ',' && depth == 0) {
      parts.push_back(inside.substr(begin, i - begin));
      begin = i + 1;
    }
  }
  parts.push_back(inside.substr(begin));
  return parts;
}

std::size_t behind_semicolon(std::string_view text, std::size_t at)
{
  const std::size_t s = text.find(';', at);
  return s == npos ? text.size() : s + 1;
}

// The header of a loop, in raw text: variable, first, last, step; `body` is the place behind its semicolon.
struct LoopHeader {
  std::string variable;
  std::string_view first, last, step;
  std::size_t body = 0;
};

MacroFault read_loop_header(std::string_view text, std::size_t at, LoopHeader& header)
{
  const std::string form = "A %do needs the form: %do name = first %to last;";
  std::size_t i = skip_spaces(text, at + 3);
  if (i >= text.size() || !name_start(text[i])) return {form, at};
  const std::size_t end = word_end(text, i);
  header.variable = upper_case(text.substr(i, end - i));
  i = skip_spaces(text, end);
  if (i >= text.size() || text[i] != '=') return {form, at};
  const std::size_t semicolon = text.find(';', i);
  if (semicolon == npos) return {form, at};
  std::string_view rest = text.substr(i + 1, semicolon - i - 1);
  const auto place_of = [](std::string_view s, std::string_view word) {
    for (std::size_t k = s.find('%'); k != npos; k = s.find('%', k + 1))
      if (word_behind(s, k) == word) return k;
    return npos;
  };
  const std::size_t to = place_of(rest, "TO");
  if (to == npos) return {form, at};
  header.first = trimmed(rest.substr(0, to));
  rest = rest.substr(to + 3);
  const std::size_t by = place_of(rest, "BY");
  header.last = trimmed(rest.substr(0, by));
  header.step = by == npos ? "1" : trimmed(rest.substr(by + 3));
  header.body = semicolon + 1;
  return {};
}

// A limit of a loop: parameters replaced, then an integer.
MacroFault loop_number(std::string_view text, std::size_t at, std::vector<MacroParameter>& bound, std::size_t& budget,
                       long& value)
{
  std::string written;
  if (const MacroFault fault = expand(text, bound, written, budget)) return {fault.text, at};
  std::string_view s = trimmed(written);
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  const auto result = std::from_chars(s.data(), s.data() + s.size(), value);
  if (s.empty() || result.ec != std::errc() || result.ptr != s.data() + s.size() || std::abs(value) > 1000000000)
    return {"The limits of a %do must be integers, not '" + std::string(trimmed(written)) + "'.", at};
  return {};
}

MacroFault run_loop(std::string_view text, std::size_t at, std::vector<MacroParameter>& bound, std::string& out,
                    std::size_t& budget, int depth, std::size_t* end)
{
  LoopHeader header;
  if (const MacroFault fault = find_loop_end(text, at, end)) return fault;
  if (const MacroFault fault = read_loop_header(text, at, header)) return fault;
  const std::size_t close = find_close(text, at, "DO", "END");
  if (depth >= deepest_loop) return {"%do loops are nested too deeply.", at};
  if (header.body > close) return {"A %do needs a semicolon before its text.", at};
  long first = 0, last = 0, step = 1;
  for (auto [part, value] : {std::pair{header.first, &first}, {header.last, &last}, {header.step, &step}})
    if (const MacroFault fault = loop_number(part, at, bound, budget, *value)) return fault;
  if (step == 0) return {"The step of a %do must not be 0.", at};
  const long rounds = (last - first) / step + 1;
  if ((step > 0 ? last < first : last > first) || rounds <= 0) return {};
  if (rounds > longest_loop) return {"A %do runs at most 100000 times.", at};
  const std::string_view body = text.substr(header.body, close - header.body);
  bound.push_back({header.variable, ""});
  for (long k = 0; k < rounds; ++k) {
    bound.back().value = std::to_string(first + k * step);
    if (const MacroFault fault = expand(body, bound, out, budget, depth + 1)) {
      bound.pop_back();
      return {fault.text, at};
    }
  }
  bound.pop_back();
  return {};
}

} // namespace

MacroFault read_definition(std::string_view text, std::size_t at, Macro& macro, std::size_t* end)
{
  const std::size_t close = find_close(text, at, "MACRO", "MEND");
  *end = close == npos ? text.size() : behind_semicolon(text, close);
  if (close == npos) return {"This %macro has no %mend.", at};
  std::size_t i = skip_spaces(text, at + 6);
  if (i >= text.size() || !name_start(text[i])) return {"%macro needs a name.", at};
  std::size_t word = word_end(text, i);
  macro.name = std::string(text.substr(i, word - i));
  i = skip_spaces(text, word);
  if (i < text.size() && text[i] == '(') {
    const std::size_t bracket = closing_bracket(text, i);
    if (bracket == npos || bracket > close)
      return {"The parameter list of %macro " + macro.name + " is not closed.", i};
    const std::string_view inside = text.substr(i + 1, bracket - i - 2);
    if (!trimmed(inside).empty())
      for (std::string_view part : split_arguments(inside)) {
        const std::string_view p = trimmed(part);
        const std::size_t name_end = p.empty() || !name_start(p[0]) ? 0 : word_end(p, 0);
        const std::string_view rest = trimmed(p.substr(name_end));
        if (name_end == 0 || rest.empty() || rest.front() != '=')
          return {"A parameter of a macro is written name= or name=default, not '" + std::string(p) + "'.", i};
        macro.parameters.push_back({upper_case(p.substr(0, name_end)), std::string(trimmed(rest.substr(1)))});
      }
    i = skip_spaces(text, bracket);
  }
  if (i >= close || text[i] != ';') return {"The header of %macro " + macro.name + " must end with a semicolon.", at};
  macro.body = std::string(text.substr(i + 1, close - i - 1));
  return {};
}

MacroFault read_call(std::string_view text, std::size_t at, const Macro& macro, std::vector<MacroParameter>& bound,
                     std::size_t* end)
{
  bound = macro.parameters;
  *end = at;
  const std::size_t i = skip_spaces(text, at);
  if (i >= text.size() || text[i] != '(') return {};
  if (macro.parameters.empty()) return {}; // the bracket belongs to the text behind the call
  const std::size_t bracket = closing_bracket(text, i);
  if (bracket == npos) return {"The bracket of %" + macro.name + " is not closed.", i};
  *end = bracket;
  const std::string_view inside = text.substr(i + 1, bracket - i - 2);
  if (trimmed(inside).empty()) return {};
  for (std::string_view part : split_arguments(inside)) {
    const std::string_view p = trimmed(part);
    const std::size_t name_end = p.empty() || !name_start(p[0]) ? 0 : word_end(p, 0);
    const std::string_view rest = trimmed(p.substr(name_end));
    if (name_end == 0 || rest.empty() || rest.front() != '=')
      return {"%" + macro.name + " takes its parameters by name, as name=value, not '" + std::string(p) + "'.", i};
    const std::string name = upper_case(p.substr(0, name_end));
    const auto found =
        std::find_if(bound.begin(), bound.end(), [&](const MacroParameter& m) { return m.name == name; });
    if (found == bound.end())
      return {"%" + macro.name + " has no parameter called " + std::string(p.substr(0, name_end)) + ".", i};
    found->value = std::string(trimmed(rest.substr(1)));
  }
  return {};
}

MacroFault find_loop_end(std::string_view text, std::size_t at, std::size_t* end)
{
  const std::size_t close = find_close(text, at, "DO", "END");
  *end = close == npos ? text.size() : behind_semicolon(text, close);
  if (close == npos) return {"This %do has no %end.", at};
  const std::size_t behind = skip_spaces(text, close + 4);
  if (behind >= text.size() || text[behind] != ';') return {"%end must be followed by a semicolon.", close};
  return {};
}

MacroFault expand(std::string_view text, std::vector<MacroParameter>& bound, std::string& out, std::size_t& budget,
                  int depth)
{
  const std::size_t before = out.size();
  for (std::size_t i = 0; i < text.size();) {
    if (out.size() - before > budget) return {"Macros make more text than a program may hold.", i};
    if (const std::size_t j = pass_opaque(text, i); j > i) {
      out += text.substr(i, j - i);
      i = j;
      continue;
    }
    const std::string word = text[i] == '&' || text[i] == '%' ? word_behind(text, i) : std::string();
    if (text[i] == '&' && !word.empty()) {
      // The innermost binding of a name holds: search from the back.
      const auto found =
          std::find_if(bound.rbegin(), bound.rend(), [&](const MacroParameter& m) { return m.name == word; });
      if (found != bound.rend()) {
        out += found->value;
        i += 1 + word.size();
        if (i < text.size() && text[i] == '.') ++i;
        continue;
      }
    }
    if (text[i] == '%' && word == "DO") {
      std::size_t spent = out.size() - before, end = i;
      std::size_t left = budget - std::min(budget, spent);
      std::string loop;
      if (const MacroFault fault = run_loop(text, i, bound, loop, left, depth, &end)) return fault;
      out += loop;
      i = end;
      continue;
    }
    if (text[i] == '%' && (word == "END" || word == "TO" || word == "BY")) return {"%" + word + " without %do.", i};
    out += text[i++];
  }
  budget -= std::min(budget, out.size() - before);
  return {};
}

} // namespace torvale::language
