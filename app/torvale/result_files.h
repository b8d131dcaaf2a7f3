#pragma once
// Results as many files: --figures and --tables.

#include "host/results/results.h"

#include <string>
#include <utility>
#include <vector>

namespace torvale::app {

// All output tables of one name as one table: a column Step where several steps wrote it, the BY columns, then the
// union of its columns, in the order in which the names first appear.
std::vector<host::Table> combined_tables(const host::RunResults& results);

// Writes every picture as DIR/NAME.svg; with several steps or groups as DIR/step1-group2-NAME.svg. False with the
// problem.
bool write_figures(const host::RunResults& results, const std::string& folder, std::string& problem);

// Writes every combined table: a folder of CSV files, or tables of an SQLite file, when `target` is one, ends like one
// (.db, .sqlite, .sqlite3), or names a library that is one. False with the problem.
bool write_tables(const host::RunResults& results, const std::string& target,
                  const std::vector<std::pair<std::string, std::string>>& libraries, std::string& problem);

} // namespace torvale::app
