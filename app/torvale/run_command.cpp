#include "torvale/commands.h"

#include "host/run_output.h"
#include "host/table_writers.h"
#include "torvale/torvale.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>

namespace torvale::app {

namespace {

Session* running = nullptr; // the session that a signal interrupts; set for the length of a run

extern "C" void on_interrupt(int)
{
  if (running != nullptr) running->interrupt();
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

void write_standard(std::FILE* stream, std::string_view text)
{
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

// A listing or log that goes to a file in place of its stream; complete files replace older ones.
class Channel {
public:
  // path empty: the stream, unless silent.
  Channel(std::string path, std::FILE* stream, bool silent) : stream_(stream), silent_(silent)
  {
    if (!path.empty()) file_ = std::make_unique<host::AtomicFile>(path);
  }
  void write(std::string_view text)
  {
    if (file_) file_->write(text);
    else if (!silent_) write_standard(stream_, text);
  }
  bool close(std::string& problem)
  {
    if (!file_ || file_->commit()) return true;
    problem = file_->problem();
    return false;
  }

private:
  std::FILE* stream_;
  bool silent_;
  std::unique_ptr<host::AtomicFile> file_;
};

std::string colored(std::string_view line)
{
  const char* color = line.starts_with("ERROR") ? "\x1b[31m" : line.starts_with("WARNING") ? "\x1b[33m" : nullptr;
  if (color == nullptr) return std::string(line);
  const bool ends = line.ends_with('\n');
  return color + std::string(line.substr(0, line.size() - (ends ? 1 : 0))) + "\x1b[0m" + (ends ? "\n" : "");
}

} // namespace

int run_command(const RunArguments& arguments)
{
  namespace fs = std::filesystem;
  std::string text, problem;
  if (!read_program(arguments.program, text, problem)) return complain("cannot read the program", arguments.program, problem, 2);

  Output output = arguments.output;
  const fs::path program = arguments.program;
  const std::string stem = arguments.program == "-" ? "program" : program.stem().string();
  if (!output.out.empty()) {
    if (!host::make_folder(output.out, problem)) return complain("cannot make the folder", output.out, problem, 1);
    const fs::path out = output.out;
    if (output.list.empty()) output.list = (out / (stem + ".lst")).string();
    if (output.log.empty()) output.log = (out / (stem + ".log")).string();
    if (output.json.empty()) output.json = (out / "results.json").string();
    if (output.html.empty()) output.html = (out / "report.html").string();
  }

  const bool color = !output.no_color && std::getenv("NO_COLOR") == nullptr && output.log.empty() && host::is_terminal(2);
  Channel listing(output.list, stdout, output.quiet || output.json == "-");
  Channel log(output.log, stderr, false);

  RunSettings settings;
  settings.program_name = arguments.program == "-" ? "standard input" : program.filename().string();
  settings.program_folder = arguments.program == "-" || !program.has_parent_path() ? "." : program.parent_path().string();
  settings.output_folder = output.out.empty() ? "." : output.out;
  settings.data = arguments.data;
  settings.libraries = arguments.libraries;
  settings.threads = arguments.threads;
  settings.seed = arguments.seed;
  settings.check_only = arguments.check_only;
  settings.listing = [&](std::string_view s) { listing.write(s); };
  settings.log = [&](std::string_view s) { log.write(color ? colored(s) : std::string(s)); };
  if (host::is_terminal(2) && output.log.empty())
    settings.progress = [](std::string_view s) {
      write_standard(stderr, s.empty() ? "\r\x1b[K" : "\r\x1b[K" + std::string(s));
    };

  RunOutcome outcome;
  {
    Session session(std::move(settings));
    running = &session;
    std::signal(SIGINT, on_interrupt);
    std::signal(SIGTERM, on_interrupt);
    outcome = session.run(std::move(text));
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    running = nullptr;
  }

  int exit_code = outcome.exit_code;
  const auto save = [&](const std::string& path, const std::string& bytes) {
    if (path.empty()) return;
    if (path == "-") return write_standard(stdout, bytes);
    host::AtomicFile file(path);
    file.write(bytes);
    if (!file.commit()) exit_code = complain("cannot write", path, file.problem(), 1);
  };
  if (arguments.statements)
    for (const std::string& s : outcome.statements) listing.write(s);
  save(output.json, output.json.empty() ? std::string() : host::results_json(outcome.results));
  save(output.html, output.html.empty() ? std::string() : host::results_html(outcome.results));
  if (!listing.close(problem)) exit_code = complain("cannot write", output.list, problem, 1);
  if (!log.close(problem)) exit_code = complain("cannot write", output.log, problem, 1);
  return exit_code;
}

} // namespace torvale::app
