#pragma once
#include "host/messages/catalogue.h"
#include <concepts>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Numbered messages. Words, severity and advice stand in one table, catalogue.cpp, and each message has a name there; a
// caller writes xpmlog(message::seed_too_large{.limit = x}, place) with the names that the build makes of that table
// (host/messages/names/TOPIC.h). Groups: 503 the procedure (message::, and label:: for the words of tables), 352 the
// optimizer's options, 549 its reports, 100 the parser. Numbers of 503 from 9000 on are of our own making: 9000 to 9199
// the host, 9200 to 9299 data and solve; a room takes the next free hundred.
namespace torvale::host {

std::string_view severity_name(Severity severity); // "note", "warning", "error"

// One named argument; numbers become readable text: whole ones in full, others with about six digits.
struct MessageArgument {
  std::string name;
  std::string value;
  MessageArgument(std::string_view n, std::string_view v) : name(n), value(v) {}
  MessageArgument(std::string_view n, const char* v) : name(n), value(v) {}
  MessageArgument(std::string_view n, const std::string& v) : name(n), value(v) {}
  MessageArgument(std::string_view n, double v);
  MessageArgument(std::string_view n, std::integral auto v) : name(n), value(std::to_string(v)) {}
};
using MessageArguments = std::vector<MessageArgument>;

// Where something happened; every field may be left unset. Shown behind the text.
struct MessagePlace {
  std::string statement{};    // name of the statement, as "PARMS"
  int line = 0;               // line of the program, from 1
  int column = 0;             // column of that line, from 1
  std::int64_t row = 0;       // observation number, from 1
  std::string subject{};      // text of the subject
  std::string file{};         // data file
  std::int64_t file_line = 0; // line of that file, from 1
  std::string program{};      // file that line and column count in; empty: the program itself
  std::string source{};       // text of that line; empty: looked up in the program
};

struct Message {
  int group = 0;
  int number = 0;
  Severity severity = Severity::note;
  std::string text{};
  int by_group = -1; // number of the BY group from 0, -1 outside
  // Where in the program; line 0: nowhere, or told by the text alone.
  std::string file{};
  int line = 0;
  int column = 0;       // from 1; 0: the whole line
  int length = 0;       // characters from there on; 0: not known
  std::string source{}; // text of that line
};

const CatalogueEntry* find_message(int group, int number); // null when there is none

// What "torvale explain CODE" prints; CODE is "503/72", "503-72" or "72" (group 503). Empty when there is no such
// message.
std::string explain_message(std::string_view code);

// A message by its number alone.
struct MessageCode {
  int group;
  int number;
};

// The value of a named argument, as text.
class MessageValue {
public:
  MessageValue(std::string_view v) : text_(v) {}
  MessageValue(const char* v) : text_(v) {}
  MessageValue(std::string v) : text_(std::move(v)) {}
  MessageValue(double v);
  MessageValue(std::integral auto v) : text_(std::to_string(v)) {}
  const std::string& text() const { return text_; }

protected:
  MessageValue() = default;

private:
  std::string text_;
};

// An argument that may stay unset, as may an empty text: the stretch of the words that shows it then falls away.
class OptionalMessageValue : public MessageValue {
public:
  using MessageValue::MessageValue;
  OptionalMessageValue() = default;
};

// A message with its arguments, whatever its kind: what the records of host/messages/names/TOPIC.h turn into.
class NumberedMessage {
public:
  struct Argument {
    std::string_view name;
    const MessageValue* value; // null: not given
    Argument(std::string_view n, const MessageValue& v) : name(n), value(&v) {}
    Argument(std::string_view n, const OptionalMessageValue& v) : name(n), value(v.text().empty() ? nullptr : &v) {}
  };
  NumberedMessage(MessageCode code) : code_(code) {}
  NumberedMessage(MessageCode code, std::initializer_list<Argument> arguments);
  // Values by position for {0}, {1}, ...: messages that another library raises by number.
  NumberedMessage(MessageCode code, const std::vector<std::string>& values);
  MessageCode code() const { return code_; }
  const MessageArguments& arguments() const { return arguments_; }

private:
  MessageCode code_;
  MessageArguments arguments_;
};

// xpmstr: the words of a message, arguments filled in. A number that the catalogue lacks still gives a text that names
// group, number and all arguments. (x host, pm print message, str to a string.)
std::string xpmstr(const NumberedMessage& message);

// otbmsg: the words of a label or title of an output table. (otb output table, msg message.)
inline std::string otbmsg(const NumberedMessage& message)
{
  return xpmstr(message);
}

// Anything that takes messages: the log, or a worker's journal.
class MessageSink {
public:
  virtual ~MessageSink() = default;

  // xpmlog: raise a message. (x host, pm print message, log to the log.)
  void xpmlog(const NumberedMessage& message, const MessagePlace& place = {});

  // xpslog: a raw line for the log, without number; not part of the results.
  virtual void xpslog(std::string_view line) = 0;

  virtual void post(Message message) = 0;
};

// The messages of one worker during one evaluation, kept until the main thread replays them in a fixed order.
class Journal final : public MessageSink {
public:
  explicit Journal(std::size_t limit = 100) : limit_(limit) {}
  void post(Message message) override;
  void xpslog(std::string_view line) override;
  void replay(MessageSink& sink); // hands everything on in order and empties the journal
  void clear();
  bool empty() const { return entries_.empty() && dropped_ == 0; }

private:
  struct Entry {
    bool raw;
    Message message; // of a raw line only the text counts
  };
  std::size_t limit_;       // most entries kept
  std::size_t dropped_ = 0; // entries beyond the limit
  std::vector<Entry> entries_;
};

// The run's log: writes "NOTE:", "WARNING:", "ERROR:" lines and keeps the records for the results. Main thread only.
class MessageLog : public MessageSink {
public:
  using LineWriter = std::function<void(std::string_view line)>; // one line without its end
  explicit MessageLog(LineWriter writer = {}) : writer_(std::move(writer)) {}

  void post(Message message) override;
  void xpslog(std::string_view line) override;

  // The program that lines of places count in: its name and text, kept for the source lines under messages.
  void set_program(std::string name, std::string text);

  // Messages from now on belong to this BY group (from 0; -1 none). Counts of repeated messages start anew.
  void set_by_group(int group);

  // Says how often messages beyond the repeat limit occurred. Called when a group or a step ends.
  void close_repeats();

  const std::vector<Message>& messages() const { return messages_; }
  std::vector<Message> take_messages() { return std::exchange(messages_, {}); }
  bool has_errors() const { return errors_ > 0; }
  std::size_t errors() const { return errors_; }

  static constexpr int repeat_limit = 20; // the same message is shown this often per BY group

private:
  void locate(Message& message) const;
  void write(const Message& message) const;

  LineWriter writer_;
  std::string program_name_, program_text_;
  std::vector<Message> messages_;
  std::map<std::pair<int, int>, int> repeats_; // (group, number) -> times in this BY group
  int by_group_ = -1;
  std::size_t errors_ = 0;
};

} // namespace torvale::host
