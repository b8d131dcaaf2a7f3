#include "torvale/commands.h"
#include "torvale/result_files.h"

#include "host/storage/run_output.h"
#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include "report/page.h"
#include "run/session.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <unistd.h>

namespace torvale::app {

namespace {

Session* running = nullptr; // the session that a signal interrupts; set for the length of a run

// The first signal asks the run to end after what it is doing, and says so at once; the next one ends the process.
extern "C" void on_interrupt(int signal)
{
  if (running != nullptr) running->interrupt();
  static constexpr char words[] = "\r\x1b[Ktorvale: stopping after this batch; once more ends at once\n";
  static constexpr std::size_t control = 4; // what only a terminal understands
  const std::size_t from = host::is_terminal(2) ? 0 : control;
  [[maybe_unused]] const auto written = ::write(2, words + from, sizeof words - 1 - from);
  std::signal(signal, SIG_DFL);
}

int complain(const std::string& what, const std::string& path, const std::string& problem, int exit_code)
{
  std::fprintf(stderr, "torvale: %s %s: %s\n", what.c_str(), path.c_str(), problem.c_str());
  return exit_code;
}

bool read_program(const std::string& path, std::string& text, std::string& problem)
{
  if (path != "-") return host::read_file(path, text, problem);
  text.assign(std::istreambuf_iterator<char>(std::cin), {});
  return true;
}

// One kind of output: a file, which replaces an older one when it is complete, or a stream, or nothing.
class Channel {
public:
  // path "-": standard output; empty: `otherwise`, null for nothing.
  Channel(std::string path, std::FILE* otherwise)
      : path_(std::move(path)), stream_(path_.empty()  ? otherwise
                                        : path_ == "-" ? stdout
                                                       : nullptr)
  {
    if (!path_.empty() && stream_ == nullptr) file_ = std::make_unique<host::AtomicFile>(path_);
  }
  bool wanted() const { return file_ != nullptr || stream_ != nullptr; }
  void write(std::string_view text)
  {
    if (file_ != nullptr) return file_->write(text);
    if (stream_ == nullptr) return;
    const bool written = std::fwrite(text.data(), 1, text.size(), stream_) == text.size() && std::fflush(stream_) == 0;
    if (!written && stream_problem_.empty()) stream_problem_ = std::strerror(errno);
  }
  // Whether all went well so far; complaints go to standard error.
  bool usable() const { return report(file_ != nullptr && !file_->ok() ? file_->problem() : stream_problem_); }
  bool close() const { return report(file_ != nullptr && !file_->commit() ? file_->problem() : stream_problem_); }

private:
  bool report(const std::string& problem) const
  {
    if (!problem.empty())
      complain("cannot write", path_.empty() || path_ == "-" ? "the standard streams" : path_, problem, 1);
    return problem.empty();
  }

