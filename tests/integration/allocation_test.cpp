// An evaluation allocates nothing: every array is sized before.

#include "engine/stages/native_stage.h"
#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> allocations{0};

void* counted(std::size_t bytes, std::size_t alignment = alignof(std::max_align_t))
{
  ++allocations;
  void* const p = std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

} // namespace

[[gnu::noinline]] void* operator new(std::size_t bytes)
{
  return counted(bytes);
}
[[gnu::noinline]] void* operator new[](std::size_t bytes)
{
  return counted(bytes);
}
[[gnu::noinline]] void* operator new(std::size_t bytes, std::align_val_t a)
{
  return counted(bytes, static_cast<std::size_t>(a));
}
[[gnu::noinline]] void* operator new[](std::size_t bytes, std::align_val_t a)
{
  return counted(bytes, static_cast<std::size_t>(a));
}
[[gnu::noinline]] void operator delete(void* p) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, std::size_t) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::align_val_t) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, std::align_val_t) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, std::size_t, std::align_val_t) noexcept
{
  std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, std::size_t, std::align_val_t) noexcept
{
  std::free(p);
}

namespace torvale::tests {

namespace {

void expect_none(const ModelText& text, const Rule& rule)
{
  const auto n = make_run(text, rule);
  auto theta = parameters(text, 1);
  // The first evaluations of each kind may size what belongs to the run.
  objective(*n, theta, true);
  integration::accept_modes(*n);
  objective(*n, theta, false);
  n->parm[0] += 0.05;
  for (const bool gradient : {true, false}) {
    n->dograd = gradient;
    const long before = allocations;
    evaluate_anew(*n);
    EXPECT_EQ(allocations - before, 0) << gradient << " method " << rule.method;
    EXPECT_FALSE(n->failed);
    integration::accept_modes(*n);
  }
}

} // namespace

TEST(Allocations, NoneInAnEvaluation)
{
  engine::set_native_pairs_after(0); // machine code for pairs is written in the first evaluations, as the other is
  for (const Rule& rule : {Rule{true, true, 5}, Rule{true, false, 5}, Rule{false, false, 5}})
    expect_none(regression(Response::negbin, 2, 60), rule);
  auto linear = regression(Response::normal, 2, 60);
  linear.assignments.insert(linear.assignments.begin() + 1, {"var", Term("s2")});
  expect_none(linear, {false, false, 0, 1});
  expect_none(linear, {true, false, 0, 1});
  auto logistic = regression(Response::binary, 1, 60);
  expect_none(logistic, {true, false, 0, 2});
  logistic.prior = {Term("b1"), Term(0.3), Term("g11"), Term("s2") * 0.5};
  expect_none(logistic, {false, false, 0, 4});
}

TEST(Allocations, NoneInAnEvaluationOfNestedLevels)
{
  for (const int depth : {2, 3})
    for (const Rule& rule : {Rule{true, true, 3}, Rule{true, false, 3}, Rule{false, false, 3}})
      expect_none(nested(Response::poisson, depth), rule);
}

} // namespace torvale::tests
