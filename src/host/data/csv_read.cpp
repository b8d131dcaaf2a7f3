#include "host/data/csv.h"
#include "host/data/csv_blocks.h"
#include "host/data/csv_columns.h"
#include "host/messages/names/files.h"
#include "host/values/formats.h"
#include "host/values/text.h"
#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <thread>

namespace torvale::host {

namespace {

using Kind = ColumnRequest::Kind;
using Type = BlockColumn::Type;
using Open = std::function<std::unique_ptr<ByteSource>()>; // a fresh source of the same bytes; null when there is none

constexpr double row_overhead = 80; // bytes of a row in the index and in the evaluations of a fit

bool parse_iso_any(std::string_view text)
{
  return parse_iso(text, Moment::date) || parse_iso(text, Moment::time) || parse_iso(text, Moment::datetime);
}

// One column of the file, block by block.
struct FileColumn {
  std::string name;
  std::optional<ColumnKind> asked;
  Type type = Type::none;
  Moment moment = Moment::none;
  Column numbers{"", ColumnKind::numeric};
  Column texts{"", ColumnKind::character};
  bool spellings_needed = false; // blocks differ in type: read the file again, as text
  BlockColumn seen;              // remarks of all blocks; rows of the file
  std::string recoded;           // the first text that was not UTF-8, as it is read now
  RowMemory memory;

  void take(const BlockColumn& block, std::int64_t rows_before);
  void take_texts(const BlockColumn& block);

private:
  void remark(const BlockColumn& block, std::int64_t rows_before);
};

void FileColumn::remark(const BlockColumn& block, std::int64_t rows_before)
{
  const auto first = [&](std::int64_t& known, std::int64_t row) {
    if (known == 0 && row > 0) known = rows_before + row;
  };
  if (seen.code_row == 0) seen.code = block.code;
  first(seen.code_row, block.code_row);
  seen.code_count += block.code_count;
  first(seen.leading_zero_row, block.leading_zero_row);
  first(seen.inexact_row, block.inexact_row);
  seen.point = seen.point || block.point;
  seen.comma = seen.comma || block.comma;
  seen.only_plain_missing = seen.only_plain_missing && block.only_plain_missing;
}

void FileColumn::take_texts(const BlockColumn& block)
{
  std::vector<std::uint32_t> code_here;
  for (const std::string& text : block.dictionary) {
    if (is_utf8(text)) {
      code_here.push_back(texts.code_of(text));
      continue;
    }
    const std::string here = utf8_from_windows(text);
    if (recoded.empty()) recoded = here;
    code_here.push_back(texts.code_of(here));
  }
  texts.append_codes(block.codes, code_here);
}

void FileColumn::take(const BlockColumn& block, std::int64_t rows_before)
{
  if (spellings_needed) return;
  remark(block, rows_before);
  if (asked == ColumnKind::numeric) {
    if (block.moment != Moment::none) moment = block.moment;
    numbers.append_numbers(block.numbers);
    return;
  }
  const bool nothing = block.type == Type::none && (type != Type::text || block.only_plain_missing);
  const bool fits = nothing || (type == Type::none && (block.type != Type::text || seen.only_plain_missing)) ||
                    (type == block.type && (type != Type::moment || moment == block.moment));
  if (!fits || (seen.point && seen.comma)) {
    spellings_needed = true;
    numbers.keep_in(memory);
    texts.keep_in(memory);
    return;
  }
  if (type == Type::none && block.type != Type::none) {
    type = block.type;
    moment = block.moment;
    if (type == Type::text)
      for (std::int64_t i = 0; i < rows_before; ++i) texts.append_missing();
  }
  if (type != Type::text) {
    numbers.append_numbers(block.numbers);
  } else if (block.type == Type::text) {
    take_texts(block);
  } else {
    for (std::size_t i = 0; i < block.numbers.size(); ++i) texts.append_missing();
  }
}

// One reading of a file.
class CsvReader {
public:
  CsvReader(std::string file, MessageSink& log, const ReadOptions& options)
      : file_(std::move(file)), log_(log), options_(options)
  {
  }

