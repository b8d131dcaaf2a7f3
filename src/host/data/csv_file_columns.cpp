#include "host/data/csv_file_columns.h"
#include "host/values/text.h"

namespace torvale::host {

void FileColumn::remark(const BlockColumn& block, std::int64_t rows_before)
{
  const auto first = [&](std::int64_t& known, std::int64_t row) {
    if (known == 0 && row > 0) known = rows_before + row;
  };
  if (seen.code_row == 0) seen.code = block.code;
  first(seen.code_row, block.code_row);
  seen.code_count += block.code_count;
  first(seen.leading_zero_row, block.leading_zero_row);
  first(seen.inexact_row, block.inexact_row);
  seen.point = seen.point || block.point;
  seen.comma = seen.comma || block.comma;
  seen.only_plain_missing = seen.only_plain_missing && block.only_plain_missing;
}

void FileColumn::take_texts(const BlockColumn& block)
{
  std::vector<std::uint32_t> code_here;
  for (const std::string& text : block.dictionary) {
    if (is_utf8(text)) {
      code_here.push_back(texts.code_of(text));
      continue;
    }
    const std::string here = utf8_from_windows(text);
    if (recoded.empty()) recoded = here;
    code_here.push_back(texts.code_of(here));
  }
  texts.append_codes(block.codes, code_here);
}

void FileColumn::take(const BlockColumn& block, std::int64_t rows_before)
{
  if (spellings_needed) return;
  remark(block, rows_before);
  if (asked == ColumnKind::numeric) {
    if (block.moment != Moment::none) moment = block.moment;
    numbers.append_numbers(block.numbers);
    return;
  }
  const bool nothing = block.type == Type::none && (type != Type::text || block.only_plain_missing);
  const bool fits = nothing || (type == Type::none && (block.type != Type::text || seen.only_plain_missing)) ||
                    (type == block.type && (type != Type::moment || moment == block.moment));
  if (!fits || (seen.point && seen.comma)) {
    spellings_needed = true;
    numbers.keep_in(memory);
    texts.keep_in(memory);
    return;
  }
  if (type == Type::none && block.type != Type::none) {
    type = block.type;
    moment = block.moment;
    if (type == Type::text)
      for (std::int64_t i = 0; i < rows_before; ++i) texts.append_missing();
  }
  if (type != Type::text) {
    numbers.append_numbers(block.numbers);
  } else if (block.type == Type::text) {
    take_texts(block);
  } else {
    for (std::size_t i = 0; i < block.numbers.size(); ++i) texts.append_missing();
  }
}

Column FileColumn::finished()
{
  Column out = std::move(is_text() ? texts : numbers);
  out.rename(name);
  if (out.numeric()) out.set_format(std::string(iso_format(moment)));
  return out;
}

} // namespace torvale::host
