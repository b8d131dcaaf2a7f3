// The words of the verdict for states that are hard to reach by a fit.

#include "inference/tables/verdict.h"

#include <gtest/gtest.h>

namespace torvale::inference {

namespace {

using model::FitOutcome;
using Standing = host::FitSummary::Standing;

struct Case {
  model::Verdict verdict;
  VerdictFacts facts;
  host::FitSummary summary;

  Case()
  {
    facts.parameters = {"b0", "b1", "s2"};
    facts.znlprc = 6;
    facts.reason = "GCONV convergence criterion satisfied.";
  }
  void speak()
  {
    facts.verdict = &verdict;
    verdict_words(facts, summary);
  }
  std::string finding(const std::string& item) const
  {
    for (const auto& [name, words] : summary.findings)
      if (name == item) return words;
    return {};
  }
};

TEST(VerdictWords, FlatDirectionsAreCombinationsByName)
{
  Case c;
  c.verdict.outcome = FitOutcome::confirmed_singular;
  c.verdict.flat = {{{0, 1}, {1.0, -0.5}}, {{2}, {-1.0}}};
  c.verdict.identified = {0, 0, 0};
  c.speak();
  EXPECT_EQ(c.finding("Flat direction"), "the likelihood does not change along b0 - 0.5 b1; -s2");
  EXPECT_EQ(c.finding("Not identified"), "b0, b1, s2");
  EXPECT_EQ(c.summary.converged, std::optional<bool>(true));
}

TEST(VerdictWords, EveryOutcomeHasItsStanding)
{
  const struct {
    FitOutcome outcome;
    int znlprc;
    std::optional<bool> converged;
    Standing standing;
  } cases[] = {{FitOutcome::confirmed, 6, true, Standing::good},
               {FitOutcome::confirmed_singular, 6, true, Standing::caution},
               {FitOutcome::unconfirmed, 6, true, Standing::caution},
               {FitOutcome::user_criterion, 5, true, Standing::caution},
               {FitOutcome::not_minimum, -5, false, Standing::bad},
               {FitOutcome::not_judged, -8, false, Standing::bad},
               {FitOutcome::not_evaluated, 0, false, Standing::bad}};
  for (const auto& k : cases) {
    Case c;
    c.verdict.outcome = k.outcome;
    c.facts.znlprc = k.znlprc;
    c.speak();
    EXPECT_EQ(c.summary.converged, k.converged) << static_cast<int>(k.outcome);
    EXPECT_EQ(c.summary.standing, k.standing) << static_cast<int>(k.outcome) << c.summary.headline;
  }
}

TEST(VerdictWords, RemarksLowerTheStanding)
{
  Case quadrature, warned, bound;
  quadrature.verdict.outcome = warned.verdict.outcome = bound.verdict.outcome = FitOutcome::confirmed;
  quadrature.verdict.quadrature_change = -0.4;
  warned.facts.warnings = {{503, 9222}, {503, 271}};
  bound.verdict.at_bounds = {2};
  for (Case* c : {&quadrature, &warned, &bound}) {
    c->speak();
    EXPECT_EQ(c->summary.standing, Standing::caution);
    EXPECT_EQ(c->summary.converged, std::optional<bool>(true));
  }
  EXPECT_EQ(quadrature.finding("Quadrature"), "more points change -2 log likelihood by -0.4");
  EXPECT_EQ(warned.finding("Warnings"), "503/9222, 503/271");
  EXPECT_EQ(bound.finding("At bounds"), "s2");
}

} // namespace

} // namespace torvale::inference
