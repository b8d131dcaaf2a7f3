#include "host/values/text.h"
#include <algorithm>

namespace torvale::host {

namespace {

char lower(char c)
{
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
char upper(char c)
{
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Length of the well-formed UTF-8 sequence at the start of `s`, 0 when there is none.
std::size_t utf8_length(std::string_view s)
{
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const auto follows = [&](std::size_t i) { return i < s.size() && (byte(i) & 0xC0) == 0x80; };
  const unsigned b = byte(0);
  if (b < 0x80) return 1;
  if (b >= 0xC2 && b <= 0xDF) return follows(1) ? 2 : 0;
  if (b >= 0xE0 && b <= 0xEF) {
    if (!follows(1) || !follows(2)) return 0;
    if (b == 0xE0 && byte(1) < 0xA0) return 0; // overlong
    if (b == 0xED && byte(1) > 0x9F) return 0; // surrogates
    return 3;
  }
  if (b >= 0xF0 && b <= 0xF4) {
    if (!follows(1) || !follows(2) || !follows(3)) return 0;
    if (b == 0xF0 && byte(1) < 0x90) return 0; // overlong
    if (b == 0xF4 && byte(1) > 0x8F) return 0; // beyond U+10FFFF
    return 4;
  }
  return 0;
}

} // namespace

std::string wzstrlo(std::string_view text)
{
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), lower);
  return out;
}

std::string wzstrup(std::string_view text)
{
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), upper);
  return out;
}

bool equal_names(std::string_view a, std::string_view b)
{
  return a.size() == b.size() && compare_names(a, b) == 0;
}

int compare_names(std::string_view a, std::string_view b)
{
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const auto x = static_cast<unsigned char>(lower(a[i])), y = static_cast<unsigned char>(lower(b[i]));
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

std::string_view stripped(std::string_view text)
{
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view cut_name(std::string_view name, std::size_t bytes)
{
  if (name.size() <= bytes) return name;
  while (bytes > 0 && (static_cast<unsigned char>(name[bytes]) & 0xC0) == 0x80) --bytes;
  return name.substr(0, bytes);
}

int compare_padded(std::string_view a, std::string_view b)
{
  const std::size_t n = std::max(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const auto x = static_cast<unsigned char>(i < a.size() ? a[i] : ' ');
    const auto y = static_cast<unsigned char>(i < b.size() ? b[i] : ' ');
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

// Restricted Damerau-Levenshtein distance: three rows of the usual table.
int edit_distance(std::string_view a, std::string_view b)
{
  std::vector<int> before(b.size() + 1), last(b.size() + 1), row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) last[j] = static_cast<int>(j);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = static_cast<int>(i);
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const int change = lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1;
      row[j] = std::min({row[j - 1] + 1, last[j] + 1, last[j - 1] + change});
      const bool swapped = i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) && lower(a[i - 2]) == lower(b[j - 1]);
      if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before.swap(last);
    last.swap(row);
  }
  return last[b.size()];
}

std::string nearest_name(std::string_view name, const std::vector<std::string>& candidates)
{
  std::string best;
  int best_distance = std::min(3, static_cast<int>(name.size()));
  for (const std::string& candidate : candidates) {
    const int distance = edit_distance(name, candidate);
    if (distance < best_distance) {
      best_distance = distance;
      best = candidate;
    }
  }
  return best;
}

std::size_t display_width(std::string_view text)
{
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string padded_left(std::string_view text, std::size_t width)
{
  const std::size_t shown = display_width(text);
  return std::string(shown < width ? width - shown : 0, ' ').append(text);
}

std::string padded_right(std::string_view text, std::size_t width)
{
  const std::size_t shown = display_width(text);
  return std::string(text).append(shown < width ? width - shown : 0, ' ');
}

std::string centred(std::string_view text, std::size_t width)
{
  const std::size_t shown = display_width(text);
  return std::string(shown < width ? (width - shown) / 2 : 0, ' ').append(text);
}

std::string valid_utf8(std::string_view text)
{
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = utf8_length(text.substr(i));
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else {
      out += text.substr(i, length);
      i += length;
    }
  }
  return out;
}

bool is_utf8(std::string_view text)
{
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = utf8_length(text.substr(i));
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string utf8_from_windows(std::string_view text)
{
  // Code points of the bytes 80 to 9F; 0: none, the byte stands for itself.
  static constexpr std::uint16_t special[32] = {0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                                0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0,      0x017D, 0,
                                                0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                                0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    unsigned point = byte;
    if (byte >= 0x80 && byte < 0xA0 && special[byte - 0x80] != 0) point = special[byte - 0x80];
    if (point < 0x80) {
      out += c;
    } else if (point < 0x800) {
      out += static_cast<char>(0xC0 | (point >> 6));
      out += static_cast<char>(0x80 | (point & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (point >> 12));
      out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (point & 0x3F));
    }
  }
  return out;
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width, std::size_t indent)
{
  std::vector<std::string> lines(1);
  bool empty = true; // the last line holds no word yet
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == '\n') {
      lines.emplace_back(indent, ' ');
      empty = true;
      ++i;
      continue;
    }
    if (text[i] == ' ') {
      ++i;
      continue;
    }
    const std::size_t end = std::min(text.find_first_of(" \n", i), text.size());
    const std::string_view word = text.substr(i, end - i);
    if (!empty && display_width(lines.back()) + 1 + display_width(word) > width) {
      lines.emplace_back(indent, ' ');
      empty = true;
    }
    if (!empty) lines.back() += ' ';
    lines.back() += word;
    empty = false;
    i = end;
  }
  return lines;
}

} // namespace torvale::host
