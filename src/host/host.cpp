#include "host/host.h"
#include "host/messages/names/fit.h"
#include "host/storage/run_output.h"
#include "host/writers/table_writers.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>
#include <utility>

namespace torvale::host {

namespace {

// The host of a run on its own machine: results in memory, text handed to the writers of its options.
class EmbeddedHost final : public Host, private TableSink {
public:
  explicit EmbeddedHost(HostOptions options)
      : options_(std::move(options)), log_([this](std::string_view line) { log_line(line); }),
        libraries_(options_.places)
  {
    results_.version = options_.version;
    results_.program = options_.program;
  }

  MessageLog& log() override { return log_; }
  TableSink& tables() override { return *this; }
  Libraries& libraries() override { return libraries_; }
  const RunResults& results() const override { return results_; }

  void begin_step() override
  {
    results_.steps.emplace_back();
    group_ = nullptr;
  }
  StepResult& step() override
  {
    if (results_.steps.empty()) begin_step();
    return results_.steps.back();
  }
  GroupResult& group() override { return group_for_tables(); }
  void begin_group(ByValues by) override;
  void end_group(int return_code) override;
  void end_step(int return_code, bool failed) override;

  void xpsout(std::string_view line) override { list(std::string(line) + "\n"); }
  void list_program(std::string title, std::string text) override
  {
    list("\n" + centred(title, listing_width) + "\n\n" + text);
    step().listings.push_back({std::move(title), std::move(text)});
  }
  void xpfput(std::string_view file, std::string_view line, bool append) override
  {
    const auto [at, first] = text_files_.try_emplace(std::string(file));
    TextFile& f = at->second;
    if (first && append) f.text = held_text(std::string(file));
    f.text.append(line).append("\n");
    f.changed = true;
  }
  void progress(const Progress& now) override;
  bool shows_progress() const override { return static_cast<bool>(options_.progress); }

