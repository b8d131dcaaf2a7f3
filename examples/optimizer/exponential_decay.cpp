// Fits y = a exp(-b t) + c to nine points by least squares under bounds and one linear constraint, and prints the
// iterations, the estimates and their standard errors. Everything that the optimizer knows of the problem goes through
// its record: two callbacks, bounds, a row, two sinks.

#include "optimizer/optimizer.h"

#include <cmath>
#include <cstdio>

using namespace torvale::optimizer;

namespace {

constexpr double t[] = {0.0, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0, 8.0};
constexpr double y[] = {10.2, 7.9, 6.1, 4.9, 4.0, 2.8, 2.1, 1.5, 1.2};

// Minus the log likelihood of normal errors with variance 0.01, but for its constant.
int objective(MINSTR* str)
{
  ++str->nfct;
  const double a = str->x[0], b = str->x[1], c = str->x[2];
  double sum = 0.0;
  for (std::size_t i = 0; i < std::size(t); ++i) {
    const double r = y[i] - (a * std::exp(-b * t[i]) + c);
    sum += r * r;
  }
  str->crit = sum / (2.0 * 0.01);
  return 0;
}

int gradient(MINSTR* str)
{
  ++str->ngrd;
  const double a = str->x[0], b = str->x[1], c = str->x[2];
  str->grad[0] = str->grad[1] = str->grad[2] = 0.0;
  for (std::size_t i = 0; i < std::size(t); ++i) {
    const double e = std::exp(-b * t[i]);
    const double r = (y[i] - (a * e + c)) / 0.01;
    str->grad[0] -= r * e;
    str->grad[1] += r * a * e * t[i];
    str->grad[2] -= r;
  }
  return 0;
}

void print_row(MINSTR*, const HistoryRow& row)
{
  std::printf("%4ld %5ld calls  objective %12.6f  largest gradient %10.3g  step %8.3g\n", row.iteration, row.calls,
              row.objective, row.gradient, row.first);
}

void print_message(MINSTR*, int group, int number, int, const double* values, int count)
{
  std::printf("[%d/%d] %s", group, number, message_text(group, number));
  for (int i = 0; i < count; ++i) std::printf("%s {%d} = %g", i == 0 ? "  where" : ",", i, values[i]);
  std::printf("\n");
}

} // namespace

int main()
{
  MINSTR str;
  COVSTR cov;
  tvlopti(&str);
  str.nvar = 3;
  str.bounds = 1;
  str.lincon = 1;
  str.ncon = 1;
  str.usfct = objective;
  str.usgrd = gradient;
  str.history = print_row;
  str.message = print_message;
  str.covstr = &cov;
  str.gchk = 3; // check the gradient before the first iteration
  str.fihs = 2; // and form the Hessian by central differences
  str.dbug = 2; // a row for each iteration
  if (tvlopta(&str) != 0) return 1;
  str.x[0] = 5.0, str.x[1] = 1.0, str.x[2] = 0.0;
  for (int i = 0; i < 3; ++i) str.lb[i] = 0.0;
  str.alcn[0] = 1.0, str.alcn[1] = 0.0, str.alcn[2] = 1.0; // a + c >= 10
  str.blcn[0] = 10.0;
  if (tvloptc(&str) != 0) return 1;
  int code = znlpdrv(&str, 1, 0, 0, 0);
  if (code == 0) code = znlpdrv(&str, 2, 0, 0, 0);
  const char* const names[] = {"a", "b", "c"};
  for (int i = 0; i < 3; ++i) std::printf("%s = %10.6f   standard error %9.6f\n", names[i], str.x[i], str.ster[i]);
  return code > 0 ? 0 : 1;
}
