#include "host/data/csv_notes.h"
#include "host/messages/names/files.h"
#include "host/values/formats.h"
#include "host/values/text.h"
#include <algorithm>

namespace torvale::host {

namespace {

using Type = BlockColumn::Type;

bool parse_iso_any(std::string_view text)
{
  return parse_iso(text, Moment::date) || parse_iso(text, Moment::time) || parse_iso(text, Moment::datetime);
}

// Digits in groups of three, as 1,234.5 or -$1,234.5.
bool grouped(std::string text, char group, char point)
{
  const std::size_t sign = text.starts_with('-') ? 1 : 0;
  if (group == ',' && text.substr(sign, 1) == "$") text.erase(sign, 1);
  const std::size_t begin = text.find_first_of("0123456789");
  if (begin == std::string_view::npos || begin > 1 || (begin == 1 && text[0] != '-')) return false;
  const std::string whole = text.substr(begin, text.find(point) - begin);
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

} // namespace

// A column of characters that one spelling alone keeps from being numbers or dates.
bool CsvNotes::note_one_spelling(const FileColumn& column) const
{
  const auto& dictionary = column.texts.dictionary();
  std::size_t foreign = dictionary.size();
  bool numbers = false;
  for (std::size_t i = 0; i < dictionary.size(); ++i) {
    const std::string_view spelled = stripped(dictionary[i]);
    if (parse_missing(spelled) || is_missing_code(spelled)) continue;
    if (dialect_.number(spelled) || parse_iso_any(spelled)) {
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

// A column of characters that a format can read.
bool CsvNotes::note_readable(const FileColumn& column) const
{
  std::string formats, shown;
  for (const char* format : {"COMMA12.", "COMMAX12.", "PERCENT12.", "E12.", "DATE11.", "DDMMYY10.", "MMDDYY10."}) {
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
  if (formats.empty()) return false;
  log_.xpmlog(message::text_in_a_format{.column = column.name, .file = file_, .value = shown, .formats = formats});
  return true;
}

// One note on all missing codes of the file.
void CsvNotes::note_codes() const
{
  std::string where;
  std::int64_t count = 0;
  for (const FileColumn& c : columns_) {
    if (c.asked || c.is_text() || c.seen.code_count == 0) continue;
    where += (where.empty() ? "" : ", ") + c.name + " (\"" + c.seen.code + "\" in row " +
             std::to_string(c.seen.code_row) + ")";
    count += c.seen.code_count;
  }
  if (count > 0) log_.xpmlog(message::missing_codes_found{.count = count, .file = file_, .where = where});
}

// Texts of an older encoding are read as the only one that spreadsheets still write.
void CsvNotes::note_encoding(const std::string& recoded_name) const
{
  const auto first =
      std::find_if(columns_.begin(), columns_.end(), [](const FileColumn& c) { return !c.recoded.empty(); });
  if (!recoded_name.empty())
    log_.xpmlog(message::texts_recoded{.file = file_, .value = recoded_name});
  else if (first != columns_.end())
    log_.xpmlog(message::texts_recoded{.file = file_, .value = first->recoded, .column = first->name});
}

// One column whose name and texts hold blanks: they were meant to separate.
bool CsvNotes::warn_of_blanks() const
{
  const bool one_text = columns_.size() == 1 && columns_[0].type == Type::text;
  if (!one_text || columns_[0].name.find(' ') == std::string::npos) return false;
  for (const std::string& text : columns_[0].texts.dictionary())
    if (!text.empty() && text.find(' ') == std::string::npos) return false;
  log_.xpmlog(message::blanks_do_not_separate{.file = file_, .name = columns_[0].name});
  return true;
}

void CsvNotes::post(const std::string& recoded_name) const
{
  note_codes();
  note_encoding(recoded_name);
  if (warn_of_blanks()) return;
  const bool any_comma = std::any_of(columns_.begin(), columns_.end(),
                                     [](const FileColumn& c) { return c.type == Type::number && c.seen.comma; });
  for (const FileColumn& c : columns_) {
    const bool text = c.is_text();
    if (c.asked && !text && c.seen.code_row > 0 && !is_missing_code(c.seen.code))
      log_.xpmlog(message::text_read_as_missing{
          .column = c.name, .file = file_, .count = c.seen.code_count, .value = c.seen.code, .row = c.seen.code_row});
    if (c.asked) continue;
    if (c.seen.point && c.seen.comma)
      log_.xpmlog(message::points_and_commas{.column = c.name, .file = file_});
    else if (text)
      static_cast<void>(note_one_spelling(c) || note_readable(c));
    else if (any_comma && c.seen.point)
      log_.xpmlog(message::points_among_commas{.column = c.name, .file = file_});
    if (!text && c.seen.leading_zero_row > 0)
      log_.xpmlog(message::leading_zeros_dropped{.column = c.name, .file = file_, .row = c.seen.leading_zero_row});
    if (!text && c.seen.inexact_row > 0)
      log_.xpmlog(message::digits_rounded{.column = c.name, .file = file_, .row = c.seen.inexact_row});
  }
}

} // namespace torvale::host
