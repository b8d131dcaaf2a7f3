// The modes of the random effects at the estimates, against the reference's.

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
        EXPECT_EQ(reff.SubInfo[s].prnc, subject);
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

INSTANTIATE_TEST_SUITE_P(Models, ReferenceModes, testing::Values("theoph", "orange", "sleepstudy", "cbpp", "epil"),
                         [](const auto& tested) { return std::string(tested.param); });

} // namespace

} // namespace torvale::tests
