#pragma once
#include "host/storage/byte_source.h"
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace torvale::host {

// Some whole records of a file, one after the other; the bytes end with a line end, and `padding` bytes more may be
// read. Its memory is used again.
class CsvBlock {
public:
  static constexpr std::size_t padding = 16;

  std::string_view bytes() const { return {memory_.get(), size_}; }
  std::size_t size() const { return size_; }
  char* grow(std::size_t bytes);                   // makes room for so many more at the end; where that begins
  void took(std::size_t bytes) { size_ += bytes; } // so many have been written there
  void cut(std::size_t size) { size_ = size; }

private:
  std::unique_ptr<char[]> memory_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

// Cuts a source of bytes into blocks of whole records, whatever stands in their quotes, and takes the line of names off
// the front.
class CsvCutter {
public:
  enum class Step { block, end, failure };
  enum class Fault { none, read, not_text };
  explicit CsvCutter(ByteSource& source) : source_(source) {}

  // The first line that is not empty, without its end; Step::end in a file without one. Passes over a byte order mark
  // and a line "sep=;", which sets separator().
  Step header(std::string& line);
  // The next records, about block_size bytes, more when one is longer.
  Step next(CsvBlock& block, char separator);

  bool ended() const { return ended_ && buffer_.empty(); } // next() has no more
  char separator() const { return separator_; }            // 0: the file says none
  Fault fault() const { return fault_; }
  std::int64_t header_line() const { return header_line_; } // from 1
  std::int64_t body_line() const { return body_line_; }     // where the first block begins

  static constexpr std::size_t block_size = 1 << 17; // text and numbers of a block lie in a core's own cache

private:
  std::size_t read(char* to, std::size_t room);
  bool more();
  std::size_t line_end(std::size_t from);
  Step failed() const { return fault_ == Fault::none ? Step::end : Step::failure; }

  ByteSource& source_;
  std::string buffer_; // read, not yet given out
  Fault fault_ = Fault::none;
  char separator_ = 0;
  bool ended_ = false;
  std::int64_t header_line_ = 1;
  std::int64_t body_line_ = 1;
};

// Behind the last complete record of `bytes`, which begin with a record; 0 when there is none. A line end at the very
// end counts as complete.
std::size_t behind_last_record(std::string_view bytes, char separator);

} // namespace torvale::host
