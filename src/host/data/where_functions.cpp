#include "host/data/where_functions.h"
#include "host/values/calendar.h"
#include "host/values/missing.h"
#include "host/values/text.h"
#include <algorithm>
#include <cmath>

namespace torvale::host {

namespace {

using Numbers = std::span<const double>;

double one(Numbers x, double (*f)(double))
{
  return std::isnan(x[0]) ? missing : canonical_missing(f(x[0]));
}
double date_part(Numbers x, int CivilDate::*part)
{
  const auto date = date_of(x[0]);
  return date ? (*date).*part : missing;
}
double round_to(Numbers x)
{
  const double unit = x.size() > 1 ? x[1] : 1.0;
  if (std::isnan(x[0]) || std::isnan(unit) || unit == 0.0) return missing;
  return std::copysign(std::floor(std::fabs(x[0] / unit) + 0.5), x[0]) * std::fabs(unit);
}
double modulus(Numbers x)
{
  return std::isnan(x[0]) || std::isnan(x[1]) || x[1] == 0.0 ? missing : std::fmod(x[0], x[1]);
}
// The extreme of the values that are not missing.
double extreme(Numbers x, bool most)
{
  double best = missing;
  for (const double v : x)
    if (!std::isnan(v) && (std::isnan(best) || (most ? v > best : v < best))) best = v;
  return best;
}

constexpr WhereFunction functions[] = {
    {"ABS", "n", 1, 1, false, [](Numbers x) { return one(x, [](double v) { return std::fabs(v); }); }},
    {"SQRT", "n", 1, 1, false, [](Numbers x) { return one(x, [](double v) { return std::sqrt(v); }); }},
    {"LOG", "n", 1, 1, false, [](Numbers x) { return one(x, [](double v) { return v > 0 ? std::log(v) : missing; }); }},
    {"EXP", "n", 1, 1, false, [](Numbers x) { return one(x, [](double v) { return std::exp(v); }); }},
    {"INT", "n", 1, 1, false, [](Numbers x) { return one(x, [](double v) { return std::trunc(v); }); }},
    {"FLOOR", "n", 1, 1, false, [](Numbers x) { return one(x, [](double v) { return std::floor(v); }); }},
    {"CEIL", "n", 1, 1, false, [](Numbers x) { return one(x, [](double v) { return std::ceil(v); }); }},
    {"ROUND", "n", 1, 2, false, round_to},
    {"MOD", "n", 2, 2, false, modulus},
    {"MIN", "n", 2, 99, false, [](Numbers x) { return extreme(x, false); }},
    {"MAX", "n", 2, 99, false, [](Numbers x) { return extreme(x, true); }},
    {"YEAR", "n", 1, 1, false, [](Numbers x) { return date_part(x, &CivilDate::year); }},
    {"MONTH", "n", 1, 1, false, [](Numbers x) { return date_part(x, &CivilDate::month); }},
    {"DAY", "n", 1, 1, false, [](Numbers x) { return date_part(x, &CivilDate::day); }},
    {"MISSING", "a", 1, 1, false, nullptr},
    {"LENGTH", "c", 1, 1, false, nullptr},
    {"UPCASE", "c", 1, 1, true, nullptr},
    {"LOWCASE", "c", 1, 1, true, nullptr},
    {"TRIM", "c", 1, 1, true, nullptr},
    {"SUBSTR", "cn", 2, 3, true, nullptr},
};

} // namespace

const WhereFunction* find_where_function(std::string_view name)
{
  const auto* at = std::find_if(std::begin(functions), std::end(functions),
                                [&](const WhereFunction& f) { return equal_names(f.name, name); });
  return at == std::end(functions) ? nullptr : at;
}

std::string_view where_function_names()
{
  return "ABS, SQRT, LOG, EXP, INT, FLOOR, CEIL, ROUND, MOD, MIN, MAX, YEAR, MONTH, DAY, MISSING, LENGTH, UPCASE, "
         "LOWCASE, "
         "TRIM, SUBSTR";
}

// Greedy, with one place to come back to: the last % seen.
bool matches_pattern(std::string_view text, std::string_view pattern)
{
  std::size_t t = 0, p = 0, back_t = 0, back_p = std::string_view::npos;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '%') {
      back_p = ++p;
      back_t = t;
    } else if (p < pattern.size() && (pattern[p] == '_' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (back_p != std::string_view::npos) {
      p = back_p;
      t = ++back_t;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('%', p) == std::string_view::npos;
}

} // namespace torvale::host