  double seconds() const override
  {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  std::uint32_t clock_seed() const override;
  int cores() const override { return std::max(1, static_cast<int>(std::thread::hardware_concurrency())); }
  const std::string* option(std::string_view name) const override;
  void xjsympn(std::string_view name, std::string_view value) override { macro_variables_[wzstrup(name)] = value; }
  const std::string* macro_variable(std::string_view name) const override
  {
    const auto at = macro_variables_.find(wzstrup(name));
    return at == macro_variables_.end() ? nullptr : &at->second;
  }

private:
  Table& open(Table table) override;
  void close(Table& table) override;
  GroupResult& group_for_tables();
  void close_tables();
  bool write_text_files();
  std::string held_text(const std::string& file) const;
  const char* protected_file(const std::filesystem::path& path) const;

  void list(std::string_view text)
  {
    clear_progress();
    if (options_.listing) options_.listing(text);
  }
  void clear_progress()
  {
    if (progress_shown_) options_.progress("");
    progress_shown_ = false;
  }
  void log_line(std::string_view line)
  {
    clear_progress();
    if (!options_.log) return;
    std::string text;
    if (std::exchange(log_names_group_, false) && group_ != nullptr) text = "BY group " + by_text(group_->by) + ":\n";
    text += line;
    text += '\n';
    options_.log(text);
  }

  struct TextFile {
    std::string text;     // everything since the run began
    bool changed = false; // since it was last written
  };

  HostOptions options_;
  MessageLog log_;
  Libraries libraries_;
  RunResults results_;
  GroupResult* group_ = nullptr;                       // where tables go; of the step at hand
  bool by_line_due_ = false;                           // the group's values stand in the listing before its first table
  bool log_names_group_ = false;                       // and in the log before its first line
  std::vector<Table*> open_;                           // in the order opened
  std::map<std::string, TextFile> text_files_;         // by path as the program names it
  std::map<std::string, std::string> macro_variables_; // upper-case name -> text
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  Progress now_;                // what was said last, kept for calls that tell less
  double progress_due_ = 0.1;   // seconds after the start from which the next line is drawn
  bool progress_shown_ = false; // a line stands on the terminal
};

void EmbeddedHost::progress(const Progress& now)
{
  if (!options_.progress) return;
  // A share belongs to the evaluation in hand: the rest of the line stays.
  if (!std::isnan(now.share)) {
    now_.share = now.share;
    if (!now.stage.empty() && now_.stage.empty()) now_.stage = now.stage;
  } else {
    now_ = now;
  }
  const double elapsed = seconds();
  if (elapsed < progress_due_) return;
  progress_due_ = elapsed + 0.1;
  std::string line(now_.stage);
  const auto add = [&](const std::string& text) { line += (line.empty() ? "" : ", ") + text; };
  if (group_ != nullptr && !group_->by.empty()) line = by_text(group_->by) + (line.empty() ? "" : ": ") + line;
  if (now_.iteration >= 0) add("iteration " + std::to_string(now_.iteration));
  if (!std::isnan(now_.objective)) add("objective " + format_number(now_.objective, parse_format("D12.7")));
  if (!std::isnan(now_.gradient)) add("gradient " + format_number(now_.gradient, parse_format("D8.2")));
  if (!std::isnan(now_.share)) add(std::to_string(static_cast<int>(100 * now_.share)) + " %");
  add(std::to_string(static_cast<long>(elapsed)) + " s");
  options_.progress(line);
  progress_shown_ = true;
}

// Tables written before the first group (the specifications) open that group early; begin_group then fills in its
// values.
GroupResult& EmbeddedHost::group_for_tables()
{
  if (results_.steps.empty()) begin_step();
  if (!group_) group_ = &results_.steps.back().groups.emplace_back();
  return *group_;
}

void EmbeddedHost::begin_group(ByValues by)
{
  GroupResult& group = group_for_tables();
  group.by = std::move(by);
  by_line_due_ = log_names_group_ = !group.by.empty();
  log_.set_by_group(static_cast<int>(results_.steps.back().groups.size()) - 1);
}

void EmbeddedHost::end_group(int return_code)
{
  close_tables();
  group_for_tables().return_code = return_code;
  log_.set_by_group(-1);
  log_names_group_ = false;
  group_ = nullptr;
}

void EmbeddedHost::end_step(int return_code, bool failed)
{
  clear_progress();
  close_tables();
  if (results_.steps.empty()) begin_step();
  const int closed = std::max(libraries_.close_all(log_, failed), write_text_files() ? 0 : 1016);
  log_.set_by_group(-1);
  log_.close_repeats();
  StepResult& step = results_.steps.back();
  if (group_) group_->return_code = return_code; // a step that ended inside a group, or before its first one
  log_names_group_ = false;
  group_ = nullptr;
  step.return_code = std::max(return_code, closed);
  step.messages = log_.take_messages();
  step.data_sets = libraries_.take_written();
}

// Why lines of PUT may not go there; null when they may.
const char* EmbeddedHost::protected_file(const std::filesystem::path& path) const
{
  const auto is = [&](const std::string& other) {
    std::error_code error;
    if (std::filesystem::equivalent(path, other, error)) return true;
    return std::filesystem::weakly_canonical(path, error) == std::filesystem::weakly_canonical(other, error) && !error;
  };
  const auto& own = options_.options;
  const bool kept =
      std::any_of(own.begin(), own.end(), [&](const auto& o) { return o.first == "KEEP" && is(o.second); });
  return kept || libraries_.reads(path.string()) ? "it is an input or a result of this run" : nullptr;
}

// What a file of lines holds before the run; nothing when there is none.
std::string EmbeddedHost::held_text(const std::string& file) const
{
  std::ifstream in(std::filesystem::path(options_.places.output_folder) / file, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(in), {}};
  if (!text.empty() && text.back() != '\n') text += '\n';
  return text;
}

bool EmbeddedHost::write_text_files()
{
  bool all = true;
  for (auto& [name, file] : text_files_) {
    if (!std::exchange(file.changed, false)) continue;
    const std::filesystem::path path = std::filesystem::path(options_.places.output_folder) / name;
    std::string problem;
    if (const char* reason = protected_file(path)) {
      log_.xpmlog(message::put_file_protected{.file = path.string(), .reason = reason});
      all = false;
      continue;
    }
    if (write_file(path.string(), file.text, problem)) continue;
    log_.xpmlog(message::put_file_not_written{.file = path.string(), .problem = problem});
    all = false;
  }
  return all;
}

Table& EmbeddedHost::open(Table table)
{
  GroupResult& group = group_for_tables();
  group.tables.push_back(std::move(table));
  open_.push_back(&group.tables.back());
  return group.tables.back();
}

void EmbeddedHost::close(Table& table)
{
  const auto at = std::find(open_.begin(), open_.end(), &table);
  if (at == open_.end()) return;
  open_.erase(at);
  if (!options_.listing) return;
  std::string text = "\n";
  if (by_line_due_) text += centred(by_text(group_->by), listing_width) + "\n\n";
  by_line_due_ = false;
  list(text + listing_text(table));
}

void EmbeddedHost::close_tables()
{
  while (!open_.empty()) close(*open_.front());
}

// The fraction of the time in seconds over 1000, in steps of a billionth: a new number every microsecond.
std::uint32_t EmbeddedHost::clock_seed() const
{
  const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  const double part = now / 1000.0 - std::floor(now / 1000.0);
  return static_cast<std::uint32_t>(std::floor(part * 1e9)) + 1;
}

const std::string* EmbeddedHost::option(std::string_view name) const
{
  for (const auto& [option_name, value] : options_.options)
    if (equal_names(option_name, name)) return &value;
  return nullptr;
}

} // namespace

std::unique_ptr<Host> make_host(HostOptions options)
{
  return std::make_unique<EmbeddedHost>(std::move(options));
}

} // namespace torvale::host
