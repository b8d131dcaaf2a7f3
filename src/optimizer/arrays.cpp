#include "optimizer/arrays.h"

#include "optimizer/optimizer.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <new>
#include <span>

namespace torvale::optimizer {
namespace {

constexpr long doubles_per_line = 8; // 64-byte lines

// One array of a block: where its pointer stands and how many doubles it needs.
struct Need {
  double* MINSTR::*array;
  long length;
};

long rounded(long length)
{
  return (std::max(length, 1L) + doubles_per_line - 1) / doubles_per_line * doubles_per_line;
}

template <class T> bool owns(const std::vector<T>& block, const T* p)
{
  return p != nullptr && !block.empty() && p >= block.data() && p < block.data() + block.size();
}

// Lays the arrays out in the block, each on a line of its own. Arrays that the caller has bound stay as they are; those
// of an earlier layout move, and their contents are lost when the block has to grow.
void lay_out(MINSTR* str, std::vector<double>& block, std::span<const Need> needs)
{
  long total = 0;
  for (const Need& need : needs) {
    double*& array = str->*need.array;
    if (owns(block, static_cast<const double*>(array))) array = nullptr;
    if (array == nullptr && need.length > 0) total += rounded(need.length);
  }
  const auto size = static_cast<std::size_t>(total + doubles_per_line);
  if (block.size() < size) block.assign(size, 0.0);
  const auto address = reinterpret_cast<std::uintptr_t>(block.data());
  double* next = block.data() + (64 - address % 64) % 64 / sizeof(double);
  for (const Need& need : needs) {
    double*& array = str->*need.array;
    if (array != nullptr || need.length <= 0) continue;
    array = next;
    next += rounded(need.length);
  }
}

template <class T> void bind(T*& array, std::vector<T>& block, std::size_t offset)
{
  if (array == nullptr || owns(block, static_cast<const T*>(array))) array = block.data() + offset;
}

} // namespace

long wrk2_length(const MINSTR& str)
{
  const long n = str.nvar;
  switch (str.tech) {
  case NMSIMP:
  case NMSIM2:
    return (n + 4) * n + n + 1; // vertices, their values, three points
  case DBLDOG:
    return 12 * n; // 7n of the quasi-Newton matrix, five vectors
  case TRUREG:
  case NEWRAP:
  case NRLINS:
  case NRRIDG:
    return 8 * n;
  default:
    return 7 * n;
  }
}

int tvlopta(MINSTR* str)
{
  str->nnva = str->nvar * (str->nvar + 1) / 2;
  const long n = std::max(str->nvar, 1L); // a problem without parameters has arrays as well
  const long rows = str->ncon;
  const Need needs[] = {
      {&MINSTR::x, n},    {&MINSTR::xold, n},        {&MINSTR::grad, n},
      {&MINSTR::gold, n}, {&MINSTR::sdir, n},        {&MINSTR::work, n},
      {&MINSTR::dsca, n}, {&MINSTR::ster, n},        {&MINSTR::wfid, n + str->mequ},
      {&MINSTR::hfwd, n}, {&MINSTR::hcnt, n},        {&MINSTR::lb, n},
      {&MINSTR::ub, n},   {&MINSTR::alcn, rows * n}, {&MINSTR::blcn, rows},
      {&MINSTR::gpro, n}, {&MINSTR::lagm, n + rows}, {&MINSTR::awrk, 8 * n + 2 * rows},
      {&MINSTR::xval, n}, {&MINSTR::xbes, n},        {&MINSTR::gbes, n},
      {&MINSTR::xtmp, n}, {&MINSTR::gtmp, n},        {&MINSTR::hlim, n},
      {&MINSTR::unit, n},
  };
  const bool own_lower = str->lb == nullptr || owns(str->problem_block, static_cast<const double*>(str->lb));
  const bool own_upper = str->ub == nullptr || owns(str->problem_block, static_cast<const double*>(str->ub));
  try {
    lay_out(str, str->problem_block, needs);
    const auto count = static_cast<std::size_t>(std::max(n, 1L));
    const auto constraints = count + static_cast<std::size_t>(rows);
    str->index_block.assign(count + 2 * constraints, 0);
    str->flag_block.assign(count, 0);
    str->state_block.assign(count, 0);
    bind(str->ifxr, str->index_block, 0);
    bind(str->iact, str->index_block, count);
    bind(str->ldco, str->index_block, count + constraints);
    bind(str->ofco, str->flag_block, 0);
    bind(str->iabc, str->state_block, 0);
  } catch (const std::bad_alloc&) {
    return 1016;
  }
  if (own_lower) std::fill_n(str->lb, n, -largest);
  if (own_upper) std::fill_n(str->ub, n, largest);
  std::fill_n(str->hfwd, n, missing);
  std::fill_n(str->hcnt, n, missing);
  str->xval_current = false;
  return 0;
}

int provide_technique_arrays(MINSTR* str)
{
  const long n = str->nvar;
  const long packed = n * (n + 1) / 2;
  // A conjugate gradient or a simplex needs no matrix. The Hessian of the covariance step comes from the covariance
  // request's own storage.
  const bool matrix = str->tech != CONGRA && str->tech != NMSIMP && str->tech != NMSIM2 && str->tech != NONE;
  const bool hessian_technique = str->ider >= 4;
  // The quasi-Newton techniques try their start from a Hessian there, Newton steps are taken from it; `load` may be set
  // after this, and so every technique with a matrix has it.
  const Need needs[] = {
      {&MINSTR::hess, matrix ? packed : 0},
      {&MINSTR::hpro, matrix ? packed : 0},
      {&MINSTR::half, hessian_technique ? packed : 0},
      {&MINSTR::wrk2, wrk2_length(*str)},
      {&MINSTR::qlcn, str->lincon != 0 ? n * n : 0},
      {&MINSTR::llcn, str->lincon != 0 ? packed : 0},
  };
  try {
    lay_out(str, str->technique_block, needs);
  } catch (const std::bad_alloc&) {
    return 1016;
  }
  return 0;
}

} // namespace torvale::optimizer
