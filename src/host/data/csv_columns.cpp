#include "host/data/csv_columns.h"
#include "host/values/text.h"
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

namespace torvale::host {

namespace {

using Kind = ColumnRequest::Kind;
using Type = BlockColumn::Type;

bool is_digit(char c)
{
  return c >= '0' && c <= '9';
}

constexpr double powers_of_ten[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                    1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// A number of digits and perhaps a decimal point, with nothing else before `separator` or a line end. With at most 15
// digits both they and the power of ten are doubles, so that one division rounds correctly. Behind the bytes stands a
// line end, so that the loops need no bounds.
struct PlainNumber {
  const char* end = nullptr; // null: the field is written otherwise
  double value = 0.0;
  bool leading_zero = false;
  bool point = false;
};

PlainNumber plain_number(const char* p, char separator)
{
  PlainNumber n;
  const char* const begin = p;
  const bool minus = *p == '-';
  p += minus;
  const char* const first = p;
  std::uint64_t digits = 0;
  for (; is_digit(*p); ++p) digits = 10 * digits + static_cast<std::uint64_t>(*p - '0');
  const std::ptrdiff_t whole = p - first;
  std::ptrdiff_t decimals = 0;
  if (*p == '.') {
    const char* const point = ++p;
    n.point = true;
    for (; is_digit(*p); ++p) digits = 10 * digits + static_cast<std::uint64_t>(*p - '0');
    decimals = p - point;
  }
  if (whole + decimals == 0 || (*p != separator && *p != '\n' && *p != '\r')) return n;
  if (whole + decimals <= 15) {
    const double x = static_cast<double>(digits) / powers_of_ten[decimals];
    n.value = minus ? -x : x;
  } else if (!n.point || std::from_chars(begin, p, n.value).ec != std::errc()) {
    return n; // long whole numbers need a closer look
  }
  n.leading_zero = !n.point && whole > 1 && *first == '0';
  n.end = p;
  return n;
}

// One block on its way into columns.
class BlockReader {
public:
  BlockReader(const CsvBlock& block, const CsvDialect& dialect, const std::vector<ColumnRequest>& requests,
              BlockValues& out)
      : p_(block.bytes.data()), end_(p_ + block.bytes.size()), dialect_(dialect), requests_(requests), out_(out)
  {
    std::vector<BlockColumn> columns = std::move(out.columns); // their room is used again
    columns.resize(requests.size());
    for (BlockColumn& column : columns) {
      BlockColumn cleared;
      cleared.numbers.swap(column.numbers);
      cleared.codes.swap(column.codes);
      cleared.numbers.clear();
      cleared.codes.clear();
      column = std::move(cleared);
    }
    out = BlockValues{};
    out.columns = std::move(columns);
    dictionaries_.resize(requests.size());
    spoiled_.resize(requests.size());
    for (std::size_t i = 0; i < requests.size(); ++i)
      if (requests[i].kind == Kind::character) out_.columns[i].type = Type::text;
  }

  void read()
  {
    while (p_ < end_) {
      if (*p_ == '\n' || *p_ == '\r') {
        line_end();
        continue;
      }
      record_line_ = out_.lines;
      ++out_.rows;
      if (!record()) break;
    }
  }
  bool mixed() const { return mixed_; }
  std::vector<ColumnRequest> requests_again() const
  {
    std::vector<ColumnRequest> again(requests_.size(), ColumnRequest{Kind::skip});
    for (std::size_t i = 0; i < again.size(); ++i)
      if (spoiled_[i]) again[i].kind = Kind::character;
    return again;
  }

private:
  void line_end()
  {
    const bool pair = *p_ == '\r' && p_ + 1 < end_ && p_[1] == '\n';
    p_ += pair ? 2 : 1;
    ++out_.lines;
  }

  // Where blanks separate, several count as one, and those at the ends of a line do not count. True: the line ends
  // here.
  bool pass_blanks()
  {
    if (dialect_.separator != ' ') return false;
    while (p_ < end_ && *p_ == ' ') ++p_;
    return p_ == end_ || *p_ == '\n' || *p_ == '\r';
  }

  bool fail(BlockValues::Fault fault, std::size_t field)
  {
    out_.fault = fault;
    out_.fault_line = record_line_;
    out_.fault_row = out_.rows;
    out_.fault_field = field;
    return false;
  }

  bool record()
  {
    const std::size_t count = requests_.size();
    pass_blanks();
    for (std::size_t i = 0;; ++i) {
      if (i < count ? !field(i) : !pass_field(i)) return false;
      if (*p_ == dialect_.separator && p_ < end_) {
        ++p_;
        if (!pass_blanks()) continue;
      }
      if (p_ < end_) line_end();
      out_.fields_found = i + 1;
      return i + 1 == count ? true : fail(BlockValues::Fault::wrong_count, i + 1);
    }
  }

  bool field(std::size_t i)
  {
    BlockColumn& column = out_.columns[i];
    const Kind kind = requests_[i].kind;
    if (column.type <= Type::number && (kind == Kind::any || kind == Kind::numeric) && dialect_.points &&
        dialect_.code_numbers.empty()) {
      if (const PlainNumber n = plain_number(p_, dialect_.separator); n.end) {
        p_ = n.end;
        column.type = Type::number;
        column.point = column.point || n.point;
        if (n.leading_zero && column.leading_zero_row == 0) column.leading_zero_row = out_.rows;
        column.numbers.push_back(n.value);
        return true;
      }
    }
    std::string_view text;
    bool quoted = false;
    if (!take_field(i, text, quoted)) return false;
    if (kind == Kind::skip || spoiled_[i]) return true;
    if (column.type == Type::text || !take_value(column, stripped(text), kind)) take_text(i, text, quoted);
    return true;
  }

  bool pass_field(std::size_t i)
  {
    std::string_view text;
    bool quoted = false;
    return take_field(i, text, quoted);
  }

  // The field at hand; afterwards p_ stands at the separator or the line end.
  bool take_field(std::size_t i, std::string_view& text, bool& quoted)
  {
    const char* const begin = p_;
    const char separator = dialect_.separator;
    quoted = *p_ == '"' && p_ < end_;
    if (quoted) return take_quoted(i, text);
    while (p_ < end_ && *p_ != separator && *p_ != '\n' && *p_ != '\r') ++p_;
    text = {begin, static_cast<std::size_t>(p_ - begin)};
    return true;
  }

  bool take_quoted(std::size_t i, std::string_view& text)
  {
    const char* const begin = ++p_;
    bool doubled = false;
    for (;; p_ += 2) {
      p_ = static_cast<const char*>(std::memchr(p_, '"', static_cast<std::size_t>(end_ - p_)));
      if (!p_) {
        p_ = end_;
        return fail(BlockValues::Fault::unclosed_quote, i + 1);
      }
      if (p_ + 1 >= end_ || p_[1] != '"') break;
      doubled = true;
    }
    text = {begin, static_cast<std::size_t>(p_ - begin)};
    ++p_;
    count_lines(text);
    if (doubled) {
      unquoted_.clear();
      for (std::size_t k = 0; k < text.size(); ++k) {
        unquoted_ += text[k];
        if (text[k] == '"') ++k;
      }
      text = unquoted_;
    }
    while (p_ < end_ && *p_ != dialect_.separator && (*p_ == ' ' || *p_ == '\t')) ++p_;
    if (p_ < end_ && *p_ != dialect_.separator && *p_ != '\n' && *p_ != '\r')
      return fail(BlockValues::Fault::text_after_quote, i + 1);
    return true;
  }

  void count_lines(std::string_view text)
  {
    for (std::size_t k = 0; k < text.size(); ++k)
      if (text[k] == '\n' || (text[k] == '\r' && (k + 1 == text.size() || text[k + 1] != '\n'))) ++out_.lines;
  }

  void take_text(std::size_t i, std::string_view text, bool quoted)
  {
    BlockColumn& column = out_.columns[i];
    if (column.type != Type::text && !become_text(i)) return;
    if (!quoted) text = stripped(text);
    text = text.substr(0, std::min(text.find_last_not_of(' ') + 1, text.size()));
    if (text == ".") text = {};
    // Neighbouring rows often agree (subjects, treatments): then no lookup.
    if (!column.codes.empty() && column.dictionary[column.codes.back()] == text) {
      column.codes.push_back(column.codes.back());
      return;
    }
    const auto next = static_cast<std::uint32_t>(column.dictionary.size());
    const auto known = dictionaries_[i].find(text);
    if (known == dictionaries_[i].end()) {
      column.dictionary.emplace_back(text); // a deque: the views stay good
      dictionaries_[i].emplace(column.dictionary.back(), next);
    }
    column.codes.push_back(known == dictionaries_[i].end() ? next : known->second);
  }

  // The first field that is no number: fine when only missing values stand above it; else this block is read again for
  // the spellings of all fields of the column.
  bool become_text(std::size_t i)
  {
    BlockColumn& column = out_.columns[i];
    const std::size_t above = column.numbers.size();
    const bool plain = column.type == Type::none && column.only_plain_missing;
    column = BlockColumn{};
    column.type = Type::text;
    if (plain && above > 0) {
      column.dictionary.emplace_back();
      dictionaries_[i].emplace(column.dictionary.back(), 0);
      column.codes.assign(above, 0);
    }
    spoiled_[i] = !plain;
    mixed_ = mixed_ || !plain;
    return plain;
  }

  // A field without blanks around it, in a column that is not known to be text. False when it makes it one.
  bool take_value(BlockColumn& column, std::string_view field, Kind kind)
  {
    if (const auto none = parse_missing(field)) {
      column.only_plain_missing = column.only_plain_missing && missing_letter(*none) == '.';
      column.numbers.push_back(*none);
      return true;
    }
    if (dialect_.is_code(field)) return take_code(column, field);
    const bool asked = kind == Kind::numeric;
    if (const auto value = column.type == Type::moment && !asked ? std::nullopt : dialect_.number(field)) {
      column.type = Type::number;
      note_number(column, field, *value);
      column.numbers.push_back(*value);
      return true;
    }
    const Moment moment = column.type == Type::moment && !asked ? column.moment : iso_moment(field);
    if (const auto value = column.type == Type::number && !asked ? std::nullopt : parse_iso(field, moment)) {
      if (column.type == Type::none) column.type = Type::moment;
      column.moment = moment;
      column.numbers.push_back(*value);
      return true;
    }
    if (!asked) return false;
    const bool infinite = field == "inf" || field == "-inf";
    if (!infinite) return take_code(column, field);
    column.type = Type::number;
    column.numbers.push_back(field[0] == '-' ? -HUGE_VAL : HUGE_VAL);
    return true;
  }

  bool take_code(BlockColumn& column, std::string_view field)
  {
    if (column.code_row == 0) {
      column.code = field;
      column.code_row = out_.rows;
    }
    ++column.code_count;
    column.only_plain_missing = false;
    column.numbers.push_back(missing);
    return true;
  }

  void note_number(BlockColumn& column, std::string_view spelled, double value)
  {
    column.point = column.point || spelled.find('.') != std::string_view::npos;
    column.comma = column.comma || spelled.find(',') != std::string_view::npos;
    const std::string_view digits = spelled.substr(spelled[0] == '+' || spelled[0] == '-' ? 1 : 0);
    if (digits.find_first_not_of("0123456789") != std::string_view::npos) return;
    if (digits.size() > 1 && digits.front() == '0' && column.leading_zero_row == 0) column.leading_zero_row = out_.rows;
    if (digits.size() > 15 && column.inexact_row == 0) {
      char exact[400];
      const auto end = std::to_chars(exact, exact + sizeof exact, std::fabs(value), std::chars_format::fixed, 0).ptr;
      const std::size_t first = std::min(digits.find_first_not_of('0'), digits.size());
      if (std::string_view(exact, static_cast<std::size_t>(end - exact)) != digits.substr(first))
        column.inexact_row = out_.rows;
    }
  }

  const char* p_;
  const char* const end_;
  const CsvDialect& dialect_;
  const std::vector<ColumnRequest>& requests_;
  BlockValues& out_;
  std::vector<std::unordered_map<std::string_view, std::uint32_t>> dictionaries_; // looked up, never walked
  std::vector<bool> spoiled_;                                                     // columns that must be read again
  std::string unquoted_;
  std::int64_t record_line_ = 0;
  bool mixed_ = false;
};

} // namespace

bool is_missing_code(std::string_view field)
{
  if (field.empty() || field.size() > 4) return false;
  for (const std::string_view code : {"NA", "NaN", "N/A", "null", "-"})
    if (equal_names(field, code)) return true;
  return false;
}

CsvDialect::CsvDialect(const ReadOptions& options, char separator_found) : separator(separator_found)
{
  points = options.decimal != ',';
  commas = options.decimal == ',' || (options.decimal == 0 && separator == ';');
  for (const std::string& code : options.missing) {
    codes.push_back(wzstrlo(stripped(code)));
    if (const auto value = parse_number(codes.back())) code_numbers.push_back(*value);
  }
}

bool CsvDialect::is_code(std::string_view field) const
{
  if (is_missing_code(field)) return true;
  if (codes.empty()) return false;
  if (std::any_of(codes.begin(), codes.end(), [&](const std::string& c) { return equal_names(c, field); })) return true;
  const auto value = code_numbers.empty() ? std::nullopt : number(field);
  return value && std::find(code_numbers.begin(), code_numbers.end(), *value) != code_numbers.end();
}

std::optional<double> CsvDialect::number(std::string_view field) const
{
  const std::size_t comma = commas ? field.find(',') : std::string_view::npos;
  if (comma == std::string_view::npos) {
    if (!points && field.find('.') != std::string_view::npos) return std::nullopt;
    return parse_number(field);
  }
  if (field.find('.') != std::string_view::npos) return std::nullopt; // 1.234,5: which one groups?
  std::string with_point(field);
  with_point[comma] = '.';
  return parse_number(with_point);
}

void read_block(const CsvBlock& block, const CsvDialect& dialect, const std::vector<ColumnRequest>& requests,
                BlockValues& values)
{
  BlockReader reader(block, dialect, requests, values);
  reader.read();
  if (!reader.mixed() || values.fault != BlockValues::Fault::none) return;
  const std::vector<ColumnRequest> again = reader.requests_again();
  BlockValues texts;
  BlockReader(block, dialect, again, texts).read();
  for (std::size_t i = 0; i < again.size(); ++i)
    if (again[i].kind == Kind::character) values.columns[i] = std::move(texts.columns[i]);
}

namespace {

bool split_at_blanks(std::string_view line, std::vector<std::string>& fields)
{
  for (std::size_t i = 0; (i = line.find_first_not_of(' ', i)) != std::string_view::npos;) {
    const std::size_t end = std::min(line.find(' ', i), line.size());
    std::string_view name = line.substr(i, end - i);
    if (name.size() > 1 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
    fields.emplace_back(name);
    i = end;
  }
  return true;
}

} // namespace

bool split_line(const std::string& line, char separator, std::vector<std::string>& fields, bool& unclosed)
{
  fields.clear();
  unclosed = false;
  if (separator == ' ') return split_at_blanks(line, fields);
  for (std::size_t i = 0;; ++i) {
    std::string& field = fields.emplace_back();
    if (i < line.size() && line[i] == '"') {
      for (++i; i < line.size() && (line[i] != '"' || (i + 1 < line.size() && line[i + 1] == '"')); ++i) {
        field += line[i];
        if (line[i] == '"') ++i;
      }
      unclosed = i >= line.size();
      if (unclosed) return false;
      for (++i; i < line.size() && line[i] != separator; ++i)
        if (line[i] != ' ' && line[i] != '\t') return false;
    } else {
      const std::size_t end = std::min(line.find(separator, i), line.size());
      field = line.substr(i, end - i);
      i = end;
    }
    if (i >= line.size()) return true;
  }
}

} // namespace torvale::host
