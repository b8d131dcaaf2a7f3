#pragma once
#include "host/messages/names/labels.h"

namespace torvale::model {

// The words of a distribution code of MODEL or RANDOM, for tables and messages.
inline host::MessageCode distribution_label(int code)
{
  constexpr host::MessageCode labels[] = {label::normal,
                                          label::t,
                                          label::binary,
                                          label::binomial,
                                          label::poisson,
                                          label::general,
                                          label::negative_binomial,
                                          label::gamma,
                                          label::discrete};
  return labels[code];
}

// Whether the likelihood of a MODEL distribution is a probability, which 1 bounds, and no density.
inline bool has_probabilities(int code)
{
  return (code >= 2 && code <= 4) || code == 6; // binary, binomial, Poisson, negative binomial
}

} // namespace torvale::model
