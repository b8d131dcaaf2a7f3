#include "host/data/csv_blocks.h"
#include "host/values/text.h"
#include <algorithm>
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

char* CsvBlock::grow(std::size_t bytes)
{
  if (size_ + bytes > capacity_) {
    capacity_ = size_ + bytes;
    auto larger = std::make_unique_for_overwrite<char[]>(capacity_ + padding);
    std::copy_n(memory_.get(), size_, larger.get());
    std::fill_n(larger.get() + capacity_, padding, '\0');
    memory_ = std::move(larger);
  }
  return memory_.get() + size_;
}

// Fills `room` bytes as far as the source goes.
std::size_t CsvCutter::read(char* to, std::size_t room)
{
  std::size_t filled = 0;
  std::ptrdiff_t n = 1;
  while (filled < room && (n = source_.read(to + filled, room - filled)) > 0) filled += static_cast<std::size_t>(n);
  if (n < 0) fault_ = Fault::read;
  if (filled > 0 && std::memchr(to, '\0', filled)) fault_ = Fault::not_text;
  ended_ = n <= 0;
  return filled;
}

// More of the file behind what is buffered.
bool CsvCutter::more()
{
  constexpr std::size_t chunk = 1 << 14; // most files are small
  if (ended_) return false;
  const std::size_t old = buffer_.size();
  buffer_.resize(old + std::max(chunk, old));
  const std::size_t filled = read(buffer_.data() + old, buffer_.size() - old);
  buffer_.resize(old + filled);
  return filled > 0;
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

CsvCutter::Step CsvCutter::header(std::string& header)
{
  header.clear();
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
    header = line;
    body_line_ = header_line_;
    for (const char c : line) body_line_ += c == '\n';
    buffer_.erase(0, end);
    return Step::block;
  }
}

CsvCutter::Step CsvCutter::next(CsvBlock& block, char separator)
{
  block.cut(0);
  const auto put = [&](std::string_view text) {
    std::copy(text.begin(), text.end(), block.grow(text.size()));
    block.took(text.size());
  };
  if (fault_ != Fault::none) return Step::failure;
  put(buffer_);
  buffer_.clear();
  for (std::size_t wanted = block_size; !ended_; wanted *= 2) { // twice as much while no record ends
    if (block.size() < wanted) {
      char* const behind = block.grow(wanted - block.size());
      block.took(read(behind, wanted - block.size()));
    }
    if (fault_ != Fault::none) return Step::failure;
    if (ended_) break;
    if (const std::size_t cut = behind_last_record(block.bytes(), separator)) {
      buffer_ = block.bytes().substr(cut);
      block.cut(cut);
      return Step::block;
    }
  }
  if (block.size() == 0) return Step::end;
  put("\n"); // the last line may have no end; an empty line more does no harm
  return Step::block;
}

} // namespace torvale::host
