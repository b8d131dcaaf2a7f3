#include "host/messages/messages.h"

#include "host/messages/catalogue/topics.h"
#include "host/messages/names/files.h"
#include "host/messages/source_excerpt.h"
#include "host/values/text.h"
#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace torvale::host {

namespace {

constexpr std::size_t log_width = 96;

const MessageArgument* find_argument(const MessageArguments& arguments, std::string_view name)
{
  for (const MessageArgument& argument : arguments)
    if (argument.name == name) return &argument;
  return nullptr;
}

// Copies `text`, {names} replaced. An optional stretch [ ... ] that names arguments is left out when one is not given.
std::string filled(std::string_view text, const MessageArguments& arguments, bool& complete)
{
  std::string out;
  complete = true;
  for (std::size_t i = 0; i < text.size();) {
    if (text[i] == '[') {
      const std::size_t close = text.find(']', i);
      const std::size_t brace = text.find('{', i);
      if (close != std::string_view::npos && brace < close) {
        bool given = true;
        const std::string inside = filled(text.substr(i + 1, close - i - 1), arguments, given);
        if (given) out += inside;
        i = close + 1;
        continue;
      }
    }
    if (text[i] == '{') {
      const std::size_t close = text.find('}', i);
      if (close != std::string_view::npos) {
        const MessageArgument* argument = find_argument(arguments, text.substr(i + 1, close - i - 1));
        complete = complete && argument;
        out += argument ? argument->value : "?";
        i = close + 1;
        continue;
      }
    }
    out += text[i++];
  }
  return out;
}

// The sentence of a text without values: optional stretches left out, an argument as its name in capitals.
std::string as_sentence(std::string_view text)
{
  bool complete = true;
  MessageArguments names;
  std::string outside; // the text without its optional stretches
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::size_t close = text[i] == '[' ? text.find(']', i) : std::string_view::npos;
    if (close != std::string_view::npos && text.find('{', i) < close)
      i = close;
    else
      outside += text[i];
  }
  for (std::size_t i = outside.find('{'); i != std::string::npos; i = outside.find('{', i + 1)) {
    const std::string name = outside.substr(i + 1, outside.find('}', i) - i - 1);
    std::string shown = name;
    for (char& c : shown) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    names.emplace_back(name, shown.find_first_not_of("0123456789") == std::string::npos ? "..." : shown);
  }
  return filled(outside, names, complete);
}

// Where a message belongs, in brackets. The place in the program is told by the lines below it, but for notes.
std::string place_text(const MessagePlace& place, Severity severity)
{
  std::vector<std::string> parts;
  if (place.line <= 0 || severity == Severity::note) {
    if (!place.statement.empty()) parts.push_back(fmt::format("{} statement", place.statement));
    if (place.line > 0) parts.push_back(fmt::format("line {}", place.line));
    if (place.column > 0) parts.push_back(fmt::format("column {}", place.column));
  }
  if (place.row > 0) parts.push_back(fmt::format("data row {}", place.row));
  if (!place.subject.empty()) parts.push_back(fmt::format("subject {}", place.subject));
  if (!place.file.empty()) parts.push_back(fmt::format("file {}", place.file));
  if (place.file_line > 0) parts.push_back(fmt::format("file line {}", place.file_line));
  return parts.empty() ? "" : fmt::format(" ({})", fmt::join(parts, ", "));
}

} // namespace

std::string_view severity_name(Severity severity)
{
  return severity == Severity::note ? "note" : severity == Severity::warning ? "warning" : "error";
}

MessageArgument::MessageArgument(std::string_view n, double v) : name(n), value(readable(v)) {}

MessageValue::MessageValue(double v) : text_(readable(v)) {}

NumberedMessage::NumberedMessage(MessageCode code, std::initializer_list<Argument> arguments) : code_(code)
{
  for (const Argument& a : arguments)
    if (a.value != nullptr) arguments_.emplace_back(a.name, a.value->text());
}

NumberedMessage::NumberedMessage(MessageCode code, const std::vector<std::string>& values) : code_(code)
{
  for (std::size_t k = 0; k < values.size(); ++k) arguments_.emplace_back(std::to_string(k), values[k]);
}

const CatalogueEntry* find_message(int group, int number)
{
  return catalogue_entry(group == 0 ? 503 : group, number); // the words of tables stand with the procedure's messages
}

std::string explain_message(std::string_view code)
{
  int group = 503, number = 0;
  const std::size_t separator = code.find_first_of("/-");
  const auto number_in = [](std::string_view s, int& value) {
    const auto [p, error] = std::from_chars(s.data(), s.data() + s.size(), value);
    return error == std::errc() && p == s.data() + s.size();
  };
  if (separator != std::string_view::npos && !number_in(code.substr(0, separator), group)) return {};
  if (!number_in(separator == std::string_view::npos ? code : code.substr(separator + 1), number)) return {};
  const CatalogueEntry* entry = find_message(group, number);
  if (!entry || group == 0) return {};
  std::string out = fmt::format("{}/{} ({})\n", group, number, severity_name(entry->severity));
  const auto add = [&](std::string_view heading, std::string_view text) {
    if (text.empty()) return;
    out += fmt::format("\n{}\n", heading);
    for (const std::string& line : wrapped("  " + std::string(text), 78, 0)) out += "  " + line + "\n";
  };
  add("What it says", as_sentence(entry->text));
  add("Usual causes", as_sentence(entry->causes));
  add("What to try", as_sentence(entry->advice));
  return out;
}

