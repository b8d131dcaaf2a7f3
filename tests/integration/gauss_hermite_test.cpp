#include "integration/rules/quadrature_points.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

namespace torvale::integration {

namespace {

struct Node {
  int n, i;
  double x, log_weight;
};

std::vector<Node> table()
{
  std::ifstream file(TORVALE_SOURCE_DIR "/tests/data/special/gauss_hermite.csv");
  std::vector<Node> nodes;
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    Node node{};
    std::istringstream fields(line);
    char comma;
    fields >> node.n >> comma >> node.i >> comma >> node.x >> comma >> node.log_weight;
    if (fields) nodes.push_back(node);
  }
  return nodes;
}

} // namespace

// Rules of 1 to 100 and more points against values to 20 digits. The eigenvalue method is backward stable: nodes are
// good to eps times the largest node, and a weight, the square of an eigenvector component, to eps relative to the
// largest component.
TEST(GaussHermiteRule, NodesAndWeights)
{
  const auto nodes = table();
  ASSERT_GT(nodes.size(), 900u);
  constexpr double eps = std::numeric_limits<double>::epsilon();
  std::vector<double> absc, herm;
  int current = 0, dropped = 0;
  for (const Node& node : nodes) {
    if (node.n != current) {
      current = node.n;
      absc.assign(static_cast<std::size_t>(current), 0.0);
      herm = absc;
      ASSERT_EQ(GaussHermite(current, absc.data(), herm.data(), 0.0, 0.0, dropped), 0);
      EXPECT_EQ(dropped, 0);
    }
    const auto i = static_cast<std::size_t>(node.i - 1);
    const double largest = std::abs(absc.back());
    EXPECT_NEAR(absc[i], node.x, 8 * eps * (1.0 + largest)) << current << " " << node.i;
    if (current <= 31) {
      EXPECT_NEAR(herm[i], node.log_weight, 2e-12) << current << " " << node.i;
    }
    EXPECT_NEAR(std::exp(herm[i]), std::exp(node.log_weight), 64 * eps) << current << " " << node.i;
  }
}

TEST(GaussHermiteRule, ToleranceDropsPointsAndClearsTheMiddle)
{
  std::vector<double> absc(41), herm(41);
  int dropped = 0;
  EXPECT_EQ(GaussHermite(41, absc.data(), herm.data(), 1e-6, 1e-9, dropped), 0);
  EXPECT_EQ(absc[20], 0.0);
  EXPECT_GT(dropped, 0);
  EXPECT_EQ(herm[0], std::numeric_limits<double>::lowest());
}

TEST(QuadraturePoints, ProductRuleCountsTheFirstDimensionFastest)
{
  model::NX n;
  n.reff.resize(1);
  n.reff[0].nr = 2;
  n.nqp = 3;
  ASSERT_EQ(tvlqpts(n), 0);
  const auto& r = n.reff[0];
  ASSERT_EQ(r.nqpr, 9);
  double mass = 0.0;
  for (std::size_t t = 0; t < 9; ++t) {
    EXPECT_EQ(r.points[t], n.absc[t % 3]);
    EXPECT_EQ(r.points[9 + t], n.absc[t / 3]);
    mass += std::exp(r.logw[t] - r.points[t] * r.points[t] - r.points[9 + t] * r.points[9 + t]);
  }
  EXPECT_NEAR(mass, 3.141592653589793, 1e-14);
}

// More draws extend the sample, so that an estimate with more points refines the one with fewer.
TEST(QuadraturePoints, SampleGrowsAndIsRepeatable)
{
  model::NX n;
  n.reff.resize(1);
  n.reff[0].nr = 2;
  n.method = 3;
  n.seed = 4711;
  n.nqp = 10;
  ASSERT_EQ(tvlqpts(n), 0);
  const auto small = n.reff[0].points;
  n.nqp = 60;
  ASSERT_EQ(tvlqpts(n), 0);
  for (std::size_t t = 0; t < 10; ++t) {
    EXPECT_EQ(n.reff[0].points[t], small[t]);
    EXPECT_EQ(n.reff[0].points[60 + t], small[10 + t]);
  }
}

} // namespace torvale::integration
