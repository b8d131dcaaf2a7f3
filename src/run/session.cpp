#include "run/session.h"

#include "host/host.h"
#include "host/messages/names/fit.h"
#include "run/exit_codes.h"
#include "run/program_runner.h"

#include <algorithm>
#include <new>

namespace torvale {

std::string_view version()
{
  return TORVALE_VERSION;
}

struct Session::State {
  RunSettings settings;
  std::unique_ptr<host::Host> host;
};

Session::Session(RunSettings settings) : state_(std::make_unique<State>())
{
  host::HostOptions options;
  options.version = version();
  options.program = settings.program_name;
  options.places = {settings.program_folder, settings.output_folder};
  if (settings.strict) options.options.emplace_back("STRICT", "");
  for (const std::string& file : settings.own_files) options.options.emplace_back("KEEP", file);
  options.listing = settings.listing;
  options.log = settings.log;
  options.progress = settings.progress;
  state_->host = host::make_host(std::move(options));
  const int workers = settings.threads < 0 ? state_->host->cores() : settings.threads;
  state_->host->libraries().set_reading(settings.separator, std::max(workers, 1), settings.memory);
  if (settings.check_only) state_->host->libraries().write_nothing();
  for (const auto& [name, path] : settings.data) state_->host->libraries().bind_data(name, path);
  for (const auto& [name, path] : settings.libraries) state_->host->libraries().bind_library(name, path);
  state_->settings = std::move(settings);
}

Session::~Session() = default;

RunOutcome Session::run(std::string program)
{
  const RunSettings& s = state_->settings;
  RunOutcome outcome;
  const std::string upper = host::wzstrup(program);
  std::string unused;
  for (const auto& [name, path] : s.data)
    if (upper.find(host::wzstrup(name)) == std::string::npos) unused += (unused.empty() ? "" : ", ") + name;
  if (!unused.empty()) state_->host->log().xpmlog(message::data_binding_unused{.name = unused});
  auto result = run::run_program(
      *state_->host,
      {s.program_name, s.program_folder, program, s.threads, s.seed, s.check_only, s.hash_data, s.pictures, {}});
  outcome.exit_code = result.exit_code;
  outcome.statements = std::move(result.statements);
  outcome.results = state_->host->results();
  outcome.results.source = std::move(program);
  outcome.times = state_->host->stages().times();
  return outcome;
}

std::shared_ptr<const host::DataSet> Session::data_set(const std::string& name, bool is_path)
{
  auto data = state_->host->libraries().xoopen({name, is_path, {}}, state_->host->log());
  return data ? std::make_shared<const host::DataSet>(std::move(*data)) : nullptr;
}

void Session::interrupt()
{
  state_->host->interrupt();
}

host::Libraries& Session::libraries()
{
  return state_->host->libraries();
}

std::string explain(std::string_view code)
{
  return host::explain_message(code);
}

} // namespace torvale
