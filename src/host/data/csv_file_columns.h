#pragma once
#include "host/data/csv_columns.h"
#include "host/data/data_set.h"
#include <optional>
#include <string>
#include <vector>

namespace torvale::host {

// One column of the file, block by block.
struct FileColumn {
  using Type = BlockColumn::Type;
  std::string name;
  std::optional<ColumnKind> asked;
  Type type = Type::none;
  Moment moment = Moment::none;
  Column numbers{"", ColumnKind::numeric};
  Column texts{"", ColumnKind::character};
  bool spellings_needed = false; // blocks differ in type: read the file again, as text
  BlockColumn seen;              // remarks of all blocks; rows of the file
  std::string recoded;           // the first text that was not UTF-8, as it is read now
  RowMemory memory;

  void take(const BlockColumn& block, std::int64_t rows_before);
  void take_texts(const BlockColumn& block);
  bool is_text() const { return type == Type::text || spellings_needed || asked == ColumnKind::character; }
  void reserve(std::size_t rows) { (type == Type::text ? texts : numbers).reserve(rows); }
  Column finished(); // what was read; nothing is left here

private:
  void remark(const BlockColumn& block, std::int64_t rows_before);
};

} // namespace torvale::host
