#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Names, numbers and columns of text. Nothing here knows a locale.
namespace torvale::host {

// --- Names: ASCII case does not matter ---------------------------------------------------------------------------

std::string wzstrlo(std::string_view text); // lower case (w host utility, z, str string, lo lower)
std::string wzstrup(std::string_view text); // upper case
bool equal_names(std::string_view a, std::string_view b);
int compare_names(std::string_view a, std::string_view b); // -1, 0, 1, ignoring case
std::string_view stripped(std::string_view text);          // without leading and trailing blanks, tabs, line ends

// The longest beginning of a name that has at most `bytes` bytes and does not split a UTF-8 character.
std::string_view cut_name(std::string_view name, std::size_t bytes);

// Order of two character values: as if the shorter were padded with blanks. Case matters.
int compare_padded(std::string_view a, std::string_view b);

// Number of single-character changes (insert, delete, replace, swap of neighbours) between two names, ignoring case.
int edit_distance(std::string_view a, std::string_view b);

// The candidate nearest to `name` within edit distance 2 (and less than the name's own length), or an empty text.
std::string nearest_name(std::string_view name, const std::vector<std::string>& candidates);

// --- Numbers -------------------------------------------------------------------------------------------------------

// Shortest text that reads back as the same double: "0.1", "1e+20", "inf", "-inf"; missing values are ".", "._", ".A".
std::string shortest(double x);
void append_shortest(std::string& out, double x); // the same, at the end of `out`

// A number as people write it in a data file: sign, digits, point, exponent; no words, no hexadecimal, no blanks
// inside. Nothing when the text is not wholly a number, or too large for a double. Values too small become 0.
std::optional<double> parse_number(std::string_view text);

// A number for a sentence: whole numbers in full, others with about six significant digits.
std::string readable(double x);

// The missing value that a field spells: empty, ".", "._", ".a" to ".Z". Nothing for any other text.
std::optional<double> parse_missing(std::string_view text);

// --- Formats -------------------------------------------------------------------------------------------------------

// How a number is shown: "10.4" (width, decimals), "D8.3" (best fit: at least 3 significant digits in 8 places, with
// common decimals in a column; "D12.7.2": at least 2 of them), "BEST8" (as much as fits in 8 places), "PVALUE6.4"
// ("<.0001" for small ones), "8" or "8." (integer). An empty format is "BEST12".
struct NumberFormat {
  enum class Kind { fixed, best_fit, best, probability };
  Kind kind = Kind::best;
  int width = 12;
  int digits = 0;         // decimals, or significant digits of a best fit
  int least_decimals = 0; // of a best fit
};
NumberFormat parse_format(std::string_view text);

// One number, not padded. Falls back to an exponent when the width is too small. Missing: ".", "_", "A".
std::string format_number(double x, const NumberFormat& format);

// A column of numbers under one format, not padded; a best fit gives all of them the same decimals when they fit.
std::vector<std::string> format_column(const std::vector<double>& values, const NumberFormat& format);

// --- Lines ---------------------------------------------------------------------------------------------------------

// Columns that a UTF-8 text takes on a terminal, one per code point.
std::size_t display_width(std::string_view text);
std::string padded_left(std::string_view text, std::size_t width);  // blanks before
std::string padded_right(std::string_view text, std::size_t width); // blanks behind
std::string centred(std::string_view text, std::size_t width);

// `text` with bytes that are not UTF-8 replaced by U+FFFD.
std::string valid_utf8(std::string_view text);

bool is_utf8(std::string_view text);
// A text in Windows 1252, of which Latin 1 is a part, as UTF-8.
std::string utf8_from_windows(std::string_view text);

// A paragraph broken into lines of at most `width` columns, the later ones behind `indent` blanks.
std::vector<std::string> wrapped(std::string_view text, std::size_t width, std::size_t indent);

} // namespace torvale::host
