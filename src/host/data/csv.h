#pragma once
#include "host/data/data_set.h"
#include "host/messages/messages.h"
#include <map>
#include <optional>
#include <string>
#include <vector>

// Text files with columns: RFC 4180 quotes, the first row names, LF, CRLF or CR, an optional byte order mark. Plain,
// .gz or .zst by the bytes of the file, not its name.
namespace torvale::host {

using ColumnKinds = std::map<std::string, ColumnKind>; // lower-case column name -> kind that is asked for

// How a data set is read. Separator and decimal sign concern text files. The separator is found from the line of names:
// the one of comma, semicolon, tab and bar that occurs most outside quotes, or what a first line "sep=;" says. With
// semicolons numbers may have decimal commas.
struct ReadOptions {
  ColumnKinds kinds{};
  char separator = 0;                 // 0: found
  char decimal = 0;                   // '.' or ','; 0: points, with semicolons also commas
  std::vector<std::string> missing{}; // spellings of missing values beside those of is_missing_code
  int threads = 1;                    // workers; the result does not depend on them
  RowMemory memory{};                 // where the columns lie
  std::uint64_t most_memory = 0;      // bytes: a file that needs more is refused before it is read; 0: no limit
};

// NA, NaN, N/A, null and -, in either case: missing in a column whose other fields are numbers, dates or times.
bool is_missing_code(std::string_view field);

// Reads a whole file. Kinds come from the whole column: numeric when every field that is not missing is a number, or
// every one spells the same kind of date or time (which gives the column its format); else characters, without blanks
// around them unless quotes keep those before. Notes are posted for missing codes, for columns that one spelling alone
// makes characters, and for numbers with leading zeros. Nothing, with an error that names file, line and column, when
// the file cannot be read or is not rectangular.
std::optional<DataSet> read_csv(const std::string& path, MessageSink& log, const ReadOptions& options = {});

// The same for a text in memory; `name` stands for the file in messages.
std::optional<DataSet> read_csv_text(std::string_view text, const std::string& name, MessageSink& log,
                                     const ReadOptions& options = {});

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
