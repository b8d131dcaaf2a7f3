#pragma once
// A run of one program with the embedded host, for the command line and the tests; the library's public interface
// (include/torvale/torvale.h) is a shell of it.

#include "host/data/libraries.h"
#include "host/results/results.h"
#include "host/results/stage_clock.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace torvale {

// Version of the library, "0.1.0".
std::string_view version();

struct RunSettings {
  std::string program_name = "program.tvl"; // for messages and results
  std::string program_folder = ".";         // one-level data set names and relative paths are looked for here
  std::string output_folder = ".";          // output data sets are written here
  std::vector<std::pair<std::string, std::string>> data;      // one-level data set name, file
  std::vector<std::pair<std::string, std::string>> libraries; // library name, folder or SQLite file
  char separator = 0;                                         // of text files; 0: found from their names
  std::uint64_t memory = 0;                                   // bytes that data may take; 0: what is free
  int threads = 0;                    // workers when the program does not say: 0 serial, negative all cores
  long seed = 0;                      // seed when the program does not say; 0 the clock
  bool check_only = false;            // parse and compile, fit nothing
  bool hash_data = false;             // tell the SHA-256 of the input file (DataSource::sha256)
  bool pictures = false;              // draw pictures of every fit (GroupResult::pictures)
  bool strict = false;                // names that would become parameters without being in PARMS are errors
  std::vector<std::string> own_files; // files that the caller writes or reads beside the run: never replaced
  // Hooks; any may be empty. Called on the thread that calls run().
  std::function<void(std::string_view)> listing;  // text of the listing as it grows
  std::function<void(std::string_view)> log;      // lines of the log, with their ends
  std::function<void(std::string_view)> progress; // what the run is doing now
};

// RunOutcome: everything a program gave.
struct RunOutcome {
  int exit_code = 0;                   // as the command line's
  host::RunResults results;            // steps, groups, tables, messages, data sets
  std::vector<std::string> statements; // per step, with check_only: the statement records by slot and flag
  host::StageTimes times{};            // where the time went
};

// Session: one run. A second thread (or a signal handler) may interrupt it; what was finished is in the outcome.
class Session {
public:
  explicit Session(RunSettings settings);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Runs every step of the program text. Once per session.
  RunOutcome run(std::string program);
  // Reads a data set by name as a program would, for `describe`. Null, with messages on the log hook, when it cannot be
  // read.
  std::shared_ptr<const host::DataSet> data_set(const std::string& name, bool is_path);
  void interrupt();
  host::Libraries& libraries(); // names of data sets; bind before run()

private:
  struct State;
  std::unique_ptr<State> state_;
};

// What `torvale explain CODE` prints; empty when there is no such message.
std::string explain(std::string_view code);

} // namespace torvale
