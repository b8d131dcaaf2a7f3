#pragma once
// The codes of _CMPT_TYPE_: how the doses of a record combine to what is there.

#include <cstdint>
#include <span>
#include <string_view>

namespace torvale::compartment {

enum class Doses : std::uint8_t { none, single, numbered };

enum class Route : std::uint8_t {
  none,
  bolus,
  family,      // what the model's administration is
  data_rate,   // an infusion with the rate in the data
  duration,    // an infusion with the duration of DURN=
  option_rate, // an infusion with the rate of RATE=
  oral,
};

// `history`: the doses so far; `steady`: doses that have come for ever.
struct DoseCode {
  std::string_view code;
  Doses history = Doses::none, steady = Doses::none;
  Route route = Route::none;
};

std::span<const DoseCode> dose_codes();

} // namespace torvale::compartment
