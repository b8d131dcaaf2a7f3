// Costly functions of one variable and parameters: once per value where the variable has few, the same bits as record
// by record where it has not.

#include "engine/model_fixture.h"
#include "engine/program_text.h"

#include <bit>
#include <random>

namespace torvale::test {

namespace {

struct Counts {
  std::vector<double> y, x;
};

Counts counts(int rows)
{
  Counts c;
  std::mt19937 random(5);
  for (int i = 0; i < rows; ++i) {
    c.y.push_back(i % 97 == 0 ? none : i % 89 == 0 ? 2000.0 + i % 3 : static_cast<double>(random() % 17));
    c.x.push_back(0.01 * static_cast<double>(random() % 1000));
  }
  return c;
}

// Log likelihood, and its derivatives by all parameters, of negative binomial counts.
struct NegativeBinomial {
  Model m;
  std::vector<CMPSYM*> outputs;
  NegativeBinomial(const Counts& c, const std::vector<std::string>& effects)
  {
    static const auto text = parse_program(
        "mu = exp(b0 + b1*x + u); ll = lgamma(y + 1/k) - lgamma(1/k) - lgamma(y + 1) + y*log(mu) + y*log(k)"
        "- (y + 1/k)*log(1 + k*mu);");
    m.data("y", c.y);
    m.data("x", c.x);
    std::vector<std::string> parameters{"b0", "b1", "k"};
    if (effects.empty()) parameters.push_back("u");
    m.compile(text->step.proc.program.statements, parameters, effects);
    CMPDER first;
    EXPECT_EQ(cmpder(first, CMPLIST{{m.symbol("ll")}}, CMPLIST{m.parameters}, *m.compiler), 0) << m.messages();
    outputs = first.der.s;
    outputs.push_back(m.symbol("ll"));
    m.theta = {0.4, -0.3, 0.7, 0.1};
  }
};

} // namespace

TEST(DistinctValues, HaveTheBitsOfEachRecord)
{
  const Counts all = counts(1200);
  for (const auto& effects : {std::vector<std::string>{}, std::vector<std::string>{"u"}}) {
    NegativeBinomial whole(all, effects);
    EXPECT_EQ(program_size(*cmpspec(*whole.m.compiler, whole.outputs)).distinct > 0, true);
    Frame frame = whole.m.frame();
    const engine::Program* const program = cmpspec(*whole.m.compiler, whole.outputs);
    for (const double k : {0.7, 1e-9, 3.0}) { // the table follows the parameters
      whole.m.theta[2] = k;
      const auto got = whole.m.run(frame, *program, static_cast<int>(whole.outputs.size()), {0.25});
      for (std::size_t first = 0; first < all.y.size(); first += 40) { // too few rows for a table
        Counts part;
        part.y.assign(all.y.begin() + static_cast<std::ptrdiff_t>(first),
                      all.y.begin() + static_cast<std::ptrdiff_t>(first) + 40);
        part.x.assign(all.x.begin() + static_cast<std::ptrdiff_t>(first),
                      all.x.begin() + static_cast<std::ptrdiff_t>(first) + 40);
        NegativeBinomial few(part, effects);
        few.m.theta[2] = k;
        const auto expected = few.m.run(few.outputs, {0.25});
        for (std::size_t o = 0; o < expected.size(); ++o)
          for (std::size_t i = 0; i < 40; ++i)
            ASSERT_EQ(std::bit_cast<std::uint64_t>(got[o][first + i]), std::bit_cast<std::uint64_t>(expected[o][i]))
                << "output " << o << ", row " << first + i << ", k " << k;
      }
    }
  }
}

// Records in an order of their own.
TEST(DistinctValues, FollowTheOrderOfTheRecords)
{
  const Counts all = counts(400);
  NegativeBinomial model(all, {"u"});
  const engine::Program* const program = cmpspec(*model.m.compiler, model.outputs);
  Frame frame = model.m.frame();
  const auto straight = model.m.run(frame, *program, static_cast<int>(model.outputs.size()), {0.25});
  std::vector<std::int32_t> rows;
  for (int i = 0; i < 130; ++i) rows.push_back((i * 53 + 7) % 400);
  const double u = 0.25;
  frame.set_points(&u, 1, 1);
  frame.set_records(rows.data(), 130);
  Tile tile;
  tile.lanes = 130;
  ASSERT_EQ(frame.run(*program, tile), 0);
  for (std::size_t o = 0; o < straight.size(); ++o)
    for (std::size_t i = 0; i < rows.size(); ++i)
      EXPECT_EQ(std::bit_cast<std::uint64_t>(frame.output(static_cast<int>(o))[i]),
                std::bit_cast<std::uint64_t>(straight[o][static_cast<std::size_t>(rows[i])]));
}

// What moves with the record is found and shifted although a table stands beside it.
TEST(DistinctValues, AreNoPredictor)
{
  Model m;
  m.data("y", counts(400).y);
  const auto text = parse_program("ll = lgamma(y + a + b) - lgamma(a + b) + a*u*y;");
  m.compile(text->step.proc.program.statements, {"a", "b"}, {"u"});
  const engine::Program* const program = cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("ll")});
  EXPECT_GT(program_size(*program).distinct, 0);
  const Predictor found = cmppredictor(*m.compiler, std::span(&program, 1));
  EXPECT_TRUE(found.parameters.empty());
}

} // namespace torvale::test
