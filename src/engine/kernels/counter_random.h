#pragma once
// Random numbers by counter: a number is a function of where it is drawn, not of what was drawn before. An evaluation
// therefore sees the same numbers at every point, in every packing and on every thread.

namespace torvale::engine {

// A uniform number in (0, 1), a multiple of 2^-53 plus 2^-54. The operands are whole numbers of at most 2^53 in size;
// NaN when one is missing.
double uniform_at(double seed, double observation, double call_site, double count);

} // namespace torvale::engine
