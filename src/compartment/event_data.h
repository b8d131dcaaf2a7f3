#pragma once
// The variables of event records, and what their values in the data tell of the program that is needed.

#include "compartment/options.h"

#include <optional>

namespace torvale::compartment {

// Reads EVENTS(...) of the statement and looks the data through. False when a variable is not there: the log says so.
bool read_events(const syntax::STMT& statement, std::span<const Variable> data, const host::MessagePlace& place,
                 host::MessageSink& log, Events& events);

// Crossing: rows, from 0, of a dose and of a record of another subject in which it would still act.
struct Crossing {
  std::size_t dose, record;
};
// With nested levels amounts begin anew in each innermost subject. The first dose, if any, that has infusions or
// additional doses to come when a record of another innermost subject of the same outer one follows, and that record.
// `outer` and `inner` number the subjects of each row.
std::optional<Crossing> dose_across_subjects(const syntax::STMT& statement, std::span<const Variable> data,
                                             std::span<const std::size_t> outer, std::span<const std::size_t> inner);

// The first row whose time is below that of the row before, both of the same subject, without a reset there.
std::optional<std::size_t> falling_time(const syntax::STMT& statement, std::span<const Variable> data,
                                        std::span<const std::size_t> subject);

} // namespace torvale::compartment
