// The command line. Reading it is all that happens here; the commands do the work.

#include "host/data/data_set_options.h"
#include "host/storage/run_output.h"
#include "host/values/text.h"
#include "run/session.h"
#include "torvale/commands.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <new>
#include <optional>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// NAME=PATH, repeated.
std::optional<Pairs> split(const std::vector<std::string>& bindings, const char* option)
{
  Pairs pairs;
  for (const std::string& binding : bindings) {
    const auto at = binding.find('=');
    if (at == std::string::npos || at == 0 || at + 1 == binding.size()) {
      std::fprintf(stderr, "torvale: %s takes NAME=PATH, found \"%s\"\n", option, binding.c_str());
      return std::nullopt;
    }
    pairs.emplace_back(binding.substr(0, at), binding.substr(at + 1));
  }
  return pairs;
}

// Tells of the first option that a command does not know, and which one was likely meant; false when there is none.
bool tell_unknown_option(const CLI::App& app, const CLI::App& command)
{
  std::vector<std::string> known;
  for (const CLI::Option* option : command.get_options())
    for (const std::string& name : option->get_lnames()) known.push_back("--" + name);
  for (const std::string& word : app.remaining(true)) {
    if (!word.starts_with("--")) continue;
    const std::string near = torvale::host::nearest_name(word.substr(0, word.find('=')), known);
    std::fprintf(stderr, "torvale: %s has no option %s%s\n", command.get_name().c_str(), word.c_str(),
                 near.empty() ? "" : ("; did you mean " + near + "?").c_str());
    return true;
  }
  return false;
}

// What the command line may say, and what it said. The options write into the members, so that it stays where it is.
struct CommandLine {
  CLI::App app{"Torvale fits nonlinear mixed models by maximum likelihood."};
  CLI::App *run = nullptr, *check = nullptr, *describe = nullptr, *explain = nullptr;
  torvale::app::RunArguments arguments;
  std::vector<std::string> data, libraries;
  std::string described, code, separator;

  CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

private:
  void add_shared_options(CLI::App* command);
  void add_run_options();
};

CommandLine::CommandLine()
{
  app.require_subcommand(1);
  app.footer(
      "Exit codes: 0 clean, or with warnings; 1 internal fault, memory, or a file that could not be written; 2 wrong\n"
      "command line; 3 wrong program; 4 data; 5 a fit did not converge; 6 converged, but the covariance of the\n"
      "estimates, or of some of them, is missing; 7 the objective has no value at any start; 130 interrupted.");
  app.set_version_flag("--version", "torvale " + std::string(torvale::version()));

  run = app.add_subcommand("run", "run every step of a program");
  add_shared_options(run);
  add_run_options();
  check = app.add_subcommand("check", "parse and compile only: report every error and warning");
  add_shared_options(check);
  check->add_flag("--statements", arguments.statements, "list the statement records by slot and flag");
  check
      ->add_option("--format", arguments.format,
                   "text, or json: diagnostics with ranges on standard output, for editors")
      ->check(CLI::IsMember({"text", "json"}));
  describe = app.add_subcommand("describe", "variables, types, rows and missing values of a data set");
  describe->add_option("DATA", described, "a file, or a name of a library given by --library")->required();
  describe->add_option("--library", libraries, "NAME=PATH")->type_size(1)->allow_extra_args(false);
  describe->add_option("--separator", separator, "what separates the columns: one character or tab");
  explain = app.add_subcommand("explain", "what a message means and what to try");
  explain->add_option("CODE", code, "as 503/72")->required();
}

void CommandLine::add_shared_options(CLI::App* command)
{
  command->add_option("PROGRAM", arguments.program, "program file; - for standard input")->required();
  command->add_option("--data", data, "NAME=PATH: bind a one-level data set name to a file")
      ->type_size(1)
      ->allow_extra_args(false);
  command->add_option("--library", libraries, "NAME=PATH: a folder of CSV files or an SQLite file")
      ->type_size(1)
      ->allow_extra_args(false);
  command->add_option("--separator", separator, "what separates the columns of text files: one character or tab");
  command->add_option("--json", arguments.output.json, "results as JSON; - for standard output");
  command->add_option("--log", arguments.output.log, "log to a file instead of standard error");
  command->add_flag("--no-color", arguments.output.no_color, "plain text");
}

void CommandLine::add_run_options()
{
  run->add_option("--out", arguments.output.out, "one folder for listing, log, results and output data sets");
  run->add_option("--html", arguments.output.html, "the report");
  run->add_option("--list", arguments.output.list, "listing to a file instead of standard output");
  run->add_option("--figures", arguments.output.figures, "a folder for the report's pictures as SVG files");
  run->add_option("--tables", arguments.output.tables,
                  "every output table: a folder of CSV files, or an SQLite file (.db, .sqlite) or library");
  run->add_option("--threads", arguments.threads,
                  "worker threads when the program does not say: 0 serial, -1 all cores")
      ->check(CLI::Range(-1, 1024));
  run->add_option("--seed", arguments.seed, "seed when the program does not say")->check(CLI::Range(0L, 2147483646L));
  run->add_option("--memory", arguments.memory,
                  "memory that data may take, as 500MB or 4GB; all that is free without it")
      ->transform(CLI::AsSizeValue(true));
  run->add_flag("--strict", arguments.strict, "names that would become parameters without being in PARMS are errors");
  run->add_flag("--quiet", arguments.output.quiet, "no listing on standard output");
  run->add_flag("--timing", arguments.output.timing, "seconds and evaluations of every stage, on standard error");
}

// Says what is wrong with the command line in words that help; the exit code.
int tell_parse_error(const CLI::App& app, const CLI::ParseError& error, const std::string& first)
{
  const auto commands = app.get_subcommands([&](const CLI::App* command) { return command->get_name() == first; });
  if (first[0] != '-' && commands.empty()) {
    std::fprintf(stderr, "torvale: there is no command %s; there are run, check, describe and explain\n",
                 first.c_str());
    return 2;
  }
  const bool extras = dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr;
  if (extras && !commands.empty() && tell_unknown_option(app, *commands[0])) return 2;
  return app.exit(error) == 0 ? 0 : 2;
}

// The command that was asked for; its exit code.
int run_chosen(CommandLine& line)
{
  torvale::app::RunArguments& arguments = line.arguments;
  const auto data = split(line.data, "--data");
  const auto libraries = split(line.libraries, "--library");
  if (!data || !libraries) return 2;
  if (!line.separator.empty() && !torvale::host::parse_separator(line.separator, arguments.separator)) {
    std::fprintf(stderr, "torvale: --separator takes one character or tab, found \"%s\"\n", line.separator.c_str());
    return 2;
  }
  arguments.data = *data;
  arguments.libraries = *libraries;
  if (*line.describe) return torvale::app::describe_command(line.described, *libraries, arguments.separator);
  if (*line.explain) return torvale::app::explain_command(line.code);
  arguments.check_only = static_cast<bool>(*line.check);
  return torvale::app::run_command(arguments);
}

} // namespace

int main(int argc, char** argv)
{
  torvale::host::ensure_standard_streams();
  try {
    CommandLine line;
    try {
      line.app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
      return tell_parse_error(line.app, error, argc > 1 ? argv[1] : "-");
    }
    return run_chosen(line);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "torvale: there is not enough memory\n");
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "torvale: internal fault: %s\n", fault.what());
  }
  return 1;
}
