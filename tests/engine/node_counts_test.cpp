// How large derivative programs become, and that they are right: a three-compartment model with 12 parameters and 4
// random effects, to third order, in under a second.

#include "engine/compartment_program.h"
#include "engine/model_fixture.h"
#include "engine/program_text.h"

#include <chrono>

namespace torvale::test {

TEST(NodeCounts, ThreeCompartmentModelToThirdOrder)
{
  const auto text = parse_program(three_compartment_program);
  Model m;
  m.data("time", {0.5, 1, 2, 4, 8, 12, 24});
  m.data("dv", {1.1, 2.0, 2.2, 1.6, 0.8, 0.5, 0.2});
  m.data("dose", {100, 100, 100, 100, 100, 100, 100});
  m.data("wt", {70, 70, 80, 80, 60, 60, 75});
  m.compile(text->step.proc.program.statements,
            {std::begin(three_compartment_parameters), std::end(three_compartment_parameters)},
            {std::begin(three_compartment_effects), std::end(three_compartment_effects)});
  m.theta = {0.2, 0.9, 0.7, 2.5, 0.6, 3.0, -0.5, 3.4, 0.9, 0.05, 0.02, 1.9};
  const std::vector<double> effects = {0.1, -0.2, 0.15, -0.05};
  CMPLIST all;
  all.s = m.parameters;
  all.s.insert(all.s.end(), m.effects.begin(), m.effects.end());

  const auto start = std::chrono::steady_clock::now();
  CMPDER gradient, by_effects, hessian, third;
  ASSERT_EQ(cmpder(gradient, CMPLIST{{m.symbol("ll")}}, all, *m.compiler), 0) << m.messages();
  ASSERT_EQ(cmpder(by_effects, CMPLIST{{m.symbol("ll")}}, CMPLIST{m.effects}, *m.compiler), 0);
  ASSERT_EQ(cmpder(hessian, by_effects.der, all, *m.compiler), 0);
  ASSERT_EQ(cmpder(third, hessian.der, CMPLIST{m.effects}, *m.compiler), 0);
  std::vector<CMPSYM*> values{m.symbol("ll")}, with_gradient = values, mode = values, cross = values,
                                               everything = values;
  with_gradient.insert(with_gradient.end(), gradient.der.s.begin(), gradient.der.s.end());
  mode.insert(mode.end(), by_effects.der.s.begin(), by_effects.der.s.end());
  for (int k = 0; k < hessian.der.n(); ++k)
    if (hessian.wrtindex[static_cast<std::size_t>(k)] - 12 >= hessian.objindex[static_cast<std::size_t>(k)])
      mode.push_back(hessian.der.s[static_cast<std::size_t>(k)]);
  cross = with_gradient;
  cross.insert(cross.end(), hessian.der.s.begin(), hessian.der.s.end());
  everything = cross;
  everything.insert(everything.end(), third.der.s.begin(), third.der.s.end());
  const struct {
    const char* name;
    const std::vector<CMPSYM*>& outputs;
    int most_nodes;
  } sets[] = {{"value", values, 220},
              {"value, gradient", with_gradient, 580},
              {"mode search", mode, 2500},
              {"cross", cross, 6500},
              {"third", everything, 40000}};
  for (const auto& set : sets) {
    const ProgramSize s = program_size(*cmpspec(*m.compiler, set.outputs));
    EXPECT_LE(s.nodes, set.most_nodes) << set.name;
    RecordProperty(std::string("nodes of ") + set.name, s.nodes);
    std::printf("%-16s %4zu outputs: %10d nodes unshared, %6d shared; steps: parameter %d, data %d, observation %d, "
                "point %d, lane %d; %d registers\n",
                set.name, set.outputs.size(), s.nodes_before, s.nodes, s.parameter, s.data, s.observation, s.point,
                s.lane, s.registers);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("derivatives and programs: %.3f s\n", seconds);
  RecordProperty("milliseconds", static_cast<int>(1000 * seconds));

  // Third derivatives against differences of the second, in a program that has both.
  ASSERT_EQ(gradient.der.n(), 16);
  ASSERT_EQ(hessian.der.n(), 64);
  const engine::Program* const program = cmpspec(*m.compiler, everything);
  Frame frame = m.frame();
  const auto at = [&](std::size_t effect, double h) {
    std::vector<double> e = effects;
    e[effect] += h;
    return m.run(frame, *program, static_cast<int>(everything.size()), e);
  };
  const auto v = m.run(frame, *program, static_cast<int>(everything.size()), effects);
  const double h = 1e-4;
  for (std::size_t effect = 0; effect < 4; ++effect) {
    const auto up = at(effect, h), down = at(effect, -h);
    for (std::size_t k = 0; k < third.der.s.size(); ++k) {
      if (static_cast<std::size_t>(third.wrtindex[k]) != effect) continue;
      const std::size_t lower = 17 + static_cast<std::size_t>(third.objindex[k]);
      for (std::size_t row = 0; row < v[0].size(); ++row) {
        const double difference = (up[lower][row] - down[lower][row]) / (2 * h);
        EXPECT_NEAR(v[17 + 64 + k][row], difference, 1e-4 * (1.0 + std::fabs(difference)))
            << "entry " << k << ", row " << row;
      }
    }
    for (std::size_t k = 0; k < 16; ++k)
      if (static_cast<std::size_t>(gradient.wrtindex[k]) == 12 + effect) {
        for (std::size_t row = 0; row < v[0].size(); ++row)
          EXPECT_NEAR(v[1 + k][row], (up[0][row] - down[0][row]) / (2 * h), 1e-5 * (1.0 + std::fabs(v[1 + k][row])));
      }
  }
}

} // namespace torvale::test
