#include "host/data/csv.h"
#include "host/data/csv_notes.h"
#include "host/messages/names/files.h"
#include "host/storage/row_heap.h"
#include "host/values/text.h"
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace torvale::host {

namespace {

using Kind = ColumnRequest::Kind;
using Open = std::function<std::unique_ptr<ByteSource>()>; // a fresh source of the same bytes; null when there is none

constexpr double row_overhead = 80; // bytes of a row in the index and in the evaluations of a fit

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
    CsvNotes(file_, CsvDialect(options_, separator_), columns_, log_).post(recoded_name_);
    DataSet data;
    data.name = file_;
    data.path = file_;
    for (FileColumn& column : columns_) data.add(column.finished());
    return data;
  }

private:
  // What the workers of a pass share. Blocks are cut one after the other, read side by side, and joined in their order.
  struct Pass {
    CsvCutter& cutter;
    const CsvDialect dialect;
    bool spellings = false; // only columns whose spellings are needed
    std::vector<ColumnRequest> requests{};

    std::mutex cutting{}; // guards the cutter and `cut`
    long cut = 0;         // blocks

    std::mutex joining{};                  // guards what follows
    std::map<long, BlockValues> ready{};   // blocks read, by number, that the ones before keep from the columns
    std::vector<BlockValues> spare{};      // blocks whose memory is used again
    std::condition_variable joined_more{}; // `joined` has grown, or `stopped`
    long joined = 0;
    bool busy = false; // a worker puts a block into the columns
    bool stopped = false;
    std::optional<BlockValues> faulty{};
    std::exception_ptr thrown{};
  };
  bool pass(const Open& open, bool spellings);
  bool read_one(Pass& pass, CsvBlock& block);
  void join(Pass& pass, std::unique_lock<std::mutex>& lock);
  void read_all(Pass& pass);
  bool header(CsvCutter& cutter, const ByteSource& source);
  bool name_columns(const std::vector<std::string>& names);
  void take(const BlockValues& block, bool spellings);
  bool failed(const CsvCutter& cutter, const ByteSource& source);
  bool failed(const BlockValues& block);
  bool reserve(std::size_t bytes, std::int64_t rows);

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
  if (block.fault == CsvFault::unclosed_quote)
    log_.xpmlog(message::quote_not_closed{.column = column}, place);
  else if (block.fault == CsvFault::text_after_quote)
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

bool CsvReader::header(CsvCutter& cutter, const ByteSource& source)
{
  std::string line;
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
                                         : found_separator(line);
  std::vector<std::string> names;
  bool unclosed = false;
  if (!split_line(line, separator_, names, unclosed)) {
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
    column.memory = options_.memory ? options_.memory : row_heap();
    column.numbers.keep_in(column.memory);
    column.texts.keep_in(column.memory);
    column.name = std::move(name);
    if (asked != options_.kinds.end()) column.asked = asked->second;
  }
  return true;
}

bool CsvReader::pass(const Open& open, bool spellings)
{
  const std::unique_ptr<ByteSource> source = open();
  if (!source) return false;
  CsvCutter cutter(*source);
  if (!header(cutter, *source)) return false;
  rows_ = 0;
  Pass pass{.cutter = cutter, .dialect = CsvDialect(options_, separator_), .spellings = spellings};
  for (const FileColumn& c : columns_) {
    Kind kind = !c.asked ? Kind::any : *c.asked == ColumnKind::numeric ? Kind::numeric : Kind::character;
    if (spellings) kind = c.spellings_needed ? Kind::character : Kind::skip;
    pass.requests.push_back({kind});
  }
  CsvBlock first;
  if (read_one(pass, first) && !cutter.ended()) { // most files have one block
    if (!spellings && !reserve(first.size(), rows_)) return false;
    std::vector<std::thread> others;
    for (int k = 1; k < options_.threads; ++k) others.emplace_back([&] { read_all(pass); });
    read_all(pass);
    for (std::thread& thread : others) thread.join();
  }
  if (pass.thrown) std::rethrow_exception(pass.thrown);
  if (pass.faulty) return failed(*pass.faulty);
  return cutter.fault() == CsvCutter::Fault::none || failed(cutter, *source);
}

// Reads blocks until there are none. What a worker throws stops the others too.
void CsvReader::read_all(Pass& pass)
{
  try {
    CsvBlock block;
    while (read_one(pass, block)) {
    }
  } catch (...) {
    const std::lock_guard<std::mutex> lock(pass.joining);
    pass.thrown = std::current_exception();
    pass.stopped = true;
    pass.joined_more.notify_all();
  }
}

// Cuts and reads the next block, and joins what can be joined. False when there is none or a fault stops the reading.
bool CsvReader::read_one(Pass& pass, CsvBlock& block)
{
  const long most_ahead = 4L * std::max(options_.threads, 1); // of the columns
  long number = 0;
  {
    const std::lock_guard<std::mutex> lock(pass.cutting);
    if (pass.cutter.next(block, separator_) != CsvCutter::Step::block) return false;
    number = pass.cut++;
  }
  BlockValues values;
  std::unique_lock<std::mutex> lock(pass.joining);
  if (!pass.spare.empty()) {
    values = std::move(pass.spare.back());
    pass.spare.pop_back();
  }
  lock.unlock();
  read_block(block, pass.dialect, pass.requests, values);
  lock.lock();
  pass.ready.emplace(number, std::move(values));
  join(pass, lock);
  pass.joined_more.wait(lock, [&] { return pass.stopped || number < pass.joined + most_ahead; });
  return !pass.stopped;
}

// Puts the blocks whose turn it is into the columns, unless another worker does.
void CsvReader::join(Pass& pass, std::unique_lock<std::mutex>& lock)
{
  while (!pass.busy && !pass.stopped && !pass.ready.empty() && pass.ready.begin()->first == pass.joined) {
    BlockValues values = std::move(pass.ready.extract(pass.ready.begin()).mapped());
    pass.busy = true;
    lock.unlock();
    if (values.fault == CsvFault::none) take(values, pass.spellings);
    lock.lock();
    pass.busy = false;
    ++pass.joined;
    if (values.fault == CsvFault::none) {
      pass.spare.push_back(std::move(values));
    } else {
      pass.faulty = std::move(values);
      pass.stopped = true;
    }
    pass.joined_more.notify_all();
  }
}

void CsvReader::take(const BlockValues& block, bool spellings)
{
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    if (!spellings)
      columns_[i].take(block.columns[i], rows_);
    else if (columns_[i].spellings_needed)
      columns_[i].take_texts(block.columns[i]);
  }
  rows_ += block.rows;
  line_ += block.lines;
}

// Makes room for the rows that a file of this size will have, so that columns do not grow by copies. False, with a
// message, when there is no memory for them and for what a fit keeps of them.
bool CsvReader::reserve(std::size_t bytes, std::int64_t rows)
{
  if (size_ <= bytes) return true;
  const double expected = static_cast<double>(rows) * static_cast<double>(size_) / static_cast<double>(bytes);
  double row_bytes = row_overhead;
  for (const FileColumn& c : columns_)
    row_bytes += 2.0 * (c.type == FileColumn::Type::text ? sizeof(std::uint32_t) : sizeof(double));
  if (options_.most_memory > 0 && !options_.memory &&
      expected * row_bytes > static_cast<double>(options_.most_memory)) {
    log_.xpmlog(message::data_exceed_memory{.file = file_,
                                            .rows = std::llround(expected),
                                            .needed = bytes_text(expected * row_bytes),
                                            .free = bytes_text(static_cast<double>(options_.most_memory))});
    return false;
  }
  for (FileColumn& c : columns_) c.reserve(static_cast<std::size_t>(1.05 * expected) + 64);
  return true;
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
