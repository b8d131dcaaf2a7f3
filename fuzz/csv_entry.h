#pragma once
// One input of the fuzzer of data files: the first byte chooses how the file is read, the rest is the file.
#include "host/data/csv.h"

#include <cstdint>
#include <string>

namespace torvale::fuzz {

inline std::string cells(const host::DataSet& data)
{
  std::string out;
  for (const host::Column& column : data.columns()) {
    if (column.rows() != data.rows()) __builtin_trap(); // not rectangular
    out += column.name() + (column.numeric() ? " n" : " c") + column.format();
    for (std::size_t row = 0; row < column.rows(); ++row) out += "|" + column.shown(row);
    out += "\n";
  }
  return out;
}

inline void csv_input(const std::uint8_t* bytes, std::size_t size)
{
  if (size == 0) return;
  const std::uint8_t choice = bytes[0];
  const std::string text(reinterpret_cast<const char*>(bytes) + 1, size - 1);
  host::ReadOptions options;
  options.separator = ";,\t\0"[choice & 3];
  options.decimal = (choice & 4) != 0 ? ',' : char{0};
  if ((choice & 8) != 0) options.missing = {"-99", "n.d."};
  if ((choice & 16) != 0) options.kinds["a"] = host::ColumnKind::numeric;
  if ((choice & 32) != 0) options.kinds["b"] = host::ColumnKind::character;
  host::MessageLog log, other;
  const auto data = host::read_csv_text(text, "fuzz", log, options);
  options.threads = 3;
  const auto threaded = host::read_csv_text(text, "fuzz", other, options);
  if (data.has_value() != threaded.has_value()) __builtin_trap();
  if (!data && !log.has_errors()) __builtin_trap(); // refused without a word
  if (data && cells(*data) != cells(*threaded)) __builtin_trap();
}

} // namespace torvale::fuzz
