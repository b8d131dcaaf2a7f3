#pragma once
// The words of every message that the optimizer sends, and of its tables, once: message_text gives them to whoever uses
// the optimizer alone, and a catalogue of messages may take the whole table.

#include <span>

namespace torvale::optimizer {

struct MessageRow {
  int group; // 352 options, 549 reports, 503 the procedure
  int number;
  const char* name;   // what happened, as a word for sources
  int severity;       // 1 note, 2 warning, 3 error
  const char* words;  // {0}, {1}, ... where values go
  const char* causes; // usual causes; may be empty
  const char* advice; // what to try; may be empty
};

std::span<const MessageRow> message_table();

} // namespace torvale::optimizer
