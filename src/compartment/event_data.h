#pragma once
// The variables of event records, and what their values in the data tell of the program that is needed.

#include "compartment/options.h"

namespace torvale::compartment {

// Reads EVENTS(...) of the statement and looks the data through. False when a variable is not there: the log says so.
bool read_events(const syntax::STMT& statement, std::span<const Variable> data, const host::MessagePlace& place,
                 host::MessageSink& log, Events& events);

} // namespace torvale::compartment
