#pragma once
// Torvale as a library: give it a program and data, get tables as typed objects. Nothing here prints or ends the
// process, and nothing of the library's inside shows. Objects own what they hold.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace torvale {

// Version of the library, "0.1.0".
std::string_view version();

// --- What a run gives ------------------------------------------------------------------------------------------------

// A cell of a table: a number (missing values are NaN), a count, or a text.
using Value = std::variant<double, long long, std::string>;

struct TableColumn {
  std::string name;  // "Estimate"
  std::string label; // heading; may be empty
};

struct Table {
  std::string name;  // "ParameterEstimates"
  std::string label; // "Parameter Estimates"
  std::vector<TableColumn> columns;
  std::vector<std::vector<Value>> rows; // full precision; as many cells as columns

  // Index of a column by name (case does not matter); nothing when there is none.
  std::optional<std::size_t> column(std::string_view column_name) const;
  // A cell as a number; NaN for a text and for what is missing. Row and column must exist.
  double number(std::size_t row, std::string_view column_name) const;
  // The same as a text.
  std::string text(std::size_t row, std::string_view column_name) const;
};

enum class Severity { note, warning, error };

struct Message {
  int group = 0; // message 503/72: group 503, number 72
  int number = 0;
  Severity severity = Severity::note;
  std::string text; // with its place
  int by = -1;      // number of its BY group from 0; -1 outside
};

// One BY group, or the whole data without BY.
struct Group {
  std::vector<std::pair<std::string, Value>> by; // BY variables and their values
  int return_code = 0;
  std::vector<Table> tables; // in the order written

  const Table* table(std::string_view name) const; // null when there is none
};

struct OutputFile {
  std::string name; // of the data set, "work.pred"
  std::string path;
  std::size_t rows = 0;
};

// One TORVALE step.
struct Step {
  int return_code = 0;
  std::vector<Message> messages;
  std::vector<Group> groups;
  std::vector<OutputFile> data_sets;
};

struct Results {
  int exit_code = 0; // as the command line's: 0 clean, 3 program, 4 data, 5 not converged, ...
  std::vector<Step> steps;
  std::string json; // all of it, as `torvale run --json` writes it
};

// --- A run -----------------------------------------------------------------------------------------------------------

// Columns in memory, as a data set of the program. The values are copied when the run is given them; NaN and empty
// texts are missing. All columns must have the same length, and names differ.
class Data {
public:
  Data& add(std::string name, std::span<const double> values);
  Data& add(std::string name, std::span<const std::string> values);

private:
  friend class Run;
  struct Column {
    std::string name;
    std::vector<double> numbers;
    std::vector<std::string> texts;
    bool character = false;
  };
  std::vector<Column> columns_;
};

struct Settings {
  std::string program_name = "program.tvl"; // for messages and results
  std::string program_folder = ".";         // one-level data set names and relative paths are looked for here
  std::string output_folder = ".";          // output data sets are written here
  int threads = 0;                          // workers when the program does not say: 0 serial, negative all cores
  unsigned long long memory = 0;            // bytes that data may take; 0: what is free
  long seed = 0;                            // seed when the program does not say; 0 the clock
  bool check_only = false;                  // parse and compile, fit nothing
  bool strict = false;                      // names that would become parameters without being in PARMS are errors
  // Callbacks; any may be empty. Called on the thread that calls run().
  std::function<void(std::string_view)> listing;  // text of the listing as it grows
  std::function<void(std::string_view)> log;      // lines of the log, with their ends
  std::function<void(std::string_view)> progress; // what the run is doing now
  std::function<bool()> interrupted;              // true asks the run to stop; asked along with progress
};

// Run: one run of one program. interrupt() may come from another thread or from a signal handler; what was finished by
// then is in the results.
class Run {
public:
  explicit Run(Settings settings = {});
  ~Run();
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  void bind_data(const std::string& name, const std::string& path);    // one-level name -> file
  void bind_library(const std::string& name, const std::string& path); // library -> folder or SQLite file
  // One-level name -> columns in memory. Throws std::invalid_argument when columns differ in length or share a name.
  void bind_data(const std::string& name, const Data& data);

  Results run(const std::string& program); // every step of the program; once per object
  void interrupt();

private:
  struct State;
  std::unique_ptr<State> state_;
};

// What `torvale explain CODE` prints, as explain("503/72"); empty when there is no such message.
std::string explain(std::string_view code);

} // namespace torvale
