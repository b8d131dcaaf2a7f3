#pragma once
// One regression with 1 to 3 random effects for every response distribution, with data drawn to suit it.

#include "integration/small_model.h"

namespace torvale::tests {

enum class Response { normal, t, binary, binomial, poisson, negbin, gamma, general };
inline constexpr Response responses[] = {Response::normal, Response::t,      Response::binary, Response::binomial,
                                         Response::poisson, Response::negbin, Response::gamma,  Response::general};
const char* name_of(Response response);

// eta = b0 + u0 + (b1 + u1) x + u2 w, with as many of the effects as asked, means mu0 x-free and G unstructured.
// Subjects have 3 to 6 observations, rows are shuffled when `shuffle` is set.
ModelText regression(Response response, int effects, int subjects = 6, bool shuffle = false);

// eta = b0 + u0 + (b1 + u1) x + v0 (+ w0): an outer level with two effects, an inner one, and with depth 3 one inside that. Inner
// subject names start anew in each outer subject; outer subjects have 2 to 4 children, leaves 2 to 4 observations.
ModelText nested(Response response, int depth, int subjects = 5, bool shuffle = false);

// Parameters near which the model makes sense, moved at random by the seed.
std::vector<double> parameters(const ModelText& text, unsigned seed);

// An evaluation with a gradient knows how the modes move with the parameters: they are those of nearby points, and a
// search that starts from them ends where one from the mean does.
void expect_moving_modes(const ModelText& text, const std::vector<double>& theta);

} // namespace torvale::tests
