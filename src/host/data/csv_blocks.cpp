#include "host/data/csv_blocks.h"
#include "host/values/text.h"
#include <cstring>

namespace torvale::host {

namespace {

bool line_end_at(std::string_view bytes, std::size_t i)
{
  return bytes[i] == '\n' || bytes[i] == '\r';
}

// Behind the field that begins at i; npos when the bytes end inside it.
std::size_t behind_field(std::string_view bytes, std::size_t i, char separator)
{
  if (bytes[i] == '"') {
    for (++i;; i += 2) {
      i = bytes.find('"', i);
      if (i == std::string_view::npos || i + 1 == bytes.size()) return std::string_view::npos;
      if (bytes[i + 1] != '"') break;
    }
    ++i;
  }
  while (i < bytes.size() && bytes[i] != separator && !line_end_at(bytes, i)) ++i;
  return i < bytes.size() ? i : std::string_view::npos;
}

} // namespace

std::size_t behind_last_record(std::string_view bytes, char separator)
{
  if (bytes.find('"') == std::string_view::npos) {
    std::size_t last = bytes.rfind('\n');
    if (last == std::string_view::npos && bytes.size() > 1) last = bytes.rfind('\r', bytes.size() - 2);
    return last == std::string_view::npos ? 0 : last + 1;
  }
  std::size_t complete = 0;
  for (std::size_t i = 0; i < bytes.size();) {
    i = behind_field(bytes, i, separator);
    if (i == std::string_view::npos) break;
    const bool record = bytes[i] != separator;
    if (record && bytes[i] == '\r' && i + 1 == bytes.size()) break; // a \n may follow
    ++i;
    if (record) complete = i;
  }
  return complete;
}

bool CsvCutter::more()
{
  if (ended_) return false;
  const std::size_t old = buffer_.size();
  buffer_.resize(old + chunk_);
  chunk_ = block_size; // most files are small
  std::ptrdiff_t n = 0;
  std::size_t filled = old;
  while (filled < buffer_.size() && (n = source_.read(buffer_.data() + filled, buffer_.size() - filled)) > 0)
    filled += static_cast<std::size_t>(n);
  buffer_.resize(filled);
  if (n < 0) fault_ = Fault::read;
  if (std::memchr(buffer_.data() + old, '\0', filled - old)) fault_ = Fault::not_text;
  ended_ = n <= 0;
  return filled > old;
}

// The place of the end of the line that begins at `from`, outside quotes; the size of the buffer when it is the last.
std::size_t CsvCutter::line_end(std::size_t from)
{
  bool quoted = false;
  for (std::size_t i = from;; ++i) {
    if (i == buffer_.size() && !more()) return i;
    if (buffer_[i] == '"') quoted = !quoted;
    if (!quoted && line_end_at(buffer_, i)) return i;
  }
}

CsvCutter::Step CsvCutter::header(CsvBlock& block)
{
  block.bytes.clear();
  more();
  if (buffer_.starts_with("\xEF\xBB\xBF")) buffer_.erase(0, 3);
  if (buffer_.starts_with("\xFF\xFE") || buffer_.starts_with("\xFE\xFF")) fault_ = Fault::not_text;
  std::size_t i = 0;
  for (;;) {
    while (i < buffer_.size() && line_end_at(buffer_, i)) {
      if (buffer_[i] == '\n' || i + 1 == buffer_.size() || buffer_[i + 1] != '\n') ++header_line_;
      if (++i == buffer_.size()) more();
    }
    if (fault_ != Fault::none || i == buffer_.size()) return failed();
    const std::size_t end = line_end(i);
    if (fault_ != Fault::none) return failed();
    const std::string_view line(buffer_.data() + i, end - i);
    if (separator_ == 0 && line.size() == 5 && equal_names(line.substr(0, 4), "sep=")) {
      separator_ = line[4];
      i = end;
      continue;
    }
    block.bytes = line;
    body_line_ = header_line_;
    for (const char c : line) body_line_ += c == '\n';
    buffer_.erase(0, end);
    return Step::block;
  }
}

CsvCutter::Step CsvCutter::next(CsvBlock& block, char separator)
{
  block.bytes.clear();
  if (fault_ != Fault::none) return Step::failure;
  for (std::size_t wanted = block_size;; wanted *= 2) { // twice as much while no record ends
    while (buffer_.size() < wanted && more()) {
    }
    if (fault_ != Fault::none) return Step::failure;
    if (ended_) break;
    if (const std::size_t cut = behind_last_record(buffer_, separator)) {
      block.bytes.swap(buffer_);
      buffer_.assign(block.bytes, cut);
      block.bytes.resize(cut);
      return Step::block;
    }
  }
  if (buffer_.empty()) return Step::end;
  block.bytes.swap(buffer_);
  buffer_.clear();
  block.bytes += '\n'; // the last line may have no end; an empty line more does no harm
  return Step::block;
}

} // namespace torvale::host
