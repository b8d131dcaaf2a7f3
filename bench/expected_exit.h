#pragma once
// A program that does not run as it should costs no time, and its figure means nothing.

#include <cstdio>
#include <cstdlib>
#include <string>

namespace torvale::bench {

// Ends the bench, with what the run said on its log, unless the run ended with the code that belongs to it.
inline void expect_exit(int code, int expected, const std::string& log)
{
  if (code == expected) return;
  std::fprintf(stderr, "%sThe program of this benchmark ended with exit code %d, not %d.\n", log.c_str(), code,
               expected);
  std::exit(1);
}

} // namespace torvale::bench
