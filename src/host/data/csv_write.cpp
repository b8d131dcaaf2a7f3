#include "host/data/csv.h"
#include "host/messages/names/files.h"
#include "host/storage/byte_source.h"
#include "host/storage/run_output.h"
#include "host/values/text.h"

namespace torvale::host {

void append_csv_field(std::string& out, std::string_view field)
{
  const bool quote = field.find_first_of(",\"\r\n") != std::string_view::npos || field.starts_with(' ') ||
                     field.starts_with('\t') || field.ends_with('\t');
  if (!quote) {
    out += field;
    return;
  }
  out += '"';
  for (const char c : field) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

void append_csv_cell(std::string& out, const Column& column, std::size_t row, bool only_column, Moment moment)
{
  if (!column.numeric()) {
    if (only_column && column.text(row).empty())
      out += "\"\"";
    else
      append_csv_field(out, column.text(row));
    return;
  }
  const double x = column.number(row);
  if (!only_column && wzmis(x) && missing_letter(x) == '.') return;
  if (moment == Moment::none || wzmis(x) || !append_iso(out, x, moment)) append_shortest(out, x);
}

int write_csv(const DataSet& data, const std::string& path, MessageSink& log)
{
  const auto& columns = data.columns();
  const bool compressed = path.ends_with(".gz") || path.ends_with(".zst");
  constexpr std::size_t flush_at = 1 << 20;
  AtomicFile file(path);
  std::string out;
  std::vector<Moment> moments;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    if (i > 0) out += ',';
    append_csv_field(out, columns[i].name());
    moments.push_back(columns[i].written_as());
  }
  out += '\n';
  for (std::size_t row = 0; row < data.rows(); ++row) {
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (i > 0) out += ',';
      append_csv_cell(out, columns[i], row, columns.size() == 1, moments[i]);
    }
    out += '\n';
    if (out.size() > flush_at && !compressed) {
      file.write(out);
      out.clear();
    }
  }
  file.write(compressed_for(path, std::move(out)));
  if (file.commit()) return 0;
  log.xpmlog(message::file_not_written{.file = path, .reason = file.problem()});
  return -1;
}

} // namespace torvale::host
