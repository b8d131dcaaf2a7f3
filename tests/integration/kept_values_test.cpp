// Programs that keep computed values from record to record: residuals that remember the one before.

#include "integration/model_family.h"
#include "integration/objective.h"

#include <gtest/gtest.h>

#include <cmath>

namespace torvale::tests {

namespace {

// y - eta = rho (its lag) + noise. Written with LAG of a computed value, or with columns of lagged data.
ModelText autoregression(bool lagged_columns, int subjects)
{
  auto m = regression(Response::normal, 1, subjects);
  m.parameters = {"b0", "b1", "s2", "g11", "rho"};
  m.prior = {Term(0.0), Term("g11")};
  std::vector<double> first, lag_y, lag_x;
  for (std::size_t r = 0; r < m.columns[0].second.size(); ++r) {
    const bool starts = r == 0 || m.columns[0].second[r] != m.columns[0].second[r - 1];
    first.push_back(starts ? 1.0 : 0.0);
    lag_y.push_back(starts ? 0.0 : m.columns[1].second[r - 1]);
    lag_x.push_back(starts ? 0.0 : m.columns[2].second[r - 1]);
  }
  m.columns.emplace_back("first", first);
  m.columns.emplace_back("ylag", lag_y);
  m.columns.emplace_back("xlag", lag_x);
  const Term residual = Term("y") - "eta";
  const Term before = lagged_columns ? (Term(1.0) - "first") * (Term("ylag") - (Term("b0") + "u0" + Term("b1") * "xlag"))
                                     : Term::call("coalesce", {Term::call("lag", {Term("resid")}), Term(0.0)});
  const Term noise = Term("resid") - Term("rho") * "before";
  m.assignments = {{"eta", Term("b0") + "u0" + Term("b1") * "x"},
                   {"resid", residual},
                   {"before", before},
                   {"noise", noise},
                   {"_ll", Term(-0.5) * (Term(1.8378770664093456) + Term("noise") * "noise" / "s2" + log(Term("s2")))}};
  return m;
}

// Row r is seen but does not count.
void mark(model::NX& n, std::size_t row)
{
  n.store->badobs[row] = model::BadCause::dependent;
  for (auto& s : n.reff[0].SubInfo) {
    const auto from = static_cast<std::size_t>(s.first_row), to = from + static_cast<std::size_t>(s.SubCount);
    if (row >= from && row < to) --s.used;
  }
  integration::size_contexts(n);
}

} // namespace

TEST(KeptValues, LagOfAComputedValueEqualsLaggedColumns)
{
  for (const Rule& rule : {Rule{true, true, 5}, Rule{false, false, 5}, Rule{true, true, 3, 0, 0, 3}}) {
    const auto columns = make_run(autoregression(true, 30), rule), kept = make_run(autoregression(false, 30), rule);
    ASSERT_TRUE(engine::sequential(*kept->programs.gradient.code));
    const std::vector<double> theta = {0.2, 0.3, 0.5, 0.4, 0.35};
    for (const bool marked : {false, true}) {
      if (marked)
        for (model::NX* n : {columns.get(), kept.get()}) mark(*n, 4);
      const double value = objective(*columns, theta, true);
      ASSERT_LT(value, model::failure_objective);
      EXPECT_NEAR(objective(*kept, theta, true), value, 1e-12 * std::abs(value)) << marked;
      for (std::size_t j = 0; j < theta.size(); ++j)
        EXPECT_NEAR(kept->objgrad[j], columns->objgrad[j], 1e-10 * (1.0 + std::abs(columns->objgrad[j]))) << marked << " " << j;
    }
  }
}

} // namespace torvale::tests
