#pragma once
// How a fault of the user's program is told: the statement and its line, the observation and the subject.

#include "model/run_record.h"

namespace torvale::evaluation {

// Data row and subject of a row of the store.
host::MessagePlace place_of(const model::NX& n, std::int64_t row);
// Number of a row in its BY group, from 1.
std::int64_t observation_number(const model::GroupState& n, std::int64_t row);

// The words of a fault for a message: what happened ("reason"), the text of the line ("source"), and its place.
struct FaultWords {
  std::string reason;
  std::string source;
  host::MessagePlace at;

  // Fills the members of a message, and the line and file of its place.
  template <class Message> void add_to(Message& message, host::MessagePlace& place) const
  {
    message.reason = reason;
    message.source = source;
    place.line = at.line;
    place.column = at.column;
    place.program = at.program;
    place.source = at.source;
  }
};
FaultWords words_of(const model::ModelLists& n, const engine::Fault& fault);

} // namespace torvale::evaluation
