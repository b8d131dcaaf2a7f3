#pragma once
#include "host/data/by_groups.h"
#include "host/data/csv.h"
#include "host/data/data_set.h"
#include "host/data/libraries.h"
#include "host/host_exit.h"
#include "host/messages/messages.h"
#include "host/results/results.h"
#include "host/results/stage_clock.h"
#include "host/results/table.h"
#include "host/storage/pool.h"
#include "host/storage/utility_file.h"
#include "host/values/missing.h"
#include "host/values/text.h"
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace torvale::host {

// What the run is doing now. Fields that do not apply stay as they are.
struct Progress {
  std::string_view stage;     // "reading data", "optimization"
  long iteration = -1;        // of the optimizer
  double objective = missing; // at its last accepted point
  double gradient = missing;  // largest scaled element there
  double share = missing;     // of work that takes long: what is done of it, 0 to 1
};

// Everything the rest of the program may ask of the world around it: log, listing, tables, data sets, clock, threads.
// Used from the main thread, but for interrupted().
class Host {
public:
  virtual ~Host() = default;

  virtual MessageLog& log() = 0;
  virtual TableSink& tables() = 0;
  virtual Libraries& libraries() = 0;
  virtual const RunResults& results() const = 0;

  // The course of a run, as the driver tells it. Tables published before the first group of a step go to that group.
  virtual void begin_step() = 0;
  virtual StepResult& step() = 0;   // the step at hand, for what is no table
  virtual GroupResult& group() = 0; // the group at hand
  virtual void begin_group(ByValues by) = 0;
  virtual void end_group(int return_code) = 0;
  // Writes out open data sets and tables first; of a step that failed, only data sets that have rows.
  virtual void end_step(int return_code, bool failed) = 0;

  // xpsout: a raw line for the listing; not part of the results.
  virtual void xpsout(std::string_view line) = 0;

  // Text with a title for the listing, kept in the results of the step.
  virtual void list_program(std::string title, std::string text) = 0;

  // xpfput: a line for a text file that the program itself writes (a path; a relative one begins at the output folder).
  // With `append` behind what it held before the run. A file is made once in a run and is complete when a step ends.
  virtual void xpfput(std::string_view file, std::string_view line, bool append) = 0;

  // Tells a terminal what the run is doing; drawn from the first tenth of a second on, ten times a second at most, and
  // gone before anything else is written. Cheap to call (a look at the clock); main thread only.
  virtual void progress(const Progress& now) = 0;
  virtual bool shows_progress() const = 0; // somebody looks: else do not call it from inner loops

  StageClock& stages() { return stages_; }

  virtual double seconds() const = 0;           // of a clock that only moves forward; for limits, never for results
  virtual std::uint32_t clock_seed() const = 0; // 1 to 2147483646, from the time of day
  virtual int cores() const = 0;                // at least 1
  virtual const std::string* option(std::string_view name) const = 0; // xoptcgt: host option; null when not set

  // xjsympn: set a macro variable of the host, as SYSRANDOM and SYSRANEND; later steps of the run may read it. Names
  // ignore case. macro_variable gives its text, null when it was never set.
  virtual void xjsympn(std::string_view name, std::string_view value) = 0;
  virtual const std::string* macro_variable(std::string_view name) const = 0;

  // Has somebody asked the run to stop? Safe from every thread and from a signal handler.
  bool interrupted() const { return interrupted_.load(std::memory_order_relaxed); }
  void interrupt() { interrupted_.store(true, std::memory_order_relaxed); }

private:
  std::atomic<bool> interrupted_{false};
  StageClock stages_;
};

// How the embedded host behaves. Paths that are empty are not written.
struct HostOptions {
  std::string version{}; // of Torvale, for the results
  std::string program{}; // file name of the program, for the results
  Libraries::Places places{};
  std::function<void(std::string_view)> listing{};            // takes text of the listing; empty: none
  std::function<void(std::string_view)> log{};                // takes lines of the log with their ends; empty: none
  std::function<void(std::string_view)> progress{};           // draws a line in place of the last one; empty: none
  std::vector<std::pair<std::string, std::string>> options{}; // host options by name, as "DEBUG"
};

std::unique_ptr<Host> make_host(HostOptions options);

} // namespace torvale::host
