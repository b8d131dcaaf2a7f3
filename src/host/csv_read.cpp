#include "host/csv.h"
#include "host/csv_scanner.h"
#include "host/message_names.h"
#include "host/text.h"
#include <algorithm>
#include <charconv>
#include <cmath>

namespace torvale::host {

namespace {

// How one column is read: as numbers while every field is one, and what was seen on the way.
class ColumnReader {
public:
  ColumnReader(const std::string& name, std::optional<ColumnKind> asked)
      : numbers_(name, ColumnKind::numeric), texts_(name, ColumnKind::character), asked_(asked)
  {
    character_ = asked == ColumnKind::character;
  }

  void take(std::string_view field, std::int64_t row); // first pass
  void take_text(std::string_view field) { texts_.append(field == "." ? std::string_view{} : field); }

  bool needs_second_pass() const { return character_ && texts_.rows() == 0 && rows_ > 0; }
  bool character() const { return character_; }
  Column finish() { return std::move(character_ ? texts_ : numbers_); }

  // Seen in the first pass; rows count from 1, 0 means never.
  std::string foreign; // first field that is not a number
  std::int64_t foreign_row = 0;
  std::int64_t foreign_count = 0;
  bool several_foreign = false; // and it is not the only spelling
  std::int64_t numbers_seen = 0;
  std::int64_t leading_zero_row = 0;
  std::int64_t inexact_row = 0; // a whole number that a double does not hold

private:
  void note_number(std::string_view spelled, double value, std::int64_t row);

  Column numbers_;
  Column texts_;
  std::optional<ColumnKind> asked_;
  bool character_ = false;
  bool only_plain_missing_ = true; // nothing but empty fields and "." so far
  std::int64_t rows_ = 0;
};

void ColumnReader::note_number(std::string_view spelled, double value, std::int64_t row)
{
  ++numbers_seen;
  const std::string_view digits = spelled.substr(spelled[0] == '+' || spelled[0] == '-' ? 1 : 0);
  const bool remarkable = digits.front() == '0' || digits.size() > 15;
  if (!remarkable || digits.find_first_not_of("0123456789") != std::string_view::npos) return;
  if (digits.size() > 1 && digits.front() == '0' && leading_zero_row == 0) leading_zero_row = row;
  if (digits.size() > 15 && inexact_row == 0) {
    char exact[400];
    const auto end = std::to_chars(exact, exact + sizeof exact, std::fabs(value), std::chars_format::fixed, 0).ptr;
    const std::size_t first = std::min(digits.find_first_not_of('0'), digits.size());
    if (std::string_view(exact, static_cast<std::size_t>(end - exact)) != digits.substr(first)) inexact_row = row;
  }
}

void ColumnReader::take(std::string_view field, std::int64_t row)
{
  ++rows_;
  if (character_) {
    if (texts_.rows() + 1 == static_cast<std::size_t>(rows_)) take_text(field);
    if (several_foreign || asked_) return;
  }
  const std::string_view spelled = stripped(field);
  if (const auto none = parse_missing(spelled)) {
    if (!character_) numbers_.append(*none);
    only_plain_missing_ = only_plain_missing_ && missing_letter(*none) == '.';
    return;
  }
  if (const auto value = parse_number(spelled)) {
    if (!character_) numbers_.append(*value);
    only_plain_missing_ = false;
    note_number(spelled, *value, row);
    return;
  }
  if (asked_ == ColumnKind::numeric) {
    const bool infinite = spelled == "inf" || spelled == "-inf";
    numbers_.append(infinite ? (spelled[0] == '-' ? -HUGE_VAL : HUGE_VAL) : missing);
    if (infinite) return;
  }
  if (foreign_row == 0) {
    foreign = spelled;
    foreign_row = row;
  } else if (foreign != spelled) {
    several_foreign = true;
  }
  ++foreign_count;
  if (asked_ == ColumnKind::numeric || character_) return;
  character_ = true;
  if (!only_plain_missing_) return; // earlier rows need their spelling: second pass
  for (std::int64_t i = 1; i < rows_; ++i) texts_.append_missing();
  take_text(field);
}

// One reading of a file: where messages say they come from, and what the header declared.
class CsvReader {
public:
  CsvReader(std::string file, MessageSink& log, const ColumnKinds& kinds)
      : file_(std::move(file)), log_(log), kinds_(kinds)
  {
  }
  bool header(CsvScanner& scanner, const ByteSource& source);
  bool body(CsvScanner& scanner, const ByteSource& source, bool second_pass);
  bool needs_second_pass() const
  {
    return std::any_of(columns_.begin(), columns_.end(), [](const ColumnReader& c) { return c.needs_second_pass(); });
  }
  DataSet finish();

private:
  bool failed(const CsvScanner& scanner, const ByteSource& source);
  void notes();

