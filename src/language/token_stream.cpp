#include "language/token_stream.h"

#include "language/lexical.h"

#include <algorithm>

namespace torvale::language {

namespace {
constexpr std::size_t deepest_nesting = 64;        // texts inside texts
constexpr std::size_t least_include_charge = 8192; // characters of the budget
} // namespace

bool TokenStream::push(std::int32_t source, syntax::Position where)
{
  if (cursor_.size() >= deepest_nesting) {
    diagnostics_->error(Problem::too_deep, where,
                        "Included files, macros and generated texts are nested more than 64 deep; "
                        "does a macro call itself, or a file include itself?");
    return false;
  }
  cursor_.push_back({source, 0});
  return true;
}

syntax::Position TokenStream::position(const Frame& f) const
{
  const syntax::Source& source = sources_.source(f.source);
  const std::size_t line = static_cast<std::size_t>(last_position_.line);
  const bool same_line =
      f.source == last_at_.source && f.at >= last_at_.at &&
      (line >= source.line_starts.size() || f.at < static_cast<std::size_t>(source.line_starts[line]));
  if (same_line) {
    for (std::size_t i = last_at_.at; i < f.at && i < source.text.size(); ++i)
      if ((static_cast<unsigned char>(source.text[i]) & 0xC0) != 0x80) ++last_position_.column;
  } else {
    last_position_ = sources_.position(f.source, f.at);
  }
  last_at_ = f;
  return last_position_;
}

TokenStream::Next TokenStream::skip(Cursor& cursor, std::size_t* unclosed) const
{
  for (;;) {
    if (cursor.empty()) return Next::end;
    const std::string_view t = text(cursor);
    Frame& top = cursor.back();
    top.at = skip_blanks(t, top.at, unclosed);
    if (*unclosed != std::string_view::npos) return Next::token;
    if (top.at >= t.size()) {
      if (cursor.size() == 1) return Next::end; // the program's own text stays, so that messages have a place
      cursor.pop_back();
      continue;
    }
    if (t[top.at] == '%' && top.at + 1 < t.size() && name_start(t[top.at + 1])) return Next::macro;
    return Next::token;
  }
}

TokenStream::Next TokenStream::seek_copy(Cursor& cursor) const
{
  std::size_t unclosed = std::string_view::npos;
  const Next next = skip(cursor, &unclosed);
  return unclosed == std::string_view::npos ? next : Next::end;
}

bool TokenStream::seek()
{
  for (;;) {
    std::size_t unclosed = std::string_view::npos;
    const Next next = skip(cursor_, &unclosed);
    if (unclosed != std::string_view::npos) {
      const std::int32_t source = cursor_.back().source;
      diagnostics_->error(
          Problem::unclosed_comment, sources_.position(source, unclosed),
          "The comment that begins here is never closed: */ is missing, and the rest of the text is lost.", 2);
      cursor_.back().at = text(cursor_).size();
      continue;
    }
    if (next == Next::end) return false;
    if (next == Next::token) return true;
    macro();
  }
}

void TokenStream::fault(std::int32_t source, std::size_t at, std::string message)
{
  diagnostics_->error(Problem::macro_fault, sources_.position(source, at), std::move(message));
}

// At a % with a word behind it.
bool TokenStream::macro()
{
  const std::size_t at = cursor_.back().at;
  const std::string_view t = text(cursor_);
  const std::size_t end = word_end(t, at + 1);
  const std::string word = upper_case(t.substr(at + 1, end - at - 1));
  const auto past_semicolon = [&] { cursor_.back().at = std::min(t.find(';', at), t.size() - 1) + 1; };
  if (word == "MACRO")
    define_macro(at);
  else if (word == "DO")
    open_loop(at);
  else if (word == "INCLUDE")
    include_word(at);
  else if (word == "MEND" || word == "END" || word == "TO" || word == "BY") {
    fault(cursor_.back().source, at, "%" + word + " without " + (word == "MEND" ? "%macro." : "%do."));
    past_semicolon();
  } else if (const auto found = macros_.find(word); found != macros_.end()) {
    call_macro(found->second, at);
  } else if (word == "IN" && end < t.size() && t[end] == '%') {
    fault(cursor_.back().source, at, "'%in%' is no operator: write x IN (1, 2), or of texts x IN ('a', 'b').");
    cursor_.back().at = end + 1;
  } else {
    fault(cursor_.back().source, at,
          "There is no macro called " + word + ". Define it with %macro " + word +
              "(...); ... %mend; before it is called.");
    std::size_t behind = skip_blanks(t, end, nullptr);
    if (behind < t.size() && t[behind] == '(') behind = closing_bracket(t, behind);
    cursor_.back().at = behind == std::string_view::npos ? t.size() : behind;
  }
  return true;
}

void TokenStream::define_macro(std::size_t at)
{
  Macro macro;
  std::size_t end = at;
  const std::int32_t source = cursor_.back().source;
  const MacroFault problem = read_definition(text(cursor_), at, macro, &end);
  cursor_.back().at = end;
  if (problem)
    fault(source, problem.at, problem.text);
  else
    macros_[upper_case(macro.name)] = std::move(macro);
}

void TokenStream::call_macro(const Macro& macro, std::size_t at)
{
  const std::string_view t = text(cursor_);
  const std::int32_t source = cursor_.back().source;
  std::vector<MacroParameter> bound;
  std::size_t end = at;
  std::string out;
  MacroFault problem = read_call(t, at + 1 + macro.name.size(), macro, bound, &end);
  if (!problem)
    if (MacroFault inner = expand(macro.body, bound, out, budget_))
      problem = {"In %" + macro.name + ": " + inner.text, at};
  cursor_.back().at = end;
  if (problem) return fault(source, problem.at, problem.text);
  const syntax::Position where = sources_.position(source, at);
  push(sources_.add("%" + macro.name, std::move(out), true, where), where);
}

void TokenStream::open_loop(std::size_t at)
{
  const std::string_view t = text(cursor_);
  const std::int32_t source = cursor_.back().source;
  std::size_t end = at;
  MacroFault problem = find_loop_end(t, at, &end);
  cursor_.back().at = end;
  std::string out;
  std::vector<MacroParameter> bound;
  if (!problem) {
    problem = expand(t.substr(at, end - at), bound, out, budget_);
    problem.at += at;
  }
  if (problem) return fault(source, problem.at, problem.text);
  const syntax::Position where = sources_.position(source, at);
  push(sources_.add("%do", std::move(out), true, where), where);
}

void TokenStream::include_word(std::size_t at)
{
  const std::string_view t = text(cursor_);
  const std::int32_t source = cursor_.back().source;
  std::size_t i = skip_blanks(t, at + 8, nullptr);
  const bool quoted = i < t.size() && (t[i] == '\'' || t[i] == '"');
  const QuoteShape shape = quoted ? quote_shape(t, i) : QuoteShape{i, i, false, 0};
  const std::size_t semicolon = skip_blanks(t, shape.end, nullptr);
  if (!quoted || !shape.closed || semicolon >= t.size() || t[semicolon] != ';') {
    fault(source, at, "%include needs a quoted file name and a semicolon.");
    cursor_.back().at = std::min(t.find(';', at), t.size() - 1) + 1;
    return;
  }
  const std::string path = unquoted(t.substr(i + 1, shape.inside - i - 1), t[i]);
  cursor_.back().at = semicolon + 1;
  include(path, sources_.position(source, at));
}

void TokenStream::include(const std::string& path, syntax::Position where)
{
  const syntax::Position user = sources_.user_position(where);
  const std::string including = user.line > 0 ? sources_.source(user.source).name : std::string();
  const auto contents = reader_ ? reader_(path, including) : std::nullopt;
  if (!contents) {
    diagnostics_->error(Problem::include_fault, where, "The file '" + path + "' cannot be read.");
    return;
  }
  // Every file counts as a large one, so that a file that includes itself by way of a mistake ends soon.
  const std::size_t charge = std::max<std::size_t>(contents->size(), least_include_charge);
  if (charge > budget_) {
    diagnostics_->error(Problem::include_fault, where, "The included files make more text than a program may hold.");
    return;
  }
  budget_ -= charge;
  push(sources_.add(path, *contents, false, where), where);
}

void TokenStream::set_generator(std::string_view statement, syntax::Position where)
{
  generator_ = statement;
  generator_at_ = where;
  anchored_ = false;
  pushed_ = -1;
}

int xtanch(TokenStream& stream)
{
  if (stream.generator_.empty()) return 1;
  stream.anchored_ = true;
  return 0;
}

int xttpshx(TokenStream& stream)
{
  if (!stream.anchored_ || stream.generator_.empty()) return 1;
  const std::int32_t source = stream.sources_.add(stream.generator_, "", true, stream.generator_at_);
  if (!stream.push(source, stream.generator_at_)) return 2;
  stream.pushed_ = source;
  return 0;
}

int xttpshb(TokenStream& stream, std::string_view line)
{
  if (stream.pushed_ < 0) return 1;
  stream.sources_.append_line(stream.pushed_, line);
  return 0;
}

} // namespace torvale::language
