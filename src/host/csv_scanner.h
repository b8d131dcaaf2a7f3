#pragma once
#include "host/byte_source.h"
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::host {

// Splits a CSV source into records. One buffer holds the record at hand; fields are views into it until the next call.
class CsvScanner {
public:
  explicit CsvScanner(ByteSource& source) : source_(source) {}

  enum class Step { record, end, failure };
  enum class Fault { none, read, unclosed_quote, text_after_quote, not_text };

  Step next(std::vector<std::string_view>& fields);

  std::int64_t line() const { return line_; } // where the record at hand, or the fault, begins; from 1
  Fault fault() const { return fault_; }
  std::int64_t fault_field() const { return fault_field_; } // from 1

private:
  struct Stretch {
    std::size_t begin;
    std::size_t end;
  };
  bool more(); // reads on behind the buffer's end; false at the end of the source or on a failure
  bool at(std::size_t i) { return i < buffer_.size() || more(); } // is there a byte i?
  bool skip_line_end(std::size_t& i);
  bool quoted_field(std::size_t& i);
  void plain_field(std::size_t& i);
  Step fail(Fault fault);

  ByteSource& source_;
  std::string buffer_;
  std::size_t begin_ = 0; // start of the next record in the buffer
  std::vector<Stretch> stretches_;
  std::int64_t line_ = 0;
  std::int64_t next_line_ = 1;
  std::int64_t fault_field_ = 0;
  Fault fault_ = Fault::none;
  bool started_ = false;
  bool ended_ = false;
};

} // namespace torvale::host
