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

} // namespace torvale::model