  std::string path_;
  std::FILE* stream_;
  std::string stream_problem_; // what failed first
  std::unique_ptr<host::AtomicFile> file_;
};

bool no_color_wanted()
{
  const char* set = std::getenv("NO_COLOR");
  return set != nullptr && *set != '\0';
}

std::string colored(std::string_view line)
{
  const char* color = line.starts_with("ERROR") ? "\x1b[31m" : line.starts_with("WARNING") ? "\x1b[33m" : nullptr;
  if (color == nullptr) return std::string(line);
  const bool ends = line.ends_with('\n');
  return color + std::string(line.substr(0, line.size() - (ends ? 1 : 0))) + "\x1b[0m" + (ends ? "\n" : "");
}

// Processor time of this process until now: what its start took.
double processor_seconds()
{
  std::timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// When the run was and how long it took: in a file of its own, so that all others have the same bytes each time.
bool write_run_times(const std::string& folder, std::chrono::system_clock::time_point started,
                     const std::string& stages, std::string& problem)
{
  const std::time_t at = std::chrono::system_clock::to_time_t(started);
  const double seconds = std::chrono::duration<double>(std::chrono::system_clock::now() - started).count();
  std::tm utc{};
  gmtime_r(&at, &utc);
  char date[40], text[120];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%SZ", &utc);
  std::snprintf(text, sizeof text, "started %s\nseconds %.3f\n", date, seconds);
  return host::write_file((std::filesystem::path(folder) / "run_times.txt").string(), text + stages, problem);
}

// The files of `--out` that the command line does not name otherwise.
void name_outputs(Output& output, const std::string& stem)
{
  const std::filesystem::path out = output.out;
  if (output.list.empty()) output.list = (out / (stem + ".lst")).string();
  if (output.log.empty()) output.log = (out / (stem + ".log")).string();
  if (output.json.empty()) output.json = (out / "results.json").string();
  if (output.html.empty()) output.html = (out / "report.html").string();
}

// What the session is told, but for its callbacks. `folder`: the program is a file that has one.
RunSettings settings_of(const RunArguments& arguments, const Output& output, bool folder)
{
  const std::filesystem::path program = arguments.program;
  RunSettings settings;
  settings.program_name = arguments.program == "-" ? "standard input" : program.filename().string();
  settings.program_folder = !folder || !program.has_parent_path() ? "." : program.parent_path().string();
  settings.output_folder = output.out.empty() ? "." : output.out;
  settings.data = arguments.data;
  settings.libraries = arguments.libraries;
  settings.separator = arguments.separator;
  settings.threads = arguments.threads;
  settings.seed = arguments.seed;
  settings.check_only = arguments.check_only;
  settings.memory = arguments.memory;
  settings.pictures = !output.html.empty() || !output.figures.empty();
  settings.hash_data = !output.html.empty() || !output.json.empty();
  settings.strict = arguments.strict;
  for (const std::string& path : {arguments.program, output.list, output.log, output.json, output.html})
    if (!path.empty() && path != "-") settings.own_files.push_back(path);
  for (const auto& [name, path] : arguments.data) settings.own_files.push_back(path);
  return settings;
}

void show_progress(std::string_view s)
{
  const auto shown = host::cut_name(s, 79); // a longer line would wrap and stay
  std::fprintf(stderr, "\r\x1b[K%.*s", static_cast<int>(shown.size()), shown.data());
  std::fflush(stderr);
}

RunOutcome run_interruptibly(RunSettings settings, std::string text)
{
  // Never taken apart: the process ends soon, and what the session holds goes with it at once.
  static Session& session = *new Session(std::move(settings));
  running = &session;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, on_interrupt);
  RunOutcome outcome = session.run(std::move(text));
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, SIG_DFL);
  running = nullptr;
  return outcome;
}

// Pictures and tables as files of their own; false, with a complaint, when some could not be written.
bool write_folders(const RunArguments& arguments, const host::RunResults& results)
{
  const Output& output = arguments.output;
  std::string problem;
  bool complete = true;
  if (!output.figures.empty() && !write_figures(results, output.figures, problem))
    complete = complain("cannot write the pictures to", output.figures, problem, 0) != 0;
  if (!output.tables.empty() && !write_tables(results, output.tables, arguments.libraries, problem))
    complete = complain("cannot write the tables to", output.tables, problem, 0) != 0;
  return complete;
}

// What was before the session is loading of the process; what came after it, writing of results.
void add_times_outside(RunOutcome& outcome, double loaded, std::chrono::steady_clock::time_point entered)
{
  double session = 0.0;
  for (const host::StageTime& stage : outcome.times) session += stage.seconds;
  const double since = std::chrono::duration<double>(std::chrono::steady_clock::now() - entered).count();
  outcome.times[static_cast<std::size_t>(host::Stage::load)].seconds += loaded;
  outcome.times[static_cast<std::size_t>(host::Stage::report)].seconds += since - session;
}

} // namespace

int run_command(const RunArguments& arguments)
{
  namespace fs = std::filesystem;
  const double loaded = processor_seconds();
  const auto entered = std::chrono::steady_clock::now();
  std::string text, problem;
  if (!read_program(arguments.program, text, problem))
    return complain("cannot read the program", arguments.program, problem, 2);

  Output output = arguments.output;
  std::error_code error;
  const bool folder = arguments.program != "-" && fs::is_regular_file(arguments.program, error); // a pipe has none
  if (!output.out.empty()) {
    if (!host::make_folder(output.out, problem)) return complain("cannot make the folder", output.out, problem, 1);
    name_outputs(output, folder ? fs::path(arguments.program).stem().string() : "program");
  }

  // A file that cannot be written is found out before the fit, not after it.
  Channel listing(output.list, output.quiet || output.json == "-" ? nullptr : stdout);
  Channel log(output.log, stderr);
  Channel json(output.json, nullptr);
  Channel html(output.html, nullptr);
  for (const Channel* channel : {&listing, &log, &json, &html})
    if (!channel->usable()) return 1;
  const bool color = !output.no_color && !no_color_wanted() && output.log.empty() && host::is_terminal(2);

  RunSettings settings = settings_of(arguments, output, folder);
  if (listing.wanted()) settings.listing = [&](std::string_view s) { listing.write(s); }; // else nothing is formatted
  const bool for_editors = arguments.format == "json"; // then the diagnostics are the log
  if (!for_editors) settings.log = [&](std::string_view s) { log.write(color ? colored(s) : std::string(s)); };
  const std::string program_text = for_editors ? text : std::string();
  if (host::is_terminal(2)) settings.progress = show_progress;
  const auto started = std::chrono::system_clock::now();
  RunOutcome outcome = run_interruptibly(std::move(settings), std::move(text));

  if (arguments.statements)
    for (const std::string& s : outcome.statements) listing.write(s);
  if (for_editors) listing.write(host::diagnostics_json(outcome.results, arguments.program, program_text));
  if (json.wanted()) json.write(host::results_json(outcome.results));
  if (html.wanted()) html.write(report::report_page(outcome.results));
  bool complete = write_folders(arguments, outcome.results);
  for (const Channel* channel : {&listing, &log, &json, &html}) complete = channel->close() && complete;
  add_times_outside(outcome, loaded, entered);
  const std::string stages = host::stage_times_text(outcome.times);
  if (!output.out.empty() && !write_run_times(output.out, started, stages, problem))
    complete = complain("cannot write to", output.out, problem, 0) != 0;
  if (output.timing) std::fputs(stages.c_str(), stderr);
  return complete ? outcome.exit_code : 1;
}

} // namespace torvale::app
