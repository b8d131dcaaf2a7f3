#include "host/data/libraries.h"
#include "host/data/sqlite_table.h"
#include "host/messages/names/files.h"
#include "host/values/text.h"
#include <algorithm>
#include <array>
#include <filesystem>
#include <unistd.h>

namespace torvale::host {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view endings[] = {".csv", ".csv.gz", ".csv.zst"};

std::string joined(const std::string& folder, const std::string& path)
{
  return fs::path(path).is_absolute() ? path : (fs::path(folder) / path).lexically_normal().string();
}

// Names that the file system refuses (too long, in a forbidden folder, a circle of links) are neither.
bool is_folder(const std::string& path)
{
  std::error_code error;
  return fs::is_directory(path, error);
}

bool is_file(const std::string& path)
{
  std::error_code error;
  return fs::exists(path, error) && !is_folder(path);
}

bool is_regular(const std::string& path)
{
  std::error_code error;
  return fs::is_regular_file(path, error);
}

// Why nothing can be read there, in words.
std::string no_file_reason(const std::string& path)
{
  if (is_folder(path)) return "it is a folder";
  std::error_code error;
  static_cast<void>(fs::status(path, error));
  const bool absent = !error || error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
  return absent ? "there is no such file" : error.message();
}

// Is the path an SQLite database: by its contents, or by its name when it is still to be made?
bool is_database(const std::string& path)
{
  if (is_file(path)) return is_regular(path) && is_sqlite_file(path);
  const std::string ending = wzstrlo(fs::path(path).extension().string());
  return !is_folder(path) && (ending == ".sqlite" || ending == ".sqlite3" || ending == ".db");
}

// Names of the files in a folder that hold data sets, without their endings; sorted.
std::vector<std::string> members_of(const std::string& folder)
{
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator i(folder, error), end; !error && i != end; i.increment(error)) {
    const std::string file = i->path().filename().string();
    for (const std::string_view ending : endings)
      if (file.size() > ending.size() &&
          equal_names(std::string_view(file).substr(file.size() - ending.size()), ending))
        names.push_back(file.substr(0, file.size() - ending.size()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The file of a data set in a folder: the name as it is, else the first one that differs in case only. Empty: none.
std::string file_in_folder(const std::string& folder, std::string_view member)
{
  for (const std::string_view ending : endings) {
    std::string path = joined(folder, std::string(member).append(ending));
    if (is_file(path)) return path;
  }
  for (const std::string& name : members_of(folder))
    if (equal_names(name, member) && name != member) return file_in_folder(folder, name);
  return {};
}

bool valid_name(std::string_view name)
{
  const auto good = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || (c & 0x80);
  };
  return !name.empty() && name.size() <= DataSet::longest_name && std::all_of(name.begin(), name.end(), good) &&
         !(name[0] >= '0' && name[0] <= '9');
}

struct SplitName {
  std::string library; // lower case; "work" for a one-level name
  std::string member;
  bool valid = false;
};

SplitName split(const std::string& name)
{
  const std::size_t point = name.find('.');
  SplitName out;
  out.library = point == std::string::npos ? "work" : wzstrlo(name.substr(0, point));
  out.member = point == std::string::npos ? name : name.substr(point + 1);
  out.valid = valid_name(out.library) && valid_name(out.member);
  return out;
}

// The file that a name such as trial.csv was meant for; empty when the name does not end like a file.
std::string file_meant(const std::string& name)
{
  const std::string ending = wzstrlo(name.substr(name.rfind('.') + 1));
  for (const char* known : {"csv", "tsv", "txt", "dat", "gz", "zst", "db", "sqlite", "sqlite3"})
    if (ending == known) return name;
  return {};
}

void not_found(const std::string& name, const std::string& where, const std::vector<std::string>& alternatives,
               MessageSink& log, const MessagePlace& place)
{
  std::string all;
  for (std::size_t i = 0; i < alternatives.size() && i < 12; ++i) all += (all.empty() ? "" : ", ") + alternatives[i];
  log.xpmlog(message::no_data_set{.name = name,
                                  .where = where,
                                  .near = nearest_name(name.substr(name.find('.') + 1), alternatives),
                                  .known = all},
             place);
}

// One file, however its path is spelled; in a database one table.
std::string file_key(const std::string& path, const std::string& table)
{
  std::error_code error;
  const std::string file = fs::weakly_canonical(path, error).string();
  return is_database(path) ? file + "/" + wzstrlo(table) : file;
}

// What an output is found by: its name in the run (a quoted path as it is written) and its file.
std::array<std::string, 2> output_keys(const std::string& name, const std::string& path, const std::string& table)
{
  return {name, file_key(path, table)};
}

// Says what was read: the kinds of the variables, at most `shown` names of each.
void note_kinds(const DataSet& data, MessageSink& log)
{
  constexpr std::size_t shown = 30;
  enum class Sort { number, text, moment };
  const auto sort_of = [](const Column& column) {
    return !column.numeric() ? Sort::text : column.moment() == Moment::none ? Sort::number : Sort::moment;
  };
  const auto names = [&](Sort sort) {
    std::string out;
    std::size_t count = 0;
    for (const Column& column : data.columns()) {
      if (sort_of(column) != sort || ++count > shown) continue;
      out += ' ';
      out += column.name();
    }
    if (count > shown) out += " and " + std::to_string(count - shown) + " more";
    return count == 0 ? std::string(" none") : out;
  };
  const std::string moments = names(Sort::moment);
  log.xpmlog(message::data_set_read{.data = data.name,
                                    .rows = data.rows(),
                                    .numeric = names(Sort::number),
                                    .character = names(Sort::text),
                                    .moments = moments == " none" ? std::string() : moments});
}

} // namespace

void Libraries::bind_data(std::string_view name, std::string path)
{
  data_[wzstrlo(name)] = std::move(path);
}

void Libraries::bind_memory(std::string_view name, DataSet data)
{
  memory_[wzstrlo(name)] = std::move(data);
}

void Libraries::bind_library(std::string_view library, std::string path)
{
  libraries_[wzstrlo(library)] = std::move(path);
}

std::vector<std::string> Libraries::bound_names() const
{
  std::vector<std::string> names;
  for (const auto& [name, path] : data_) names.push_back(name);
  for (const auto& [name, data] : memory_) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

std::uint64_t Libraries::memory() const
{
  return memory_limit_ > 0 ? memory_limit_ : free_memory();
}

// A file that is named outright: CSV, or an SQLite file with a table of the wanted name or one table only.
std::optional<DataSet> Libraries::read_path(const std::string& path, const std::string& name, MessageSink& log,
                                            const MessagePlace& place, const ReadOptions& options)
{
  if (const auto stream = streams_.find(path); stream != streams_.end()) return stream->second;
  if (!is_file(path)) {
    log.xpmlog(message::file_not_read{.file = path, .reason = no_file_reason(path)}, place);
    return std::nullopt;
  }
  if (!is_regular(path)) {
    std::optional<DataSet> data = read_csv(path, log, options);
    if (data) streams_.emplace(path, *data);
    return data;
  }
  if (!is_sqlite_file(path)) return read_csv(path, log, options);
  const auto tables = sqlite_tables(path);
  const std::string member = split(name).member;
  for (const std::string& table : tables)
    if (equal_names(table, member)) return read_sqlite(path, table, log, options);
  if (tables.size() == 1) return read_sqlite(path, tables.front(), log, options);
  not_found(name, "the database " + path, tables, log, place);
  return std::nullopt;
}

// Looks for the data set and reads the whole of it; `name` becomes its name in the run.
std::optional<DataSet> Libraries::find_and_read(const DataSetReference& reference, std::string& name, MessageSink& log,
                                                const MessagePlace& place)
{
  ReadOptions options{.separator = reference.options.separator != 0 ? reference.options.separator : separator_,
                      .decimal = reference.options.decimal,
                      .missing = reference.options.missing,
                      .threads = threads_,
                      .memory = reference.memory,
                      .most_memory = memory()};
  const auto as_written = [&](const Written& written) { // the run's own files need no options
    ReadOptions own = options;
    own.kinds = written.kinds;
    own.separator = ',';
    own.decimal = '.';
    own.missing = {};
    return own;
  };
  if (reference.quoted) {
    const std::string path = joined(places_.program_folder, reference.name);
    const auto known = std::find_if(written_.begin(), written_.end(), [&](auto& w) { return w.second.path == path; });
    return read_path(path, fs::path(path).stem().string(), log, place,
                     known == written_.end() ? options : as_written(known->second));
  }
  const SplitName parts = split(reference.name);
  if (!parts.valid) {
    log.xpmlog(message::bad_data_set_name{.name = reference.name}, place);
    return std::nullopt;
  }
  name = parts.library + "." + wzstrlo(parts.member);
  const bool one_level = parts.library == "work";
  if (const auto written = written_.find(name); written != written_.end())
    return read_path(written->second.path, name, log, place, as_written(written->second));
  if (const auto held = memory_.find(wzstrlo(parts.member)); one_level && held != memory_.end()) return held->second;
  if (const auto bound = data_.find(wzstrlo(parts.member)); one_level && bound != data_.end())
    return read_path(bound->second, name, log, place, options);
  const auto library = libraries_.find(parts.library);
  if (!one_level && library == libraries_.end()) {
    std::string known = "work";
    for (const auto& [l, path] : libraries_) known += ", " + l;
    log.xpmlog(message::library_not_bound{.library = parts.library, .known = known, .file = file_meant(reference.name)},
               place);
    return std::nullopt;
  }
  const std::string folder = library != libraries_.end() ? library->second : places_.program_folder;
  if (is_database(folder)) {
    const auto tables = sqlite_tables(folder);
    for (const std::string& table : tables)
      if (equal_names(table, parts.member)) return read_sqlite(folder, table, log, options);
    not_found(reference.name, "the database " + folder, tables, log, place);
    return std::nullopt;
  }
  if (const std::string found = file_in_folder(folder, parts.member); !found.empty())
    return read_csv(found, log, options);
  auto alternatives = members_of(folder);
  for (const std::string& n : bound_names())
    if (one_level) alternatives.push_back(n);
  std::sort(alternatives.begin(), alternatives.end());
  alternatives.erase(std::unique(alternatives.begin(), alternatives.end()), alternatives.end());
  not_found(reference.name, folder == "." ? "the current folder" : "the folder " + folder, alternatives, log, place);
  return std::nullopt;
}

// What an input is known by among the outputs of earlier steps.
std::string Libraries::input_key(const DataSetReference& reference) const
{
  if (reference.quoted) {
    const std::string path = joined(places_.program_folder, reference.name);
    return file_key(path, fs::path(path).stem().string());
  }
  const SplitName parts = split(reference.name);
  return parts.library + "." + wzstrlo(parts.member);
}

std::optional<DataSet> Libraries::xoopen(const DataSetReference& reference, MessageSink& log, const MessagePlace& place)
{
  std::string name = reference.name;
  const std::string key = input_key(reference);
  if (lost_.contains(key)) {
    log.xpmlog(message::data_set_of_failed_step{.name = reference.name}, place);
    return std::nullopt;
  }
  const auto unwritten = unwritten_.find(key);
  std::optional<DataSet> data =
      unwritten != unwritten_.end() ? unwritten->second : find_and_read(reference, name, log, place);
  if (!data) return std::nullopt;
  if (!data->path.empty()) inputs_.insert(file_key(data->path, data->name));
  if (const auto written = written_.find(name); written != written_.end())
    for (Column& column : data->columns()) {
      const auto look = written->second.looks.find(wzstrlo(column.name()));
      if (look == written->second.looks.end()) continue;
      column.set_label(look->second.first);
      column.set_format(look->second.second);
    }
  data->name = name;
  note_kinds(*data, log);
  if (apply_input_options(*data, reference.options, log) != 0) return std::nullopt;
  return data;
}

bool Libraries::reads(const std::string& path) const
{
  const std::string key = file_key(path, {});
  return std::any_of(inputs_.begin(), inputs_.end(),
                     [&](const std::string& i) { return i == key || (is_database(path) && i.starts_with(key)); });
}

// Would this output replace what the run reads? Then a message says so.
bool Libraries::is_input(const OutputDataSet& output, MessageSink& log, const MessagePlace& place) const
{
  if (!inputs_.contains(file_key(output.path_, output.member_))) return false;
  log.xpmlog(message::output_would_replace_input{.name = output.data_.name, .file = output.path_}, place);
  return true;
}

OutputDataSet* Libraries::open_output(const DataSetReference& reference, MessageSink& log, const MessagePlace& place,
                                      int* code)
{
  int unasked = 0;
  int& refused = code != nullptr ? *code : unasked;
  refused = 3000;
  auto output = std::make_unique<OutputDataSet>();
  output->options_ = reference.options;
  if (reference.options.first_row != 1 || reference.options.last_row != 0) {
    log.xpmlog(message::input_option_on_output{.name = reference.name}, place);
    return nullptr;
  }
  if (reference.quoted) {
    output->path_ = joined(places_.output_folder, reference.name);
    output->member_ = fs::path(output->path_).stem().string();
    output->data_.name = reference.name;
  } else {
    const SplitName parts = split(reference.name);
    const auto library = libraries_.find(parts.library);
    if (!parts.valid) {
      log.xpmlog(message::bad_data_set_name{.name = reference.name}, place);
      return nullptr;
    }
    if (parts.library != "work" && library == libraries_.end()) {
      log.xpmlog(
          message::library_not_bound{.library = parts.library, .known = "work", .file = file_meant(reference.name)},
          place);
      return nullptr;
    }
    const std::string folder = library == libraries_.end() ? places_.output_folder : library->second;
    output->library_ = parts.library;
    output->member_ = wzstrlo(parts.member);
    output->data_.name = output->library_ + "." + output->member_;
    output->path_ = is_database(folder) ? folder : joined(folder, output->member_ + ".csv");
  }
  const fs::path parent = fs::path(output->path_).parent_path();
  if (::access(parent.empty() ? "." : parent.c_str(), W_OK) != 0) {
    log.xpmlog(
        message::file_not_written{.file = output->path_, .reason = "its folder is missing or may not be written"},
        place);
    refused = 1016;
    return nullptr;
  }
  for (const auto& other : open_)
    if (other->data_.name == output->data_.name || (other->path_ == output->path_ && !is_database(output->path_))) {
      log.xpmlog(message::data_set_written_twice{.name = reference.name}, place);
      return nullptr;
    }
  if (is_input(*output, log, place)) return nullptr;
  output->data_.label = reference.options.label;
  open_.push_back(std::move(output));
  refused = 0;
  return open_.back().get();
}

int Libraries::check_outputs(MessageSink& log) const
{
  for (const auto& output : open_) {
    std::vector<std::pair<std::size_t, std::string>> chosen;
    if (output->data_.columns().empty()) continue; // declared later
    if (output_columns(output->data_.column_names(), output->options_, log, chosen) != 0) return 3000;
    std::string problem;
    if (output->options_.where && output->options_.where->bind(output->data_, problem) != 0) {
      log.xpmlog(message::where_does_not_suit{.data = output->data_.name, .problem = problem});
      return 3000;
    }
  }
  return 0;
}

int Libraries::write_out(OutputDataSet& output, MessageSink& log)
{
  if (is_input(output, log, {})) return 3000; // read after it was opened
  std::vector<std::pair<std::size_t, std::string>> chosen;
  if (output_columns(output.data_.column_names(), output.options_, log, chosen) != 0) return 3000;
  if (keep_where(output.data_, output.options_, log) != 0) return 3000;
  DataSet data;
  Written written{.path = output.path_, .kinds = {}};
  for (auto& [index, name] : chosen) {
    Column column = std::move(output.data_.columns()[index]);
    column.rename(name);
    written.kinds[wzstrlo(name)] = column.kind();
    written.looks[wzstrlo(name)] = {column.label(), column.format()};
    data.add(std::move(column));
  }
  data.name = output.data_.name;
  if (write_nothing_) {
    for (const std::string& key : output_keys(output.data_.name, output.path_, output.member_)) unwritten_[key] = data;
    return 0;
  }
  const bool database = is_database(output.path_);
  const int code =
      database ? write_sqlite(data, output.path_, output.member_, log) : write_csv(data, output.path_, log);
  if (code != 0) return 1016;

  const std::string shown = fs::path(output.path_).lexically_proximate(places_.output_folder).string();
  log.xpmlog(message::data_set_written{
      .data = data.name, .rows = data.rows(), .columns = data.columns().size(), .file = shown});
  finished_.push_back({data.name, shown, data.rows()});
  written_[data.name] = std::move(written);
  return 0;
}

int Libraries::xoclose(OutputDataSet* output, MessageSink& log)
{
  const auto at = std::find_if(open_.begin(), open_.end(), [&](auto& o) { return o.get() == output; });
  if (at == open_.end()) return 1016;
  const std::unique_ptr<OutputDataSet> owned = std::move(*at);
  open_.erase(at);
  const int code = write_out(*owned, log);
  for (const std::string& key : output_keys(owned->data_.name, owned->path_, owned->member_))
    if (code == 0)
      lost_.erase(key);
    else
      lost_.insert(key);
  return code;
}

// An output that its failed step has nothing for: nobody may take the file of an earlier run for it.
void Libraries::lose(const OutputDataSet& output, MessageSink& log)
{
  for (const std::string& key : output_keys(output.data_.name, output.path_, output.member_)) lost_.insert(key);
  log.xpmlog(message::data_set_not_written{
      .name = output.data_.name, .left = is_file(output.path_) ? output.path_ + " stays as it was" : std::string()});
}

int Libraries::close_all(MessageSink& log, bool failed)
{
  int code = 0;
  while (!open_.empty()) {
    OutputDataSet& output = *open_.front();
    if (failed && output.rows() == 0) {
      lose(output, log);
      open_.erase(open_.begin());
    } else {
      code = std::max(code, xoclose(&output, log));
    }
  }
  // The next step may write again what this one read of the run's own data sets.
  for (const auto& [name, written] : written_) inputs_.erase(file_key(written.path, name.substr(name.find('.') + 1)));
  return code;
}

std::vector<DataSetResult> Libraries::take_written()
{
  return std::exchange(finished_, {});
}

} // namespace torvale::host
