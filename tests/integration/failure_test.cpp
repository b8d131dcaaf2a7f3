// Evaluations that fail, and the optimizer's callbacks around them.

#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::tests {

namespace {

// The likelihood of subject 103 is missing when b0 is negative: log(b0).
ModelText half_plane()
{
  auto text = regression(Response::poisson, 1, 8);
  auto flag = text.columns[0];
  flag.first = "flag";
  for (double& f : flag.second) f = f == 103.0 ? 1.0 : 0.0;
  text.columns.push_back(flag);
  text.assignments[1].second = text.assignments[1].second + Term("flag") * (log(Term("b0") * "flag" + (Term(1.0) - "flag")));
  return text;
}

} // namespace

TEST(Failures, OneFixedResultForAnyNumberOfThreads)
{
  const auto text = half_plane();
  auto theta = parameters(text, 1);
  theta[0] = -0.5;
  for (const int threads : {1, 2, 5}) {
    const auto n = make_run(text, {true, true, 5, 0, 0, threads});
    EXPECT_EQ(objective(*n, theta, true), model::failure_objective);
    EXPECT_TRUE(n->failed);
    EXPECT_EQ(n->objgrad, std::vector<double>(theta.size(), 1.0));
    EXPECT_EQ(n->slot_status[3], 358);
    EXPECT_EQ(std::count(n->slot_status.begin(), n->slot_status.begin() + 3, 0), 3);
    integration::accept_modes(*n); // a failed point has no modes to commit
    EXPECT_EQ(n->ebes_known[0], 0);

    theta[0] = 0.5;
    EXPECT_LT(objective(*n, theta, true), 1e6);
    const auto good = n->objgrad;
    theta[0] = -0.5;
    n->converged = true; // the last good gradient stands in
    objective(*n, theta, true);
    EXPECT_EQ(n->objgrad, good);
  }
}

TEST(Failures, EachCauseHasItsNumber)
{
  const auto text = regression(Response::poisson, 2, 4);
  const auto n = make_run(text, {false, false, 3});
  auto theta = parameters(text, 1);
  const auto status = [&](std::size_t parameter, double value) {
    auto at = theta;
    at[parameter] = value;
    EXPECT_EQ(objective(*n, at), model::failure_objective);
    return n->slot_status[0];
  };
  EXPECT_EQ(status(4, -1.0), 132);           // negative variance
  EXPECT_EQ(status(5, 10.0), 132);           // correlation beyond one
  EXPECT_EQ(status(4, std::nan("")), 135);   // missing variance
  EXPECT_EQ(status(0, 1e10), 354);           // the integrand is zero at every point
  EXPECT_LT(objective(*n, theta), 1e6);
}

TEST(Callbacks, GradientIsFreeAtTheSamePoint)
{
  const auto text = regression(Response::binary, 1, 6);
  const auto n = make_run(text, {true, true, 5});
  optimizer::MINSTR str;
  std::vector<double> x = parameters(text, 1), gradient(x.size());
  str.x = x.data();
  str.grad = gradient.data();
  str.comstr = n.get();
  str.ifdr = 2; // value and gradient are wanted
  n->dograd = true;
  n->str = nullptr;
  ASSERT_EQ(integration::nlpfunc(&str), 0);
  EXPECT_EQ(str.crit, n->objfun);
  EXPECT_EQ(str.nfct, 1);
  const auto expected = gradient;
  const long runs = n->ncmprun;
  std::fill(gradient.begin(), gradient.end(), 0.0);
  EXPECT_EQ(integration::nlpgrad(&str), 0);
  EXPECT_EQ(gradient, expected);
  EXPECT_EQ(n->ncmprun, runs);
  EXPECT_EQ(n->tvlrc, 0);

  // Another point: evaluated, warned of, and never taken for the first one again.
  const double first = x[0];
  x[0] += 0.25;
  EXPECT_EQ(integration::nlpgrad(&str), 0);
  EXPECT_NE(gradient, expected);
  EXPECT_EQ(n->tvlrc, 4);
  x[0] = first;
  EXPECT_EQ(integration::nlpgrad(&str), 0);
  for (std::size_t j = 0; j < x.size(); ++j) EXPECT_NEAR(gradient[j], expected[j], 1e-12);
}

} // namespace torvale::tests
