#pragma once
// Whether the integrands of the subjects have modes that adapted points do not reach.
//
// Points that are centred at the mode that a search found, and scaled by the curvature there, say nothing of another
// mode far away: its share of the integral is lost, and more points of the same rule may agree without it.

#include "model/run_record.h"

namespace torvale::integration {

struct OtherModes {
  long looked = 0;     // subjects that were looked at: all, or every so many of a large group
  long subjects = 0;   // of these, such as lose more than rounding
  int worst = -1;      // the one that loses most: index into SubInfo
  double change = 0.0; // of -2 log L if the other modes counted, for all subjects: 0 or below, about
};

// find_other_modes: looks along lines through the modes at n.parm: every axis of the standardized random effects, and
// through the origin, where models that do not know the sign of an effect have their other mode; as far as the prior
// reaches. One level of normal random effects with adapted points or samples; finds nothing elsewhere. Points and modes
// of the run stay. Allocates. Returns 0, or the engine's code above 2.
int find_other_modes(model::NX& n, OtherModes& found);

} // namespace torvale::integration
