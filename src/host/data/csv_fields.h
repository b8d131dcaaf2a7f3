#pragma once
#include "host/data/csv_blocks.h"
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace torvale::host {

// What keeps a block from being read.
enum class CsvFault { none, unclosed_quote, text_after_quote, wrong_count };

// Walks through the records of a block, field by field. It stands at the beginning of a field, or, after one was taken,
// at the separator or the line end behind it; behind the last record stands a line end.
class CsvFields {
public:
  CsvFields(const CsvBlock& block, char separator)
      : p_(block.bytes().data()), end_(p_ + block.size()), separator_(separator)
  {
  }

  const char* at() const { return p_; }
  void move_to(const char* behind_field) { p_ = behind_field; }
  char separator() const { return separator_; }
  bool at_line_end(const char* p) const { return *p == '\n' || *p == '\r'; }
  std::int64_t lines() const { return lines_; } // line ends passed, those in quotes too

  // Passes over empty lines to the next record; false when there is none.
  bool next_record()
  {
    while (p_ < end_ && at_line_end(p_)) pass_line_end();
    if (p_ == end_) return false;
    pass_blanks();
    return true;
  }

  // Behind a field: passes over the separator. False when the record ends here; its line end is passed.
  bool next_field()
  {
    if (*p_ == separator_ && p_ < end_) {
      ++p_;
      if (!pass_blanks()) return true;
    }
    if (p_ < end_) pass_line_end();
    return false;
  }

  // The field at hand, without its quotes; good until the next one.
  CsvFault take(std::string_view& text, bool& quoted)
  {
    const char* const begin = p_;
    quoted = *p_ == '"' && p_ < end_;
    if (quoted) return take_quoted(text);
    while (p_ < end_ && *p_ != separator_ && !at_line_end(p_)) ++p_;
    text = {begin, static_cast<std::size_t>(p_ - begin)};
    return CsvFault::none;
  }

private:
  void pass_line_end()
  {
    const bool pair = *p_ == '\r' && p_ + 1 < end_ && p_[1] == '\n';
    p_ += pair ? 2 : 1;
    ++lines_;
  }

  // Where blanks separate, several count as one, and those at the ends of a line do not count. True: the line ends
  // here.
  bool pass_blanks()
  {
    if (separator_ != ' ') return false;
    while (p_ < end_ && *p_ == ' ') ++p_;
    return p_ == end_ || at_line_end(p_);
  }

  CsvFault take_quoted(std::string_view& text)
  {
    const char* const begin = ++p_;
    bool doubled = false;
    for (;; p_ += 2) {
      const void* const quote = std::memchr(p_, '"', static_cast<std::size_t>(end_ - p_));
      p_ = quote ? static_cast<const char*>(quote) : end_;
      if (!quote) return CsvFault::unclosed_quote;
      if (p_ + 1 >= end_ || p_[1] != '"') break;
      doubled = true;
    }
    text = {begin, static_cast<std::size_t>(p_ - begin)};
    ++p_;
    count_lines(text);
    if (doubled) text = without_doubled(text);
    while (p_ < end_ && *p_ != separator_ && (*p_ == ' ' || *p_ == '\t')) ++p_;
    const bool ends = p_ == end_ || *p_ == separator_ || at_line_end(p_);
    return ends ? CsvFault::none : CsvFault::text_after_quote;
  }

  std::string_view without_doubled(std::string_view text)
  {
    unquoted_.clear();
    for (std::size_t k = 0; k < text.size(); ++k) {
      unquoted_ += text[k];
      if (text[k] == '"') ++k;
    }
    return unquoted_;
  }

  void count_lines(std::string_view text)
  {
    for (std::size_t k = 0; k < text.size(); ++k)
      if (text[k] == '\n' || (text[k] == '\r' && (k + 1 == text.size() || text[k + 1] != '\n'))) ++lines_;
  }

  const char* p_;
  const char* const end_;
  const char separator_;
  std::int64_t lines_ = 0;
  std::string unquoted_;
};

} // namespace torvale::host
