#pragma once
// The options of CMPTMODEL: what each is called, which of them a family of models takes, and what was given.

#include "host/messages/messages.h"
#include "syntax/records.h"
#include "syntax/statement_names.h"

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::compartment {

enum class Administration : std::uint8_t { bolus = 1, infusion = 2, oral = 3 };

// The options whose value is a name or a number: pconc to pconc0 of the statement's slots.
using Option = syntax::cmptmodel_slot;
inline constexpr std::size_t option_slots = static_cast<std::size_t>(Option::pconc0) + 1;

// The word of an option, in capitals: "K10" is "KE".
std::string_view option_word(Option option);

struct Variable {
  std::string name;
  bool character = false;
  std::span<const double> values{}; // of a numeric variable; borrowed
};

// What the input data set has of dose records: variables whose names begin with _CMPT_.
struct DoseVariables {
  bool present = false;        // there is a type variable, so the data set holds dose records
  int doses = 1;               // numbered doses, at least 1
  int steady = 1;              // numbered steady-state doses, at least 1
  std::vector<Variable> names; // all of them
  bool has(std::string_view name) const;
};
DoseVariables dose_variables(std::span<const Variable> data);

enum class EventItem : std::uint8_t { time, amt, evid, cmt, rate, ii, addl, ss, mdv, count_ };

// Events: EVENTS of a CMPTMODEL statement.
struct Events {
  bool given = false;
  std::array<std::string, static_cast<std::size_t>(EventItem::count_)>
      name;                         // variable as typed; empty: the data has none
  std::string bioavailability, lag; // F= and ALAG=; empty when not given
  int places = 0;                   // doses that may act, or wait, at the same time
  bool trains = false;              // a place may hold several doses: additional ones, or infusions that overlap
  bool infusions = false;           // some record has a rate
  bool steady = false;              // some record asks for a steady state
  bool steady_overlap = false;      // with infusions that may be longer than their interval
  bool has(EventItem i) const { return !name[static_cast<std::size_t>(i)].empty(); }
  const std::string& of(EventItem i) const { return name[static_cast<std::size_t>(i)]; }
};

// Model: one CMPTMODEL statement, read and found right.
struct Model {
  int earlier = 0;      // models before it in the program
  int compartments = 1; // 1, 2 or 3
  Administration administration = Administration::bolus;
  bool clearances = false; // parameters are clearances and volumes, not rate constants
  Events events;           // records of events, when EVENTS is given
  DoseVariables records;   // of the data set; `present` makes it a model of dose records
  std::array<std::string, option_slots>
      value; // by slot: name or number as it is typed; empty when not given or ignored
  bool given(Option o) const { return !value[static_cast<std::size_t>(o)].empty(); }
  const std::string& text(Option o) const { return value[static_cast<std::size_t>(o)]; }
  std::string_view family() const; // "ivb", "inf" or "oral", as in the names of generated variables
};

// Reads the statement's record and checks it against its family. False when the model cannot be: the log says why.
bool read_model(const syntax::STMT& statement, std::span<const Variable> data, const host::MessagePlace& place,
                host::MessageSink& log, Model& model);

} // namespace torvale::compartment