std::string xpmstr(const NumberedMessage& named)
{
  const auto [group, number] = named.code();
  const MessageArguments& arguments = named.arguments();
  if (const CatalogueEntry* entry = find_message(group, number)) {
    bool complete = true;
    std::string text = filled(entry->text, arguments, complete);
    if (text.ends_with("?.")) text.pop_back(); // a question that ends the sentence
    return text;
  }
  std::string out = fmt::format("Message {}/{}", group, number);
  for (const MessageArgument& argument : arguments) out += fmt::format(", {}={}", argument.name, argument.value);
  return out;
}

void MessageSink::xpmlog(const NumberedMessage& named, const MessagePlace& place)
{
  const auto [group, number] = named.code();
  const CatalogueEntry* entry = find_message(group, number);
  Message message;
  message.group = group;
  message.number = number;
  message.severity = entry ? entry->severity : Severity::error;
  message.text = xpmstr(named);
  message.file = place.program;
  message.line = place.line;
  message.column = place.column;
  message.source = place.source;
  // The place goes before the full stop, so that the sentence stays one.
  const std::string where = place_text(place, message.severity);
  const bool stop = !where.empty() && message.text.ends_with('.') && message.text.find(". ") == std::string::npos;
  if (stop) message.text.pop_back();
  message.text += where;
  if (stop) message.text += '.';
  post(std::move(message));
}

void Journal::post(Message message)
{
  if (entries_.size() < limit_)
    entries_.push_back({false, std::move(message)});
  else
    ++dropped_;
}

void Journal::xpslog(std::string_view line)
{
  if (entries_.size() < limit_)
    entries_.push_back({true, Message{.text = std::string(line)}});
  else
    ++dropped_;
}

void Journal::replay(MessageSink& sink)
{
  for (Entry& entry : entries_) {
    if (entry.raw)
      sink.xpslog(entry.message.text);
    else
      sink.post(std::move(entry.message));
  }
  if (dropped_ > 0) sink.xpmlog(message::messages_dropped{.count = dropped_});
  clear();
}

void Journal::clear()
{
  entries_.clear();
  dropped_ = 0;
}

void MessageLog::post(Message message)
{
  if (message.severity == Severity::error) ++errors_;
  const bool asked_for = message.group == 503 && message.number >= 400 && message.number < 450; // LOGNOTE
  if (!asked_for && ++repeats_[{message.group, message.number}] > repeat_limit) return;
  message.by_group = by_group_;
  locate(message);
  if (writer_) write(message);
  messages_.push_back(std::move(message));
}

void MessageLog::set_program(std::string name, std::string text)
{
  program_name_ = std::move(name);
  program_text_ = std::move(text);
}

// Fills in the file and the source line of a place that counts in the program itself.
void MessageLog::locate(Message& message) const
{
  if (message.line <= 0 || !message.file.empty()) return;
  message.file = program_name_;
  std::string_view rest = program_text_;
  for (int line = 1; line < message.line; ++line) {
    const std::size_t end = rest.find('\n');
    if (end == std::string_view::npos) return;
    rest.remove_prefix(end + 1);
  }
  message.source = rest.substr(0, rest.find('\n'));
  if (message.source.ends_with('\r')) message.source.pop_back();
}

// Words, then for warnings and errors the place in the form that editors follow, its line and carets below the words
// meant.
void MessageLog::write(const Message& message) const
{
  std::string text = wzstrup(severity_name(message.severity)) + ": " + message.text;
  if (message.severity != Severity::note) text += fmt::format(" [{}/{}]", message.group, message.number);
  for (const std::string& line : wrapped(text, log_width, 6)) writer_(line);
  if (message.severity == Severity::note || message.line <= 0 || message.file.empty()) return;
  const std::string column = message.column > 0 ? fmt::format(":{}", message.column) : std::string();
  writer_(fmt::format("  --> {}:{}{}", message.file, message.line, column));
  if (message.source.empty()) return;
  for (const std::string& line : source_excerpt(message.line, message.source, message.column, message.length))
    writer_(line);
}

void MessageLog::xpslog(std::string_view line)
{
  if (writer_) writer_(line);
}

void MessageLog::set_by_group(int group)
{
  if (group == by_group_) return;
  close_repeats();
  by_group_ = group;
}

void MessageLog::close_repeats()
{
  const auto repeats = std::exchange(repeats_, {});
  for (const auto& [code, times] : repeats)
    if (times > repeat_limit)
      xpmlog(message::repeated_message{.group = code.first, .number = code.second, .times = times - repeat_limit});
  repeats_.clear();
}

} // namespace torvale::host
