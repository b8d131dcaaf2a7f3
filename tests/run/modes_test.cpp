// The modes of the random effects at the estimates, against the reference's.

#include "model/subject_names.h"
#include "run/program_runner.h"
#include "system/session.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace torvale::tests {

namespace {

class ReferenceModes : public testing::TestWithParam<const char*> {};

TEST_P(ReferenceModes, AtTheEstimates)
{
  const std::string name = GetParam();
  const auto reference = nlohmann::json::parse(read_text(source_file("tests/data/reference/" + name + ".json")));
  int compared = 0;
  for (const auto& fit : reference["fits"]) {
    if (fit["method"] != "Gauss-Hermite quadrature" || fit["adaptive"] != "yes") continue;
    host::HostOptions options;
    options.places.program_folder = source_file("examples");
    const auto embedded = host::make_host(std::move(options));
    run::ProgramRequest request;
    request.name = name + ".tvl";
    request.text = example(name, "GCONV=1e-14 FCONV=0 ABSGCONV=0 QPOINTS=" +
                                     std::to_string(fit["points_per_dimension"].get<int>()));
    request.observe = [&](const model::NX& n) {
      ASSERT_EQ(n.nreff(), 1);
      const auto& reff = n.reff[0];
      ASSERT_EQ(reff.SubInfo.size(), fit["random_effect_modes"].size());
      for (std::size_t s = 0; s < reff.SubInfo.size(); ++s) {
        const auto& row = fit["random_effect_modes"][s];
        const std::string subject =
            row["subject"].is_string() ? row["subject"].get<std::string>() : row["subject"].dump();
        EXPECT_EQ(model::subject_name(n, reff.SubInfo[s]), subject);
        for (int e = 0; e < reff.nr; ++e) {
          const double expected = row[reff.names[static_cast<std::size_t>(e)]].get<double>();
          EXPECT_NEAR(n.ebes[s * static_cast<std::size_t>(reff.nr) + static_cast<std::size_t>(e)], expected,
                      1e-5 * std::max(1.0, std::abs(expected)))
              << name << " subject " << subject;
          ++compared;
        }
      }
    };
    EXPECT_EQ(run::run_program(*embedded, request).exit_code, 0);
  }
  EXPECT_GE(compared, 10);
}

// One subject and what is nested in it: the reference has a number, or one for each name, and a list of the next level.
void compare_nested(const model::NX& n, std::size_t level, int subject, const nlohmann::json& effect, const nlohmann::json& row,
                    int& compared)
{
  const auto& reff = n.reff[level];
  for (int e = 0; e < reff.nr; ++e) {
    const double expected = effect.is_object() ? effect[reff.names[static_cast<std::size_t>(e)]].get<double>() : effect.get<double>();
    const double found = n.ebes[static_cast<std::size_t>(reff.mode_first + subject * reff.nr + e)];
    EXPECT_NEAR(found, expected, 1e-5 * std::max(1.0, std::abs(expected))) << model::chain_name(n, reff.SubInfo[static_cast<std::size_t>(subject)]);
    ++compared;
  }
  if (level == 0) return;
  const auto& s = reff.SubInfo[static_cast<std::size_t>(subject)];
  ASSERT_EQ(row["inner"].size(), static_cast<std::size_t>(s.last_child - s.first_child));
  for (int child = s.first_child; child < s.last_child; ++child) {
    const auto& inner = row["inner"][static_cast<std::size_t>(child - s.first_child)];
    compare_nested(n, level - 1, child, inner["effect"], inner, compared);
  }
}

TEST(NestedModes, AtTheEstimatesByEitherSearch)
{
  int compared = 0;
  for (const std::string name : {"nested_linear", "nested_logit", "nested_count"}) {
    const auto reference = nlohmann::json::parse(read_text(source_file("tests/data/reference/" + name + ".json")));
    const auto& fit = reference["fits"][0];
    for (const std::string search : {"", " EBITER EBMTOL=1e-9"}) {
      host::HostOptions options;
      options.places.program_folder = source_file("examples");
      const auto embedded = host::make_host(std::move(options));
      run::ProgramRequest request;
      request.name = name + ".tvl";
      request.text = example(name, "GCONV=1e-14 FCONV=0 ABSGCONV=0 QPOINTS=1" + search);
      request.observe = [&](const model::NX& n) {
        const auto& modes = fit["random_effect_modes"];
        ASSERT_EQ(n.outer().SubInfo.size(), modes.size());
        for (std::size_t s = 0; s < modes.size(); ++s)
          compare_nested(n, n.reff.size() - 1, static_cast<int>(s), modes[s]["outer"], modes[s], compared);
      };
      EXPECT_EQ(run::run_program(*embedded, request).exit_code, 0) << name << search;
    }
  }
  EXPECT_GE(compared, 100);
}

INSTANTIATE_TEST_SUITE_P(Models, ReferenceModes, testing::Values("theoph", "orange", "sleepstudy", "cbpp", "epil"),
                         [](const auto& tested) { return std::string(tested.param); });

} // namespace

} // namespace torvale::tests
