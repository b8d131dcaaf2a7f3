#pragma once
#include "host/data/csv.h"
#include "host/data/data_set.h"
#include "host/messages/messages.h"
#include <optional>
#include <string>
#include <vector>

// Tables of SQLite database files as data sets.
namespace torvale::host {

bool is_sqlite_file(const std::string& path); // by the first bytes; an empty or missing file is none

// Names of the tables and views, sorted. Empty when the file cannot be read.
std::vector<std::string> sqlite_tables(const std::string& path);

// Reads a table or view. A column is numeric when every value in it is a number or NULL; texts that spell a missing
// value count as missing. Nothing, with a message, when it cannot be read.
std::optional<DataSet> read_sqlite(const std::string& path, const std::string& table, MessageSink& log,
                                   const ReadOptions& options = {});

// Writes a table in one transaction, over one of the same name. 0, or -1 with a message; the old table is then still
// there.
int write_sqlite(const DataSet& data, const std::string& path, const std::string& table, MessageSink& log);

} // namespace torvale::host
