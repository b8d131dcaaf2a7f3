#pragma once
// The commands of the torvale program. Each returns the exit code of the process.

#include <string>
#include <utility>
#include <vector>

namespace torvale::app {

struct Output {
  std::string out;       // --out: one folder for everything
  std::string json;      // --json: a file, or - for standard output
  std::string html;      // --html
  std::string list;      // --list
  std::string log;       // --log
  std::string figures;   // --figures: a folder of SVG files
  std::string tables;    // --tables: a folder of CSV files, or an SQLite file
  bool quiet = false;    // --quiet: no listing on standard output
  bool no_color = false; // --no-color
  bool timing = false;   // --timing: where the time went, to standard error
};

struct RunArguments {
  std::string program; // path, or - for standard input
  std::vector<std::pair<std::string, std::string>> data;
  std::vector<std::pair<std::string, std::string>> libraries;
  Output output;
  char separator = 0; // --separator; 0: found from the file
  int threads = 0;
  long seed = 0;
  std::uint64_t memory = 0; // bytes; 0: what is free
  bool strict = false;
  bool check_only = false;
  bool statements = false; // check: print the statement records
  std::string format;      // check: "json" prints diagnostics for editors instead of the log
};

// run and check.
int run_command(const RunArguments& arguments);
// describe: variables, types, rows, missing values of a data set.
int describe_command(const std::string& data, const std::vector<std::pair<std::string, std::string>>& libraries,
                     char separator);
// explain: a message's meaning, causes and remedies.
int explain_command(const std::string& code);

} // namespace torvale::app
