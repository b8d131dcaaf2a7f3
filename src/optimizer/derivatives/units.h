#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// Units of the parameters. With `scale` a run works on x / scale: its steps, norms and intervals then mean the same
// whatever unit a parameter is measured in. Scales are rounded to powers of two, so that going to and fro changes no
// bit. Everything that is called from inside sees x, xold, grad, gold, the bounds, hess and gmax in the caller's units.

// InnerRun: the record in inner units while it lives: arrays, rows and what is known of difference intervals. Does
// nothing without `scale`.
class InnerRun {
public:
  explicit InnerRun(MINSTR* record);
  ~InnerRun();
  InnerRun(const InnerRun&) = delete;
  InnerRun& operator=(const InnerRun&) = delete;

private:
  MINSTR* str;
};

// UserUnits, InnerUnits: the record in the caller's units, or back in inner ones, while one of them lives, within an
// InnerRun. They may be nested in one another; outside an InnerRun they do nothing.
class UserUnits {
public:
  explicit UserUnits(MINSTR* record);
  ~UserUnits();
  UserUnits(const UserUnits&) = delete;
  UserUnits& operator=(const UserUnits&) = delete;

private:
  MINSTR* str; // null: nothing to turn back
};

class InnerUnits {
public:
  explicit InnerUnits(MINSTR* record);
  ~InnerUnits();
  InnerUnits(const InnerUnits&) = delete;
  InnerUnits& operator=(const InnerUnits&) = delete;

private:
  MINSTR* str;
};

// test_gradient: the largest projected gradient element that ABSGCONV is compared with: of the inner problem by
// default, in the caller's units where the caller has given the criterion.
double test_gradient(const MINSTR& str);

} // namespace torvale::optimizer