  std::string file_;
  MessageSink& log_;
  const ColumnKinds& kinds_;
  std::vector<std::string> names_;
  std::vector<ColumnReader> columns_;
  std::vector<std::string_view> fields_;
  std::int64_t rows_ = 0;
};

bool CsvReader::failed(const CsvScanner& scanner, const ByteSource& source)
{
  const MessagePlace place{.file = file_, .file_line = scanner.line()};
  const auto field = scanner.fault_field();
  const std::string name = field > 0 && field <= static_cast<std::int64_t>(names_.size())
                               ? names_[static_cast<std::size_t>(field) - 1]
                               : std::to_string(field);
  switch (scanner.fault()) {
  case CsvScanner::Fault::unclosed_quote:
    log_.xpmlog(message::quote_not_closed{.column = name}, place);
    break;
  case CsvScanner::Fault::text_after_quote:
    log_.xpmlog(message::characters_behind_quote{.column = name}, place);
    break;
  case CsvScanner::Fault::not_text:
    log_.xpmlog(message::not_plain_text{.file = file_});
    break;
  default:
    log_.xpmlog(message::file_not_read{.file = file_, .reason = source.problem});
  }
  return false;
}

bool CsvReader::header(CsvScanner& scanner, const ByteSource& source)
{
  const auto step = scanner.next(fields_);
  if (step == CsvScanner::Step::failure) return failed(scanner, source);
  if (step == CsvScanner::Step::end) {
    log_.xpmlog(message::file_empty{.file = file_});
    return false;
  }
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    const std::string_view given = stripped(fields_[i]);
    std::string name(cut_name(given, DataSet::longest_name));
    if (given.empty()) name = "VAR" + std::to_string(i + 1);
    if (name != given)
      log_.xpmlog(message::column_renamed{.column = i + 1, .file = file_, .given = given, .name = name});
    const auto same = std::find_if(names_.begin(), names_.end(), [&](auto& n) { return equal_names(n, name); });
    if (same != names_.end()) {
      log_.xpmlog(message::column_named_twice{
          .file = file_, .name = name, .first = same - names_.begin() + 1, .second = i + 1});
      return false;
    }
    names_.push_back(name);
    const auto asked = kinds_.find(wzstrlo(name));
    columns_.emplace_back(name, asked == kinds_.end() ? std::nullopt : std::optional(asked->second));
  }
  for (const char separator : {';', '\t', '|'})
    if (names_.size() == 1 && names_[0].find(separator) != std::string::npos) {
      const std::string shown = separator == '\t' ? "a tab" : std::string("\"") + separator + "\"";
      log_.xpmlog(message::other_separator{.file = file_, .separator = shown});
    }
  return true;
}

bool CsvReader::body(CsvScanner& scanner, const ByteSource& source, bool second_pass)
{
  std::vector<std::size_t> again; // columns whose text the second pass collects
  for (std::size_t i = 0; i < columns_.size(); ++i)
    if (columns_[i].needs_second_pass()) again.push_back(i);
  for (std::int64_t row = 1;; ++row) {
    const auto step = scanner.next(fields_);
    if (step == CsvScanner::Step::failure) return failed(scanner, source);
    if (step == CsvScanner::Step::end) return true;
    if (fields_.size() != columns_.size()) {
      log_.xpmlog(message::row_with_wrong_fields{.row = row,
                                                 .found = fields_.size(),
                                                 .expected = columns_.size(),
                                                 .column = names_[std::min(fields_.size(), columns_.size() - 1)]},
                  {.file = file_, .file_line = scanner.line()});
      return false;
    }
    if (second_pass)
      for (const std::size_t i : again) columns_[i].take_text(fields_[i]);
    else
      for (std::size_t i = 0; i < columns_.size(); ++i) columns_[i].take(fields_[i], row);
    rows_ = row;
  }
}

void CsvReader::notes()
{
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    const ColumnReader& c = columns_[i];
    const bool asked = kinds_.contains(wzstrlo(names_[i]));
    if (asked && c.foreign_row > 0 && !c.character())
      log_.xpmlog(message::text_read_as_missing{
          .column = names_[i], .file = file_, .count = c.foreign_count, .value = c.foreign, .row = c.foreign_row});
    if (asked) continue;
    if (c.character() && c.numbers_seen > 0 && !c.several_foreign)
      log_.xpmlog(message::text_in_numeric_column{
          .column = names_[i], .file = file_, .value = c.foreign, .count = c.foreign_count, .row = c.foreign_row});
    if (!c.character() && c.leading_zero_row > 0)
      log_.xpmlog(message::leading_zeros_dropped{.column = names_[i], .file = file_, .row = c.leading_zero_row});
    if (!c.character() && c.inexact_row > 0)
      log_.xpmlog(message::digits_rounded{.column = names_[i], .file = file_, .row = c.inexact_row});
  }
}

DataSet CsvReader::finish()
{
  notes();
  DataSet data;
  data.name = file_;
  data.path = file_;
  for (ColumnReader& column : columns_) data.add(column.finish());
  return data;
}

// `open` gives a fresh source of the same bytes, null when it cannot.
template <class Open>
std::optional<DataSet> read_with(const Open& open, const std::string& file, MessageSink& log, const ColumnKinds& kinds)
{
  CsvReader reader(file, log, kinds);
  for (const bool second_pass : {false, true}) {
    if (second_pass && !reader.needs_second_pass()) break;
    const std::unique_ptr<ByteSource> source = open();
    if (!source) return std::nullopt;
    CsvScanner scanner(*source);
    std::vector<std::string_view> names;
    if (second_pass) {
      if (scanner.next(names) != CsvScanner::Step::record) return std::nullopt;
    } else if (!reader.header(scanner, *source)) {
      return std::nullopt;
    }
    if (!reader.body(scanner, *source, second_pass)) return std::nullopt;
  }
  return reader.finish();
}

} // namespace

std::optional<DataSet> read_csv(const std::string& path, MessageSink& log, const ColumnKinds& kinds)
{
  const auto open = [&] {
    std::string problem;
    auto source = open_bytes(path, problem);
    if (!source) log.xpmlog(message::file_not_read{.file = path, .reason = problem});
    return source;
  };
  return read_with(open, path, log, kinds);
}

std::optional<DataSet> read_csv_text(std::string_view text, const std::string& name, MessageSink& log,
                                     const ColumnKinds& kinds)
{
  return read_with([&] { return bytes_of(text); }, name, log, kinds);
}

} // namespace torvale::host
