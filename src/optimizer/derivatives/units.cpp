#include "optimizer/derivatives/units.h"

#include "optimizer/active_set/active_set.h"

#include <algorithm>
#include <cmath>

namespace torvale::optimizer {
namespace {

// The power of two nearest to a scale; 1 for what is no scale.
double power_of_two(double scale)
{
  if (!(scale > 0.0) || !std::isfinite(scale)) return 1.0;
  return std::ldexp(1.0, static_cast<int>(std::clamp(std::round(std::log2(scale)), -300.0, 300.0)));
}

enum class Direction { inwards, outwards };

void turn_points(MINSTR* str, Direction direction)
{
  for (long i = 0; i < str->nvar; ++i) {
    const double u = direction == Direction::inwards ? 1.0 / str->unit[i] : str->unit[i];
    for (double* const point : {str->x, str->xold}) point[i] *= u;
    for (double* const gradient : {str->grad, str->gold}) gradient[i] /= u;
    if (str->bounds == 0) continue;
    if (str->lb[i] > -largest) str->lb[i] *= u;
    if (str->ub[i] < largest) str->ub[i] *= u;
  }
}

// A Hessian that the caller writes itself. A factor that stands there in the meantime comes back as it was.
void turn_hessian(MINSTR* str, Direction direction)
{
  if (str->ushes == nullptr || str->hess == nullptr) return;
  double* element = str->hess;
  for (long i = 0; i < str->nvar; ++i)
    for (long j = 0; j <= i; ++j, ++element) {
      const double u = str->unit[i] * str->unit[j];
      *element *= direction == Direction::inwards ? u : 1.0 / u;
    }
}

// The largest gradient element in the caller's units. With linear rows the free space has no units of its own.
double user_gradient(const MINSTR& str)
{
  if (str.ider == 0 || str.opro != 0) return str.inner_gmax;
  double most = 0.0;
  for (long i = 0; i < str.nvar; ++i)
    if (str.iabc[i] == 0) most = std::max(most, std::abs(str.grad[i]));
  return most;
}

void turn(MINSTR* str, Direction direction)
{
  turn_points(str, direction);
  turn_hessian(str, direction);
  str->inner_units = direction == Direction::inwards;
  if (direction == Direction::inwards) {
    str->gmax = str->inner_gmax;
  } else {
    str->inner_gmax = str->gmax;
    str->gmax = user_gradient(*str);
  }
}

// What only the whole run turns.
void turn_problem(MINSTR* str, Direction direction)
{
  for (long i = 0; i < str->nvar; ++i) {
    const double u = direction == Direction::inwards ? 1.0 / str->unit[i] : str->unit[i];
    str->xval[i] *= u;
    if (!is_missing(str->hlim[i]) && str->hlim[i] < largest) str->hlim[i] *= u;
    for (long r = 0; r < str->ncon; ++r) str->alcn[r * str->nvar + i] /= u;
  }
}

} // namespace

InnerRun::InnerRun(MINSTR* record) : str(record)
{
  if (str->scale == nullptr) return;
  for (long i = 0; i < str->nvar; ++i) str->unit[i] = power_of_two(str->scale[i]);
  str->inner_gmax = str->gmax;
  turn_problem(str, Direction::inwards);
  turn(str, Direction::inwards);
}

InnerRun::~InnerRun()
{
  if (str->scale == nullptr) return;
  turn(str, Direction::outwards);
  turn_problem(str, Direction::outwards);
}

UserUnits::UserUnits(MINSTR* record) : str(record->inner_units ? record : nullptr)
{
  if (str != nullptr) turn(str, Direction::outwards);
}

UserUnits::~UserUnits()
{
  if (str != nullptr) turn(str, Direction::inwards);
}

InnerUnits::InnerUnits(MINSTR* record) : str(record->scale != nullptr && !record->inner_units ? record : nullptr)
{
  if (str != nullptr) turn(str, Direction::inwards);
}

InnerUnits::~InnerUnits()
{
  if (str != nullptr) turn(str, Direction::outwards);
}

double test_gradient(const MINSTR& str)
{
  if (str.scale == nullptr || str.inner_units || !str.agtl_default) return str.gmax;
  return str.inner_gmax;
}

} // namespace torvale::optimizer
