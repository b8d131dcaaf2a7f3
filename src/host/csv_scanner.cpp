#include "host/csv_scanner.h"
#include <cstring>

namespace torvale::host {

namespace {

constexpr std::size_t chunk = 1 << 18;

} // namespace

bool CsvScanner::more()
{
  if (ended_) return false;
  const std::size_t old = buffer_.size();
  buffer_.resize(old + chunk);
  const std::ptrdiff_t n = source_.read(buffer_.data() + old, chunk);
  buffer_.resize(old + static_cast<std::size_t>(n > 0 ? n : 0));
  if (n < 0) fault_ = Fault::read;
  if (n > 0 && std::memchr(buffer_.data() + old, '\0', static_cast<std::size_t>(n))) fault_ = Fault::not_text;
  ended_ = n <= 0;
  return n > 0;
}

// At a line end (LF, CRLF, CR)? Then i moves behind it.
bool CsvScanner::skip_line_end(std::size_t& i)
{
  if (buffer_[i] == '\n') {
    ++i;
  } else if (buffer_[i] == '\r') {
    ++i;
    if (at(i) && buffer_[i] == '\n') ++i;
  } else {
    return false;
  }
  ++next_line_;
  return true;
}

// A field from behind its opening quote; doubled quotes are halved in place. False when the closing quote is missing.
bool CsvScanner::quoted_field(std::size_t& i)
{
  const std::size_t begin = i;
  std::size_t out = i;
  while (at(i)) {
    char c = buffer_[i++];
    if (c == '"') {
      if (!at(i) || buffer_[i] != '"') {
        stretches_.push_back({begin, out});
        return true;
      }
      ++i;
    } else if (c == '\n' || (c == '\r' && !(at(i) && buffer_[i] == '\n'))) {
      ++next_line_;
    }
    buffer_[out++] = c;
  }
  return false;
}

void CsvScanner::plain_field(std::size_t& i)
{
  const std::size_t begin = i;
  while (at(i)) {
    const char* const text = buffer_.data();
    const std::size_t end = buffer_.size();
    while (i < end && text[i] != ',' && text[i] != '\n' && text[i] != '\r') ++i;
    if (i < end) break;
  }
  stretches_.push_back({begin, i});
}

CsvScanner::Step CsvScanner::fail(Fault fault)
{
  if (fault_ == Fault::none) fault_ = fault;
  fault_field_ = static_cast<std::int64_t>(stretches_.size()) + 1;
  return Step::failure;
}

CsvScanner::Step CsvScanner::next(std::vector<std::string_view>& fields)
{
  fields.clear();
  stretches_.clear();
  if (begin_ >= chunk) { // not at every record: each byte is moved at most once
    buffer_.erase(0, begin_);
    begin_ = 0;
  }
  std::size_t i = begin_;
  if (!started_) {
    started_ = true;
    while (buffer_.size() < 3 && more()) {
    }
    if (buffer_.starts_with("\xEF\xBB\xBF")) i = 3;
    if (buffer_.starts_with("\xFF\xFE") || buffer_.starts_with("\xFE\xFF")) fault_ = Fault::not_text;
  }
  while (at(i) && skip_line_end(i)) {
  } // empty lines
  line_ = next_line_;
  if (fault_ != Fault::none) return fail(fault_);
  if (!at(i)) return fault_ == Fault::none ? Step::end : fail(fault_);

  for (;;) {
    if (at(i) && buffer_[i] == '"') {
      ++i;
      if (!quoted_field(i)) return fail(Fault::unclosed_quote);
      while (at(i) && (buffer_[i] == ' ' || buffer_[i] == '\t')) ++i;
      if (at(i) && buffer_[i] != ',' && buffer_[i] != '\n' && buffer_[i] != '\r') {
        stretches_.pop_back();
        return fail(Fault::text_after_quote);
      }
    } else {
      plain_field(i);
    }
    if (!at(i) || skip_line_end(i)) break;
    ++i; // the comma
  }
  if (fault_ != Fault::none) return fail(fault_);
  begin_ = i;
  for (const Stretch& s : stretches_) fields.emplace_back(buffer_.data() + s.begin, s.end - s.begin);
  return Step::record;
}

} // namespace torvale::host