  std::optional<DataSet> read(const Open& open, std::uintmax_t size)
  {
    size_ = size;
    if (!pass(open, false)) return std::nullopt;
    const bool again = std::any_of(columns_.begin(), columns_.end(), [](auto& c) { return c.spellings_needed; });
    if (again && !pass(open, true)) return std::nullopt;
    notes();
    DataSet data;
    data.name = file_;
    data.path = file_;
    for (FileColumn& column : columns_) data.add(finished(column));
    return data;
  }

private:
  bool pass(const Open& open, bool spellings);
  bool header(CsvCutter& cutter, const ByteSource& source);
  bool name_columns(const std::vector<std::string>& names);
  bool take(const std::vector<BlockValues>& blocks, std::size_t count, bool spellings);
  bool failed(const CsvCutter& cutter, const ByteSource& source);
  bool failed(const BlockValues& block);
  bool reserve(std::size_t bytes, std::int64_t rows);
  Column finished(FileColumn& column) const;
  void notes();
  bool note_one_spelling(const FileColumn& column);
  void note_readable(const FileColumn& column);
  void note_text(const FileColumn& column)
  {
    if (!note_one_spelling(column)) note_readable(column);
  }
  void note_codes();
  void note_encoding();
  bool warn_of_blanks();

  std::string file_;
  MessageSink& log_;
  const ReadOptions& options_;
  std::uintmax_t size_ = 0;
  char separator_ = ',';
  std::string recoded_name_; // the first name that was not UTF-8, as it is read now
  std::vector<FileColumn> columns_;
  std::int64_t rows_ = 0;
  std::int64_t line_ = 1; // of the file, where the next block begins
};

bool CsvReader::failed(const CsvCutter& cutter, const ByteSource& source)
{
  if (cutter.fault() == CsvCutter::Fault::not_text)
    log_.xpmlog(message::not_plain_text{.file = file_});
  else
    log_.xpmlog(message::file_not_read{.file = file_, .reason = source.problem});
  return false;
}

bool CsvReader::failed(const BlockValues& block)
{
  const MessagePlace place{.file = file_, .file_line = line_ + block.fault_line};
  const std::string column =
      block.fault_field <= columns_.size() ? columns_[block.fault_field - 1].name : std::to_string(block.fault_field);
  if (block.fault == BlockValues::Fault::unclosed_quote)
    log_.xpmlog(message::quote_not_closed{.column = column}, place);
  else if (block.fault == BlockValues::Fault::text_after_quote)
    log_.xpmlog(message::characters_behind_quote{.column = column}, place);
  else
    log_.xpmlog(
        message::row_with_wrong_fields{.row = rows_ + block.fault_row,
                                       .found = block.fields_found,
                                       .expected = columns_.size(),
                                       .column = columns_[std::min(block.fields_found, columns_.size() - 1)].name},
        place);
  return false;
}

// The separator that occurs most in the line of names, outside quotes; the earlier one of a tie.
char found_separator(std::string_view line)
{
  constexpr std::string_view candidates = ",;\t|";
  std::array<int, candidates.size()> counts{};
  bool quoted = false;
  for (const char c : line) {
    if (c == '"') quoted = !quoted;
    const std::size_t i = quoted ? std::string_view::npos : candidates.find(c);
    if (i != std::string_view::npos) ++counts[i];
  }
  return candidates[static_cast<std::size_t>(std::max_element(counts.begin(), counts.end()) - counts.begin())];
}

bool CsvReader::header(CsvCutter& cutter, const ByteSource& source)
{
  CsvBlock line;
  const auto step = cutter.header(line);
  if (step == CsvCutter::Step::failure) return failed(cutter, source);
  if (step == CsvCutter::Step::end) {
    log_.xpmlog(message::file_empty{.file = file_});
    return false;
  }
  line_ = cutter.body_line();
  if (!columns_.empty()) return true; // the second pass
  separator_ = options_.separator != 0   ? options_.separator
               : cutter.separator() != 0 ? cutter.separator()
                                         : found_separator(line.bytes);
  std::vector<std::string> names;
  bool unclosed = false;
  if (!split_line(line.bytes, separator_, names, unclosed)) {
    const MessagePlace place{.file = file_, .file_line = cutter.header_line()};
    if (unclosed)
      log_.xpmlog(message::quote_not_closed{.column = names.size()}, place);
    else
      log_.xpmlog(message::characters_behind_quote{.column = names.size()}, place);
    return false;
  }
  if (!name_columns(names)) return false;
  if (separator_ != ',' && options_.separator == 0) {
    const std::string shown = separator_ == '\t' ? "tabs" : std::string("\"") + separator_ + "\"";
    log_.xpmlog(message::separator_found{.file = file_, .separator = shown});
  }
  return true;
}

bool CsvReader::name_columns(const std::vector<std::string>& names)
{
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string as_read = is_utf8(names[i]) ? names[i] : utf8_from_windows(names[i]);
    if (as_read != names[i] && recoded_name_.empty()) recoded_name_ = as_read;
    const std::string_view given = stripped(as_read);
    std::string name(cut_name(given, DataSet::longest_name));
    if (given.empty()) name = "VAR" + std::to_string(i + 1);
    if (name != given)
      log_.xpmlog(message::column_renamed{.column = i + 1, .file = file_, .given = given, .name = name});
    const auto same =
        std::find_if(columns_.begin(), columns_.end(), [&](auto& c) { return equal_names(c.name, name); });
    if (same != columns_.end()) {
      log_.xpmlog(message::column_named_twice{
          .file = file_, .name = name, .first = same - columns_.begin() + 1, .second = i + 1});
      return false;
    }
    const auto asked = options_.kinds.find(wzstrlo(name));
    FileColumn& column = columns_.emplace_back();
    column.memory = options_.memory;
    column.numbers.keep_in(options_.memory);
    column.texts.keep_in(options_.memory);
    column.name = std::move(name);
    if (asked != options_.kinds.end()) column.asked = asked->second;
  }
  return true;
}

// Blocks are cut one after the other, read side by side, and joined in their order.
bool CsvReader::pass(const Open& open, bool spellings)
{
  const std::unique_ptr<ByteSource> source = open();
  if (!source) return false;
  CsvCutter cutter(*source);
  if (!header(cutter, *source)) return false;
  rows_ = 0;
  std::vector<ColumnRequest> requests;
  for (const FileColumn& c : columns_) {
    Kind kind = !c.asked ? Kind::any : *c.asked == ColumnKind::numeric ? Kind::numeric : Kind::character;
    if (spellings) kind = c.spellings_needed ? Kind::character : Kind::skip;
    requests.push_back({kind});
  }
  const CsvDialect dialect(options_, separator_);
  const auto workers = static_cast<std::size_t>(std::max(options_.threads, 1));
  std::vector<CsvBlock> blocks(workers);
  std::vector<BlockValues> values(workers);
  for (bool more = true; more;) {
    std::size_t count = 0;
    std::vector<std::thread> threads;
    CsvCutter::Step step = CsvCutter::Step::end;
    while (count < workers && (step = cutter.next(blocks[count], separator_)) == CsvCutter::Step::block) {
      const auto work = [&, i = count] { read_block(blocks[i], dialect, requests, values[i]); };
      if (++count < workers)
        threads.emplace_back(work);
      else
        work(); // the last one here
    }
    for (std::thread& thread : threads) thread.join();
    if (!take(values, count, spellings)) return false;
    if (step == CsvCutter::Step::failure) return failed(cutter, *source);
    more = step == CsvCutter::Step::block;
  }
  return true;
}

bool CsvReader::take(const std::vector<BlockValues>& blocks, std::size_t count, bool spellings)
{
  for (std::size_t b = 0; b < count; ++b) {
    const BlockValues& block = blocks[b];
    if (block.fault != BlockValues::Fault::none) return failed(block);
    for (std::size_t i = 0; i < columns_.size(); ++i) {
      if (!spellings)
        columns_[i].take(block.columns[i], rows_);
      else if (columns_[i].spellings_needed)
        columns_[i].take_texts(block.columns[i]);
    }
    rows_ += block.rows;
    line_ += block.lines;
    if (rows_ == block.rows && size_ > 0 && !reserve(CsvCutter::block_size, rows_)) return false;
  }
  return true;
}

// Makes room for the rows that a file of this size will have, so that columns do not grow by copies. False, with a
// message, when there is no memory for them and for what a fit keeps of them.
bool CsvReader::reserve(std::size_t bytes, std::int64_t rows)
{
  if (size_ <= bytes) return true;
  const double expected = static_cast<double>(rows) * static_cast<double>(size_) / static_cast<double>(bytes);
  double row_bytes = row_overhead;
  for (const FileColumn& c : columns_)
    row_bytes += 2.0 * (c.type == Type::text ? sizeof(std::uint32_t) : sizeof(double));
  if (options_.most_memory > 0 && !options_.memory &&
      expected * row_bytes > static_cast<double>(options_.most_memory)) {
    log_.xpmlog(message::data_exceed_memory{.file = file_,
                                            .rows = std::llround(expected),
                                            .needed = bytes_text(expected * row_bytes),
                                            .free = bytes_text(static_cast<double>(options_.most_memory))});
    return false;
  }
  for (FileColumn& c : columns_)
    (c.type == Type::text ? c.texts : c.numbers).reserve(static_cast<std::size_t>(1.05 * expected) + 64);
  return true;
}

Column CsvReader::finished(FileColumn& column) const
{
  const bool text = column.type == Type::text || column.spellings_needed || column.asked == ColumnKind::character;
  Column out = std::move(text ? column.texts : column.numbers);
  out.rename(column.name);
  if (!text) out.set_format(std::string(iso_format(column.moment)));
  return out;
}

// A column of characters that one spelling alone keeps from being numbers or dates.
bool CsvReader::note_one_spelling(const FileColumn& column)
{
  const CsvDialect dialect(options_, separator_);
  const auto& dictionary = column.texts.dictionary();
  std::size_t foreign = dictionary.size();
  bool numbers = false;
  for (std::size_t i = 0; i < dictionary.size(); ++i) {
    const std::string_view spelled = stripped(dictionary[i]);
    if (parse_missing(spelled) || is_missing_code(spelled)) continue;
    if (dialect.number(spelled) || parse_iso_any(spelled)) {
      numbers = true;
      continue;
    }
    if (foreign != dictionary.size()) return false;
    foreign = i;
  }
  if (!numbers || foreign == dictionary.size()) return false;
  const auto codes = column.texts.codes();
  const auto first = std::find(codes.begin(), codes.end(), foreign);
  log_.xpmlog(message::text_in_numeric_column{.column = column.name,
                                              .file = file_,
                                              .value = dictionary[foreign],
                                              .count = std::count(first, codes.end(), foreign),
                                              .row = first - codes.begin() + 1});
  return true;
}

// Digits in groups of three, as 1,234.5.
bool grouped(std::string_view text, char group, char point)
{
  const std::size_t begin = text.find_first_of("0123456789");
  if (begin == std::string_view::npos || begin > 1 || (begin == 1 && text[0] != '-')) return false;
  const std::string_view whole = text.substr(begin, text.find(point) - begin);
  const std::size_t lead = std::min(whole.find(group), whole.size());
  for (std::size_t i = lead; i < whole.size(); i += 4)
    if (i + 4 > whole.size() || whole[i] != group) return false;
  return lead > 0 && lead <= 3;
}

bool reads(const std::string& format, const std::string& text)
{
  if (format == "COMMA12." && !grouped(text, ',', '.')) return false;
  if (format == "COMMAX12." && !grouped(text, '.', ',')) return false;
  std::string problem;
  return !wzmis(read_value(text, *parse_value_format(format, problem)));
}

// A column of characters that a format can read.
void CsvReader::note_readable(const FileColumn& column)
{
  std::string formats, shown;
  for (const char* format : {"COMMA12.", "COMMAX12.", "PERCENT12.", "DATE11.", "DDMMYY10.", "MMDDYY10."}) {
    bool all = true;
    std::size_t values = 0;
    for (const std::string& text : column.texts.dictionary()) {
      if (parse_missing(text) || is_missing_code(text)) continue;
      if (values++ == 0) shown = text;
      if (all = reads(format, text); !all) break;
    }
    if (all && values > 0)
      formats += (formats.empty() ? "" : " or ") + std::string("INPUT(") + column.name + ", '" + format + "')";
  }
  if (!formats.empty())
    log_.xpmlog(message::text_in_a_format{.column = column.name, .file = file_, .value = shown, .formats = formats});
}

// One note on all missing codes of the file.
void CsvReader::note_codes()
{
  std::string where;
  std::int64_t count = 0;
  for (const FileColumn& c : columns_) {
    if (c.asked || c.type == Type::text || c.spellings_needed || c.seen.code_count == 0) continue;
    where += (where.empty() ? "" : ", ") + c.name + " (\"" + c.seen.code + "\" in row " +
             std::to_string(c.seen.code_row) + ")";
    count += c.seen.code_count;
  }
  if (count > 0) log_.xpmlog(message::missing_codes_found{.count = count, .file = file_, .where = where});
}

// Texts of an older encoding are read as the only one that spreadsheets still write.
void CsvReader::note_encoding()
{
  const auto first =
      std::find_if(columns_.begin(), columns_.end(), [](const FileColumn& c) { return !c.recoded.empty(); });
  if (!recoded_name_.empty())
    log_.xpmlog(message::texts_recoded{.file = file_, .value = recoded_name_});
  else if (first != columns_.end())
    log_.xpmlog(message::texts_recoded{.file = file_, .value = first->recoded, .column = first->name});
}

// One column whose name and texts hold blanks: they were meant to separate.
bool CsvReader::warn_of_blanks()
{
  if (columns_.size() != 1 || columns_[0].type != Type::text || columns_[0].name.find(' ') == std::string::npos) return false;
  for (const std::string& text : columns_[0].texts.dictionary())
    if (!text.empty() && text.find(' ') == std::string::npos) return false;
  log_.xpmlog(message::blanks_do_not_separate{.file = file_, .name = columns_[0].name});
  return true;
}

void CsvReader::notes()
{
  note_codes();
  note_encoding();
  if (warn_of_blanks()) return;
  const bool any_comma = std::any_of(columns_.begin(), columns_.end(),
                                     [](const FileColumn& c) { return c.type == Type::number && c.seen.comma; });
  for (const FileColumn& c : columns_) {
    const bool text = c.type == Type::text || c.spellings_needed;
    if (c.asked && !text && c.seen.code_row > 0 && !is_missing_code(c.seen.code))
      log_.xpmlog(message::text_read_as_missing{
          .column = c.name, .file = file_, .count = c.seen.code_count, .value = c.seen.code, .row = c.seen.code_row});
    if (c.asked) continue;
    if (c.seen.point && c.seen.comma)
      log_.xpmlog(message::points_and_commas{.column = c.name, .file = file_});
    else if (text)
      note_text(c);
    else if (any_comma && c.seen.point)
      log_.xpmlog(message::points_among_commas{.column = c.name, .file = file_});
    if (!text && c.seen.leading_zero_row > 0)
      log_.xpmlog(message::leading_zeros_dropped{.column = c.name, .file = file_, .row = c.seen.leading_zero_row});
    if (!text && c.seen.inexact_row > 0)
      log_.xpmlog(message::digits_rounded{.column = c.name, .file = file_, .row = c.seen.inexact_row});
  }
}

} // namespace

std::optional<DataSet> read_csv(const std::string& path, MessageSink& log, const ReadOptions& options)
{
  std::string problem;
  const auto open = [&] {
    auto source = open_bytes(path, problem);
    if (!source) log.xpmlog(message::file_not_read{.file = path, .reason = problem});
    return source;
  };
  CsvReader reader(path, log, options);
  std::error_code error;
  if (std::filesystem::is_regular_file(path, error)) return reader.read(open, std::filesystem::file_size(path, error));
  // A pipe can be read once only.
  const auto source = open();
  std::string bytes;
  if (!source) return std::nullopt;
  if (!read_all(*source, bytes)) {
    log.xpmlog(message::file_not_read{.file = path, .reason = source->problem});
    return std::nullopt;
  }
  return reader.read([&] { return bytes_of(bytes); }, bytes.size());
}

std::optional<DataSet> read_csv_text(std::string_view text, const std::string& name, MessageSink& log,
                                     const ReadOptions& options)
{
  return CsvReader(name, log, options).read([&] { return bytes_of(text); }, text.size());
}

} // namespace torvale::host
