#include "host/data/data_set_options.h"
#include "host/messages/names/files.h"
#include "host/values/text.h"
#include <algorithm>
#include <charconv>
#include <numeric>

namespace torvale::host {

namespace {

bool blank(char c)
{
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
bool name_character(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || (c & 0x80);
}

// Walks through the text between the parentheses.
class OptionReader {
public:
  explicit OptionReader(std::string_view text) : text_(text) {}

  bool read(DataSetOptions& options)
  {
    for (skip(); i_ < text_.size(); skip()) {
      const std::string option = wzstrup(word());
      skip();
      if (option.empty() || i_ == text_.size() || text_[i_] != '=') return fail("a name and = are needed");
      ++i_;
      skip();
      if (!value(option, options)) return false;
    }
    return true;
  }
  std::string problem;
  std::size_t at() const { return i_ + 1; }

private:
  bool fail(std::string why)
  {
    if (problem.empty()) problem = std::move(why);
    return false;
  }
  void skip()
  {
    while (i_ < text_.size() && (blank(text_[i_]) || text_[i_] == ',')) ++i_;
  }

  // A name, also one in the form 'any text'n; empty when none stands here.
  std::string word()
  {
    if (i_ < text_.size() && (text_[i_] == '\'' || text_[i_] == '"')) {
      const std::size_t close = text_.find(text_[i_], i_ + 1);
      if (close == std::string_view::npos || close + 1 >= text_.size() || (text_[close + 1] | 0x20) != 'n') return {};
      std::string name(text_.substr(i_ + 1, close - i_ - 1));
      i_ = close + 2;
      return name;
    }
    const std::size_t begin = i_;
    while (i_ < text_.size() && name_character(text_[i_])) ++i_;
    return std::string(text_.substr(begin, i_ - begin));
  }

  // Names up to the next "NAME=" or the end, also in parentheses.
  bool names(std::vector<std::string>& out)
  {
    const bool bracket = i_ < text_.size() && text_[i_] == '(';
    if (bracket) ++i_;
    for (;;) {
      skip();
      const std::size_t before = i_;
      const std::string name = word();
      if (name.empty()) break;
      std::size_t behind = i_;
      while (behind < text_.size() && blank(text_[behind])) ++behind;
      if (!bracket && behind < text_.size() && text_[behind] == '=') {
        i_ = before;
        break;
      }
      out.push_back(name);
    }
    if (bracket && (i_ == text_.size() || text_[i_++] != ')')) return fail("a closing parenthesis is missing");
    return out.empty() ? fail("names are needed") : true;
  }

  bool renames(std::vector<std::pair<std::string, std::string>>& out)
  {
    if (i_ == text_.size() || text_[i_++] != '(') return fail("RENAME= needs (old=new ...)");
    for (skip(); i_ < text_.size() && text_[i_] != ')'; skip()) {
      std::string old_name = word();
      skip();
      if (old_name.empty() || i_ == text_.size() || text_[i_++] != '=') return fail("RENAME= needs (old=new ...)");
      skip();
      std::string new_name = word();
      if (new_name.empty()) return fail("RENAME= needs (old=new ...)");
      if (new_name.size() > DataSet::longest_name) return fail("the new name is longer than 32 bytes");
      out.emplace_back(std::move(old_name), std::move(new_name));
    }
    if (i_ == text_.size()) return fail("a closing parenthesis is missing");
    ++i_;
    return true;
  }

  // The text in balanced parentheses; quotes hide parentheses.
  bool bracketed(std::string_view& inside)
  {
    if (i_ == text_.size() || text_[i_] != '(') return fail("WHERE= needs a condition in parentheses");
    const std::size_t begin = i_ + 1;
    int depth = 0;
    char quote = 0;
    for (; i_ < text_.size(); ++i_) {
      const char c = text_[i_];
      if (quote) {
        if (c == quote) quote = 0;
      } else if (c == '\'' || c == '"') {
        quote = c;
      } else if (c == '(') {
        ++depth;
      } else if (c == ')' && --depth == 0) {
        inside = text_.substr(begin, i_++ - begin);
        return true;
      }
    }
    return fail("a closing parenthesis is missing");
  }

  bool row_number(std::int64_t& out)
  {
    const auto [p, error] = std::from_chars(text_.data() + i_, text_.data() + text_.size(), out);
    if (error != std::errc() || out < 1) return fail("a whole number from 1 on is needed");
    i_ = static_cast<std::size_t>(p - text_.data());
    return true;
  }

  bool quoted_text(std::string& out)
  {
    if (i_ == text_.size() || (text_[i_] != '\'' && text_[i_] != '"')) return fail("a quoted text is needed");
    const char quote = text_[i_++];
    for (; i_ < text_.size(); ++i_) {
      if (text_[i_] == quote && !(i_ + 1 < text_.size() && text_[i_ + 1] == quote)) {
        ++i_;
        return true;
      }
      if (text_[i_] == quote) ++i_;
      out += text_[i_];
    }
    return fail("a quoted text is not closed");
  }

  bool separator(char& out)
  {
    std::string text;
    if (!quoted_text(text)) return false;
    if (!parse_separator(text, out)) return fail("SEPARATOR= needs one character, or 'tab'");
    return true;
  }

  bool decimal(char& out)
  {
    std::string text;
    if (!quoted_text(text)) return false;
    if (text != "." && text != ",") return fail("DECIMAL= needs '.' or ','");
    out = text[0];
    return true;
  }

  // One code or several in parentheses: quoted texts, or numbers as they stand
  // in the file.
  bool codes(std::vector<std::string>& out)
  {
    const bool bracket = i_ < text_.size() && text_[i_] == '(';
    if (bracket) ++i_;
    do {
      skip();
      if (i_ < text_.size() && (text_[i_] == '\'' || text_[i_] == '"')) {
        if (!quoted_text(out.emplace_back())) return false;
      } else {
        const std::size_t end = std::min(text_.find_first_of(" \t\n\r,)", i_), text_.size());
        if (!parse_number(text_.substr(i_, end - i_))) return fail("MISSING= needs quoted texts or numbers");
        out.emplace_back(text_.substr(i_, end - i_));
        i_ = end;
      }
      skip();
    } while (bracket && i_ < text_.size() && text_[i_] != ')');
    if (bracket && (i_ == text_.size() || text_[i_++] != ')')) return fail("a closing parenthesis is missing");
    return true;
  }

  bool value(const std::string& option, DataSetOptions& options)
  {
    if (option == "KEEP") return names(options.keep);
    if (option == "DROP") return names(options.drop);
    if (option == "RENAME") return renames(options.rename);
    if (option == "FIRSTROW") return row_number(options.first_row);
    if (option == "LASTROW") return row_number(options.last_row);
    if (option == "LABEL") return quoted_text(options.label);
    if (option == "SEPARATOR") return separator(options.separator);
    if (option == "DECIMAL") return decimal(options.decimal);
    if (option == "MISSING") return codes(options.missing);
    if (option != "WHERE") {
      const std::string near = nearest_name(option, {"KEEP", "DROP", "RENAME", "WHERE", "FIRSTROW", "LASTROW", "LABEL",
                                                     "SEPARATOR", "DECIMAL", "MISSING"});
      return fail("there is no data set option " + option + "=" +
                  (near.empty() ? "" : "; did you mean " + near + "=?"));
    }
    std::string_view condition;
    if (!bracketed(condition)) return false;
    std::string why;
    options.where = parse_where(condition, why);
    return options.where ? true : fail("WHERE=: " + why);
  }

  std::string_view text_;
  std::size_t i_ = 0;
};

std::size_t index_of(const std::vector<std::string>& names, std::string_view name)
{
  const auto at = std::find_if(names.begin(), names.end(), [&](auto& n) { return equal_names(n, name); });
  return static_cast<std::size_t>(at - names.begin());
}

// Is `name` known? Otherwise a message that names the option, the data set and what is alike.
bool known(const std::vector<std::string>& names, std::string_view name, std::string_view option, MessageSink& log)
{
  if (index_of(names, name) < names.size()) return true;
  log.xpmlog(message::option_names_unknown_variable{.option = option, .name = name, .near = nearest_name(name, names)});
  return false;
}

bool listed(const std::vector<std::string>& names, std::string_view name)
{
  return index_of(names, name) < names.size();
}

} // namespace

bool parse_separator(std::string_view text, char& separator)
{
  if (equal_names(text, "tab") || text == "\\t") text = "\t";
  if (text.size() != 1 || text[0] == '"' || text[0] == '\n' || text[0] == '\r' || text[0] == '\0') return false;
  separator = text[0];
  return true;
}

bool DataSetOptions::empty() const
{
  return keep.empty() && drop.empty() && rename.empty() && !where && first_row == 1 && last_row == 0 && label.empty() &&
         separator == 0 && decimal == 0 && missing.empty();
}

std::optional<DataSetOptions> parse_data_set_options(std::string_view text, MessageSink& log, const MessagePlace& place)
{
  DataSetOptions options;
  OptionReader reader(text);
  if (reader.read(options)) return options;
  log.xpmlog(message::bad_data_set_options{.text = text, .problem = reader.problem, .character = reader.at()}, place);
  return std::nullopt;
}

int output_columns(const std::vector<std::string>& names, const DataSetOptions& options, MessageSink& log,
                   std::vector<std::pair<std::size_t, std::string>>& chosen)
{
  bool good = true;
  for (const std::string& name : options.keep) good = known(names, name, "KEEP", log) && good;
  for (const std::string& name : options.drop) good = known(names, name, "DROP", log) && good;
  for (const auto& [old_name, new_name] : options.rename) good = known(names, old_name, "RENAME", log) && good;
  if (!good) return -1;
  chosen.clear();
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (!options.keep.empty() && !listed(options.keep, names[i])) continue;
    if (listed(options.drop, names[i])) continue;
    std::string name = names[i];
    for (const auto& [old_name, new_name] : options.rename)
      if (equal_names(old_name, names[i])) name = new_name;
    const bool taken = std::any_of(chosen.begin(), chosen.end(), [&](auto& c) { return equal_names(c.second, name); });
    if (taken) {
      log.xpmlog(message::renamed_to_same_name{.name = name});
      return -1;
    }
    chosen.emplace_back(i, std::move(name));
  }
  if (!chosen.empty()) return 0;
  log.xpmlog(message::no_variable_left);
  return -1;
}

namespace {

// The rows that WHERE= keeps, in order. Nothing, with a message, when the condition does not suit the data.
std::optional<std::vector<std::size_t>> wanted_rows(const DataSet& data, const DataSetOptions& options,
                                                    MessageSink& log)
{
  std::string problem, converted;
  if (options.where && options.where->bind(data, problem, &converted) != 0) {
    log.xpmlog(message::where_does_not_suit{.data = data.name, .problem = problem});
    return std::nullopt;
  }
  if (!converted.empty()) log.xpmlog(message::where_text_read_as_number{.data = data.name, .text = converted});
  if (options.where && options.where->has_angle_brackets())
    log.xpmlog(message::where_angle_brackets{.data = data.name});
  if (options.where) return options.where->matching_rows(data);
  std::vector<std::size_t> rows(data.rows());
  std::iota(rows.begin(), rows.end(), std::size_t{0});
  return rows;
}

} // namespace

int keep_where(DataSet& data, const DataSetOptions& options, MessageSink& log)
{
  if (!options.where) return 0;
  const auto rows = wanted_rows(data, options, log);
  if (!rows) return -1;
  if (rows->size() < data.rows()) data = data.select(*rows);
  return 0;
}

int apply_input_options(DataSet& data, const DataSetOptions& options, MessageSink& log)
{
  if (options.empty()) return 0;
  auto wanted = wanted_rows(data, options, log);
  if (!wanted) return -1;
  std::vector<std::size_t>& rows = *wanted;
  const auto kept = static_cast<std::int64_t>(rows.size());
  const std::int64_t last = options.last_row == 0 ? kept : std::min(options.last_row, kept);
  const std::int64_t first = std::min(options.first_row - 1, last);
  rows.assign(rows.begin() + first, rows.begin() + last);

  std::vector<std::pair<std::size_t, std::string>> chosen;
  if (output_columns(data.column_names(), options, log, chosen) != 0) return -1;
  const std::size_t rows_before = data.rows();
  const bool all_rows = rows.size() == rows_before;
  DataSet out;
  std::vector<std::int64_t> file_rows;
  if (!all_rows)
    for (const std::size_t row : rows) file_rows.push_back(data.file_row(row));
  out.set_file_rows(std::move(file_rows));
  for (const auto& [index, name] : chosen) {
    Column& source = data.columns()[index];
    out.add(all_rows ? std::move(source) : source.select(rows)).rename(name);
  }
  out.name = data.name;
  out.path = data.path;
  out.label = options.label.empty() ? data.label : options.label;
  if (kept == 0 && rows_before > 0 && options.where)
    log.xpmlog(message::where_keeps_nothing{.rows = rows_before, .data = data.name});
  data = std::move(out);
  return 0;
}

} // namespace torvale::host
