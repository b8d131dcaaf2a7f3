#pragma once
#include "host/data_set.h"
#include "host/messages.h"
#include <map>
#include <optional>
#include <string>

// CSV: RFC 4180 quotes, commas, the first row names, LF or CRLF, an optional byte order mark. Plain, .gz or .zst by the
// bytes of the file, not its name.
namespace torvale::host {

using ColumnKinds = std::map<std::string, ColumnKind>; // lower-case column name -> kind that is asked for

// Reads a whole file. Kinds are inferred from the whole column: numeric when every field that is not missing is a
// number. Notes are posted for columns that one spelling alone makes characters, and for numbers with leading zeros.
// Nothing, with an error that names file, line and column, when the file cannot be read or is not rectangular.
std::optional<DataSet> read_csv(const std::string& path, MessageSink& log, const ColumnKinds& kinds = {});

// The same for a text in memory; `name` stands for the file in messages.
std::optional<DataSet> read_csv_text(std::string_view text, const std::string& name, MessageSink& log,
                                     const ColumnKinds& kinds = {});

// One field of a file: quoted when it has to be.
void append_csv_field(std::string& out, std::string_view field);
// One value: numbers shortest, or in ISO form when `moment` says so; missing ones "." for the ordinary and ".A" for the
// special ones in a file with one column, else the ordinary one empty.
void append_csv_cell(std::string& out, const Column& column, std::size_t row, bool only_column,
                     Moment moment = Moment::none);

// Writes a data set; the file at `path` is replaced only when the new one is complete. A path ending in .gz or .zst is
// compressed. 0, or -1 with a message.
int write_csv(const DataSet& data, const std::string& path, MessageSink& log);

} // namespace torvale::host
