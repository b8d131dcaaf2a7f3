#include "host/data/csv_dialect.h"
#include "host/values/text.h"
#include <algorithm>
#include <array>

namespace torvale::host {

bool is_missing_code(std::string_view field)
{
  if (field.empty() || field.size() > 4) return false;
  for (const std::string_view code : {"NA", "NaN", "N/A", "null", "-"})
    if (equal_names(field, code)) return true;
  return false;
}

CsvDialect::CsvDialect(const ReadOptions& options, char separator_found) : separator(separator_found)
{
  points = options.decimal != ',';
  commas = options.decimal == ',' || (options.decimal == 0 && separator == ';');
  for (const std::string& code : options.missing) {
    codes.push_back(wzstrlo(stripped(code)));
    if (const auto value = parse_number(codes.back())) code_numbers.push_back(*value);
  }
}

bool CsvDialect::is_code(std::string_view field) const
{
  if (is_missing_code(field)) return true;
  if (codes.empty()) return false;
  if (std::any_of(codes.begin(), codes.end(), [&](const std::string& c) { return equal_names(c, field); })) return true;
  const auto value = code_numbers.empty() ? std::nullopt : number(field);
  return value && std::find(code_numbers.begin(), code_numbers.end(), *value) != code_numbers.end();
}

std::optional<double> CsvDialect::number(std::string_view field) const
{
  const std::size_t comma = commas ? field.find(',') : std::string_view::npos;
  if (comma == std::string_view::npos) {
    if (!points && field.find('.') != std::string_view::npos) return std::nullopt;
    return parse_number(field);
  }
  if (field.find('.') != std::string_view::npos) return std::nullopt; // 1.234,5: which one groups?
  std::string with_point(field);
  with_point[comma] = '.';
  return parse_number(with_point);
}

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

namespace {

bool split_at_blanks(std::string_view line, std::vector<std::string>& fields)
{
  for (std::size_t i = 0; (i = line.find_first_not_of(' ', i)) != std::string_view::npos;) {
    const std::size_t end = std::min(line.find(' ', i), line.size());
    std::string_view name = line.substr(i, end - i);
    if (name.size() > 1 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
    fields.emplace_back(name);
    i = end;
  }
  return true;
}

} // namespace

bool split_line(const std::string& line, char separator, std::vector<std::string>& fields, bool& unclosed)
{
  fields.clear();
  unclosed = false;
  if (separator == ' ') return split_at_blanks(line, fields);
  for (std::size_t i = 0;; ++i) {
    std::string& field = fields.emplace_back();
    if (i < line.size() && line[i] == '"') {
      for (++i; i < line.size() && (line[i] != '"' || (i + 1 < line.size() && line[i + 1] == '"')); ++i) {
        field += line[i];
        if (line[i] == '"') ++i;
      }
      unclosed = i >= line.size();
      if (unclosed) return false;
      for (++i; i < line.size() && line[i] != separator; ++i)
        if (line[i] != ' ' && line[i] != '\t') return false;
    } else {
      const std::size_t end = std::min(line.find(separator, i), line.size());
      field = line.substr(i, end - i);
      i = end;
    }
    if (i >= line.size()) return true;
  }
}

} // namespace torvale::host
