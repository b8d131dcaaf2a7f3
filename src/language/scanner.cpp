#include "language/scanner.h"

#include "host/values/missing.h"
#include "language/lexical.h"

#include <bit>
#include <cmath>
#include <utility>

namespace torvale::language {

using namespace token_class;

Spellings::Spellings(const PARSECONTROL& control)
    : control_(&control), places_(std::bit_ceil(2 * static_cast<std::size_t>(control.maxterminal)))
{
  for (int t = control.classes + 1; t < control.maxterminal; ++t) {
    const auto [kind, text] = typed(t);
    if (kind == Kind::none) continue;
    std::int16_t& place = places_[place_of(kind, text)];
    if (place == 0 || kind != Kind::word) place = static_cast<std::int16_t>(t); // of a word the first, as it is typed
  }
}

std::pair<Spellings::Kind, std::string_view> Spellings::typed(int terminal) const
{
  std::string_view s = control_->spelling(terminal);
  Kind kind = Kind::word;
  if (!name_start(s[0])) {
    const bool marked = s.size() > 1 && s.back() == '$' && s[0] != '$'; // the mark of "//"
    if (marked) s.remove_suffix(1);
    return {s[0] != '%' && (s.size() == 1 || s[0] != '$') ? Kind::mark : Kind::none, s};
  }
  if (s.back() == '=') kind = Kind::word_equals;
  if (s.back() == '=' || s.back() == '$') s.remove_suffix(1);
  return {kind, s};
}

std::size_t Spellings::place_of(Kind kind, std::string_view text) const
{
  std::uint32_t hash = 2166136261U + static_cast<std::uint32_t>(kind); // Fowler, Noll and Vo's
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  const std::size_t last = places_.size() - 1;
  std::size_t at = hash & last;
  while (places_[at] != 0 && typed(places_[at]) != std::pair(kind, text)) at = (at + 1) & last;
  return at;
}

int Spellings::word(std::string_view upper) const
{
  return find(Kind::word, upper);
}
int Spellings::word_equals(std::string_view upper) const
{
  return find(Kind::word_equals, upper);
}
int Spellings::mark(std::string_view text) const
{
  return find(Kind::mark, text);
}

bool Spellings::hidden(int terminal) const
{
  const std::string_view s = control_->spelling(terminal);
  return terminal > control_->classes && s.size() > 1 && (s.back() == '$' || s.front() == '$' || s.front() == '%');
}

std::string_view Scanner::intern(std::string_view s)
{
  const auto [it, fresh] = interned_.try_emplace(upper_case(s));
  if (fresh) it->second = arena_.text(s);
  return it->second;
}

std::string_view Scanner::keyword_text(std::string_view s)
{
  const auto [it, fresh] = keyword_texts_.try_emplace(std::string(s));
  if (fresh) it->second = arena_.text(s);
  return it->second;
}

void Scanner::declare_array(std::string_view name)
{
  arrays_.insert(upper_case(name));
}
bool Scanner::is_array(std::string_view name) const
{
  return arrays_.count(upper_case(name)) > 0;
}

Token Scanner::make(int symbol, Cursor& cursor, std::size_t end, std::string_view text)
{
  Frame& frame = cursor.back();
  Token token;
  token.symbol = symbol;
  token.where = stream_.position(frame);
  token.begin = frame.at;
  token.length = static_cast<std::int32_t>(end - frame.at);
  token.text = text;
  frame.at = end;
  return token;
}

Token Scanner::next(const LrMachine& parse)
{
  for (;;) {
    if (!stream_.seek()) {
      Cursor& c = stream_.cursor();
      return make(ENDJB, c, c.back().at, "end of the program");
    }
    Token token = scan(parse, stream_.cursor(), true);
    if (token.symbol != 0) return token; // 0: a comment statement was passed
  }
}

Token Scanner::next_copy(const LrMachine& parse, Cursor& cursor)
{
  switch (stream_.seek_copy(cursor)) {
  case TokenStream::Next::macro:
    return {};
  case TokenStream::Next::end: {
    Token token;
    token.symbol = ENDJB;
    return token;
  }
  case TokenStream::Next::token:
    break;
  }
  return scan(parse, cursor, false);
}

// A comment statement ends at the next semicolon of its own text; nothing in it is looked at.
void Scanner::skip_statement_comment(Cursor& cursor)
{
  const std::string_view text = stream_.text(cursor);
  const std::size_t semicolon = text.find(';', cursor.back().at);
  cursor.back().at = semicolon == std::string_view::npos ? text.size() : semicolon + 1;
}

Token Scanner::scan(const LrMachine& parse, Cursor& cursor, bool report)
{
  const std::string_view text = stream_.text(cursor);
  const std::size_t at = cursor.back().at;
  // A format is looked for only where the parse can use one.
  if (parse.accepts(FMT)) {
    const std::size_t end = format_end(text, at);
    const bool dotted = end != std::string_view::npos && end < text.size() && name_start(text[end]);
    if (end != std::string_view::npos && !dotted) return make(FMT, cursor, end, arena_.text(text.substr(at, end - at)));
  }
  switch (shape_at(text, at)) {
  case Shape::end:
    return {};
  case Shape::word: {
    // A statement can begin exactly where DO can stand.
    const bool start = parse.accepts(spellings_.word("DO"));
    if (start && upper_case(text.substr(at, word_end(text, at) - at)) == "CMT" &&
        !names_variable("CMT", text, at + 3)) {
      skip_statement_comment(cursor);
      return {};
    }
    return word(parse, cursor, start);
  }
  case Shape::number:
    return number(parse, cursor, report);
  case Shape::text:
    return quoted(parse, cursor, report);
  case Shape::missing: {
    const std::size_t end = missing_end(text, at);
    Token token = make(MISSING, cursor, end, arena_.text(text.substr(at, end - at)));
    token.number = host::special_missing(end == at + 2 ? text[at + 1] : '.');
    return token;
  }
  case Shape::mark:
    break;
  }
  if (text[at] == '*' && parse.accepts(spellings_.word("DO"))) {
    skip_statement_comment(cursor);
    return {};
  }
  if (text[at] == '(' && parse.accepts(HSTDS)) {
    const std::size_t end = closing_bracket(text, at);
    if (end != std::string_view::npos) return make(HSTDS, cursor, end, arena_.text(text.substr(at + 1, end - at - 2)));
  }
  return mark(parse, cursor, report);
}

namespace {
// The character behind blanks and comments at `end` of the same text; NUL at its end.
char follower(std::string_view text, std::size_t end, std::size_t* place = nullptr)
{
  const std::size_t i = skip_blanks(text, end, nullptr);
  if (place) *place = i;
  return i < text.size() ? text[i] : '\0';
}
} // namespace

// At a statement's start: is this keyword a name? Told by what follows: an assignment, an element, a sum or a label.
bool Scanner::names_variable(std::string_view upper, std::string_view text, std::size_t end) const
{
  switch (follower(text, end)) {
  case '=':
  case ':':
    return true;
  case '[':
  case '{':
    return true;
  case '+':
    return upper != "PUT";
  case '(':
    return upper != "IF" && upper != "DO" && upper != "SELECT" && upper != "RETURN" && upper != "WHEN" &&
           is_array(upper);
  default:
    return false;
  }
}

// Where keyword and name are both possible the keyword is meant, but for a few words that need a certain follower.
bool Scanner::keeps_keyword(std::string_view upper, std::string_view text, std::size_t end) const
{
  const auto letters_follow = [&](std::size_t from) {
    std::size_t i = 0;
    return name_start(follower(text, from, &i));
  };
  if (upper == "WHILE" || upper == "UNTIL" || upper == "PUT") return follower(text, end) == '(';
  if (upper == "NUMERIC" || upper == "CHARACTER") return follower(text, end) == '-';
  if (upper == "OF" || upper == "DESCENDING") return letters_follow(end) || follower(text, end) == '\'';
  if (upper == "NOTSORTED") return true;
  if (upper == "LABEL" || upper == "LENGTH" || upper == "FORMAT") return follower(text, end) == '=';
  return true;
}

// The symbol of a word; *used gets its end (behind the "=" of a word that contains it).
int Scanner::word_symbol(const LrMachine& parse, const Cursor& cursor, std::string_view upper, std::size_t end,
                         bool start, std::size_t* used)
{
  const std::string_view text = stream_.text(cursor);
  *used = end;
  if (start && (upper == "RUN" || upper == "QUIT")) {
    std::size_t semicolon = 0;
    if (follower(text, end, &semicolon) == ';') {
      *used = semicolon + 1;
      return ENDJB;
    }
  }
  if (const int with_equals = spellings_.word_equals(upper); with_equals && parse.accepts(with_equals)) {
    std::size_t equals = 0;
    if (follower(text, end, &equals) == '=') {
      *used = equals + 1;
      return with_equals;
    }
  }
  const int keyword = spellings_.word(upper);
  if (keyword == 0) return NAMEX;
  if (start && names_variable(upper, text, end)) return NAMEX;
  if (start && upper == "TORVALE" && !parse.accepts(keyword)) {
    *used = cursor.back().at; // the next step begins here: nothing is read
    return ENDJB;
  }
  const bool name_possible = parse.accepts(NAMEX);
  if (!parse.accepts(keyword)) return name_possible && !start ? NAMEX : keyword;
  return start || !name_possible || keeps_keyword(upper, text, end) ? keyword : NAMEX;
}

Token Scanner::word(const LrMachine& parse, Cursor& cursor, bool start)
{
  const std::string_view text = stream_.text(cursor);
  const std::size_t at = cursor.back().at, end = word_end(text, at);
  if (const std::size_t dotted = dotted_end(text, at); dotted > end && !(start && !parse.accepts(COMPOUND)))
    return make(COMPOUND, cursor, dotted, intern(text.substr(at, dotted - at)));
  const std::string_view spelled = text.substr(at, end - at);
  std::size_t used = end;
  const int symbol = word_symbol(parse, cursor, upper_case(spelled), end, start, &used);
  return make(symbol, cursor, used, symbol == NAMEX ? intern(spelled) : keyword_text(spelled));
}

Token Scanner::number(const LrMachine& parse, Cursor& cursor, bool report)
{
  const std::string_view text = stream_.text(cursor);
  const std::size_t at = cursor.back().at;
  const NumberShape shape = number_shape(text, at);
  const std::string_view spelled = text.substr(at, shape.end - at);
  const bool whole = shape.whole && (!parse.accepts(NBR) || parse.accepts(INT));
  Token token = make(whole ? INT : NBR, cursor, shape.end, arena_.text(spelled));
  token.number = number_value(spelled, shape.hexadecimal);
  if (!report) return token;
  if (std::isinf(token.number))
    diagnostics_->error(Problem::bad_literal, token.where, std::string(spelled) + " is too large for a number.",
                        token.length);
  const bool letters = spelled.find_first_of("abcdefABCDEF") != std::string_view::npos;
  if (shape.hexadecimal && !letters && spelled.size() <= 3)
    diagnostics_->warning(Problem::ambiguous_reading, token.where,
                          std::string(spelled) + " is read as the hexadecimal number " +
                              std::string(spelled.substr(0, spelled.size() - 1)) + "; a product is written " +
                              std::string(spelled.substr(0, spelled.size() - 1)) + "*" +
                              std::string(spelled.substr(spelled.size() - 1)) + ".",
                          token.length);
  return token;
}

Token Scanner::quoted(const LrMachine& parse, Cursor& cursor, bool report)
{
  (void)parse;
  const std::string_view text = stream_.text(cursor);
  const std::size_t at = cursor.back().at;
  const QuoteShape shape = quote_shape(text, at);
  const std::string content = unquoted(text.substr(at + 1, shape.inside - at - 1), text[at]);
  const syntax::Position where = stream_.position(cursor.back());
  if (!shape.closed && report)
    diagnostics_->error(Problem::unclosed_quote, where,
                        "The text that begins here has no closing quote on its line: add " + std::string(1, text[at]) +
                            ".",
                        static_cast<std::int32_t>(shape.end - at));
  if (shape.suffix == 0) return make(QS, cursor, shape.end, arena_.text(content));
  if (shape.suffix == 'n') return make(VLITERAL, cursor, shape.end, intern(content));
  const auto value = shape.suffix == 'd'   ? date_value(content)
                     : shape.suffix == 't' ? time_value(content)
                                           : datetime_value(content);
  Token token = make(shape.suffix == 'd'   ? DATE
                     : shape.suffix == 't' ? TIME
                                           : DATETIME,
                     cursor, shape.end, arena_.text(text.substr(at, shape.end - at)));
  token.number = value.value_or(host::missing);
  if (!value && report)
    diagnostics_->error(Problem::bad_literal, where,
                        std::string(token.text) + " is no " +
                            (shape.suffix == 'd'   ? "date: write '31jan2024'd or '2024-01-31'd."
                             : shape.suffix == 't' ? "time of day: write '13:30't or '13:30:15't."
                                                   : "date and time: write '31jan2024:13:30:00'dt."),
                        token.length);
  return token;
}

namespace {
// What to type for the typographic characters that word processors put into programs.
std::string_view plain_character(std::string_view c)
{
  static constexpr std::pair<std::string_view, std::string_view> table[] = {
      {"\u2212", "-"},  {"\u2013", "-"}, {"\u2014", "-"},  {"\u2018", "'"},  {"\u2019", "'"},  {"\u201c", "\""},
      {"\u201d", "\""}, {"\u00d7", "*"}, {"\u2264", "<="}, {"\u2265", ">="}, {"\u2260", "^="}, {"\u00a0", "a blank"}};
  for (const auto& [from, to] : table)
    if (c == from) return to;
  return {};
}
} // namespace

// The longest operator that the parse can use here; when it can use none, the longest there is.
Token Scanner::mark(const LrMachine& parse, Cursor& cursor, bool report)
{
  const std::string_view text = stream_.text(cursor);
  const std::size_t at = cursor.back().at;
  int longest = 0;
  std::size_t longest_size = 0;
  for (std::size_t size = 2; size >= 1; --size) {
    if (at + size > text.size()) continue;
    const int symbol = spellings_.mark(text.substr(at, size));
    if (symbol == 0) continue;
    if (parse.accepts(symbol)) return make(symbol, cursor, at + size, arena_.text(text.substr(at, size)));
    if (longest == 0) {
      longest = symbol;
      longest_size = size;
    }
  }
  if (longest != 0) return make(longest, cursor, at + longest_size, arena_.text(text.substr(at, longest_size)));
  std::size_t end = at + 1; // a whole UTF-8 character
  while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) ++end;
  Token token = make(unknown_character, cursor, end, arena_.text(text.substr(at, end - at)));
  token.length = 1;
  if (report) {
    const unsigned char c = static_cast<unsigned char>(text[at]);
    const std::string shown =
        c < 32 || c == 127 ? "with code " + std::to_string(c) : "'" + std::string(token.text) + "'";
    const std::string_view plain = plain_character(token.text);
    diagnostics_->error(Problem::unknown_character, token.where,
                        "The character " + shown + " has no meaning here" +
                            (token.text == "#" ? ": comments are /* ... */, or begin with * and end with ;"
                             : plain.empty()   ? "."
                                               : ": write " + std::string(plain) + " instead."));
  }
  return token;
}

} // namespace torvale::language
