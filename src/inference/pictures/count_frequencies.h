#pragma once
// How often each count occurs among the responses, and how often the model expects it.

#include <vector>

namespace torvale::inference {

// Bins of `width` counts each, ascending from `first`. The bins at both ends also hold what lies beyond them.
struct CountFrequencies {
  double first = 0;
  double width = 1;
  std::vector<double> observed, expected; // records a bin
};

// count_frequencies: arguments of the distribution (POISSON, BINOMIAL or NEGBIN) follow each other, response_arguments
// a record. A record with a missing response or argument counts on neither side. Empty when nothing is left.
CountFrequencies count_frequencies(int distribution, const std::vector<double>& response,
                                   const std::vector<double>& arguments);

} // namespace torvale::inference
