#pragma once
#include "host/messages.h"
#include "host/table.h"
#include <deque>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace torvale::host {

using ByValues = std::vector<std::pair<std::string, Cell>>; // BY variable and its value, in the order of the statement

std::string by_text(const ByValues& by); // "study=1 arm=a"

// What one BY group gave. Without a BY statement there is one group, with no values.
struct GroupResult {
  ByValues by;
  int return_code = 0;
  std::deque<Table> tables; // in the order opened; a deque, so that open tables stay where they are
};

struct DataSetResult {
  std::string name; // "work.pred"
  std::string path; // file, as written to the results
  std::size_t rows = 0;
};

// What one step (one TORVALE statement to its RUN) gave.
struct StepResult {
  int return_code = 0;
  std::vector<Message> messages;
  std::deque<GroupResult> groups;
  std::vector<DataSetResult> data_sets;
};

struct RunResults {
  std::string version;
  std::string program; // file name of the program, without folders
  std::deque<StepResult> steps;
};

// The results as JSON. Numbers read back as the same double.
std::string results_json(const RunResults& results);

// The messages as diagnostics of a program, in the form that language servers give: an object with "uri" and
// "diagnostics", each with range (lines and characters from 0), severity (1 error, 2 warning, 3 note), code, source and
// message. Messages without a place stand at the beginning.
std::string diagnostics_json(const RunResults& results, std::string_view file, std::string_view program);

// The whole run as one HTML page without outside references.
std::string results_html(const RunResults& results);

} // namespace torvale::host
