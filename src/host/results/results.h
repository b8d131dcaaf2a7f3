#pragma once
#include "host/messages/messages.h"
#include "host/results/table.h"
#include <deque>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace torvale::host {

using ByValues = std::vector<std::pair<std::string, Cell>>; // BY variable and its value, in the order of the statement

std::string by_text(const ByValues& by); // "study=1 arm=a"

// One picture of a fit: SVG without a style of its own.
struct Figure {
  std::string name;    // "residuals": part of file names and of ids
  std::string title;   // "Residuals"
  std::string caption; // how to read it
  std::string svg;
};

// What a fit has come to, beside its tables: for the keys of the results and the head of the report.
struct FitSummary {
  enum class Standing { good, caution, bad };
  bool present = false;          // a fit was tried
  std::optional<bool> converged; // nothing: nothing was optimized
  Standing standing = Standing::good;
  std::string headline;                                      // one sentence
  std::vector<std::pair<std::string, std::string>> findings; // rows of table "FitVerdict"
  std::vector<std::pair<std::string, Cell>> figures;         // "aic" and the like, by key of the results
  std::vector<std::string> parameters;
  std::vector<double> start, estimates; // by parameter
  std::vector<double> covariance;       // packed lower triangle; empty when there is none
};

// Where the observations came from.
struct DataSource {
  std::string name; // "work.theoph"; empty when no data set was opened
  std::string path; // file; empty in memory
  std::size_t rows = 0;
  std::size_t variables = 0;
  std::string sha256; // of the file's bytes, when wanted and it is a file
};

// What one BY group gave. Without a BY statement there is one group, with no values.
struct GroupResult {
  ByValues by;
  int return_code = 0;
  std::deque<Table> tables; // in the order opened; a deque, so that open tables stay where they are
  FitSummary fit;
  std::vector<Figure> pictures; // when wanted
};

struct DataSetResult {
  std::string name; // "work.pred"
  std::string path; // file, as written to the results
  std::size_t rows = 0;
};

// Text that a step lists: statements, code, derivatives.
struct ProgramListing {
  std::string title;
  std::string text; // lines with their ends
};

// What one step (one TORVALE statement to its RUN) gave.
struct StepResult {
  int return_code = 0;
  std::vector<Message> messages;
  std::deque<GroupResult> groups;
  std::vector<ProgramListing> listings;
  std::vector<DataSetResult> data_sets;
  DataSource data;
  std::optional<long> seed; // in use
};

struct RunResults {
  std::string version;
  std::string program; // file name of the program, without folders
  std::string source;  // its text
  std::deque<StepResult> steps;
};

// The results as JSON. Numbers read back as the same double.
std::string results_json(const RunResults& results);

// The messages as diagnostics of a program, in the form that language servers give: an object with "uri" and
// "diagnostics", each with range (lines and characters from 0), severity (1 error, 2 warning, 3 note), code, source and
// message. Messages without a place stand at the beginning.
std::string diagnostics_json(const RunResults& results, std::string_view file, std::string_view program);

} // namespace torvale::host
