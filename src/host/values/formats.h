#pragma once
#include "host/values/calendar.h"
#include "host/values/text.h"
#include <optional>
#include <string>
#include <string_view>

// Formats of values: how a number or a text is written (PUT, output data sets, listings) and how a text is read as a
// number (INPUT). "name width . decimals", as 8.2, COMMA12.2, DATE9., $QUOTE20.; case does not matter, the point may be
// left out behind a name.
namespace torvale::host {

struct ValueFormat {
  enum class Kind {
    fixed,        // w.d, F
    best,         // BEST: as much as fits
    best_fit,     // D
    probability,  // PVALUE
    zeros,        // Z: fixed with leading zeros
    comma,        // COMMA: 1,234.50
    comma_point,  // COMMAX: 1.234,50
    percent,      // PERCENT: 0.25 is 25%
    exponent,     // E: 1.250E-01
    hexadecimal,  // HEX: a whole number; HEX16: the bits of the number
    date,         // DATE: 31JAN2024; 31JAN24 in 7 places
    datetime,     // DATETIME: 31JAN2024:13:30:15
    time,         // TIME: 13:30:15, hours may pass 24
    yymmdd,       // YYMMDD: 2024-01-31, 240131 in 6 places
    ddmmyy,       // DDMMYY: 31/01/2024
    mmddyy,       // MMDDYY: 01/31/2024
    monyy,        // MONYY: JAN2024
    year,         // YEAR
    month,        // MONTH
    day,          // DAY
    iso_datetime, // ISODT: 2024-01-31T13:30:15
    characters,   // $: as it is
    quote,        // $QUOTE: in double quotes
    upper,        // $UPCASE
  };
  Kind kind = Kind::best;
  int width = 12;
  int decimals = 0;

  bool character() const { return kind >= Kind::characters; }
  Moment moment() const; // what numbers in this format mean
};

// Nothing, with what is wrong in `problem`, when there is no such format or its width does not fit.
std::optional<ValueFormat> parse_value_format(std::string_view text, std::string& problem);

// The names that parse_value_format knows, for messages.
std::string format_names();

// A value in its width: numbers stand at the right, texts at the left, missing values are a point or a letter. What
// does not fit is shown with fewer digits, at last as asterisks.
std::string format_value(double x, const ValueFormat& format);
std::string format_text(std::string_view text, const ValueFormat& format);

// A text read as a number the way the format writes it: dates by any of the spellings of dates, COMMA without its
// commas, PERCENT divided by 100, HEX; w.d puts d decimals into digits without a point. The missing value for blanks
// and for what does not fit.
double read_value(std::string_view text, const ValueFormat& format);

} // namespace torvale::host
