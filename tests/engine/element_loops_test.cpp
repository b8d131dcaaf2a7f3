// Loops over arrays with subscripts that only a run knows: values against the plain evaluator, derivatives against its
// differences, the same bits for one lane and for all, and faults of subscripts.

#include "engine/model_fixture.h"
#include "engine/plain_evaluator.h"
#include "engine/program_text.h"

#include <bit>
#include <random>

namespace torvale::test {

namespace {

constexpr int elements = 12, rows_of_data = 37;

const char* const programs[] = {
    // elements of the data
    "f = 0; do i = 1 to k; f = f + exp(-p*i)*x[i] + q*x[13 - i]**2; end;",
    // elements that vary with the parameters, in another order
    "array w[12]; do i = 1 to 12; w[i] = exp(p*i/12) + q*x[i]; end; f = 0; do i = 1 to k; j = 1 + mod(5*i, 12); "
    "f = 0.9*f + w[j]*x[i]; end;",
    // elements that passes write
    "array w[12]; do i = 1 to 12; w[i] = q + x[i]; end; do i = 1 to k; w[i] = w[i] + p*w[1 + mod(i + 3, 12)]; end; "
    "f = sum(of w[*]);",
    // two dimensions, counted from 0, and a loop in a loop
    "array m[0:3, 3] x1-x12; f = 0; do i = 0 to min(k, 3); do j = 1 to 3; if j > i + 1 then leave; "
    "f = f + p**2*m[i, j] + q*m[3 - i, j]; end; end;",
    // numbers that a program tells apart itself; one of them is not whole
    "f = 0; do i = 0 to k/2 by 0.5; if i = 0 then e = p; else if i = 1 then e = q*x1; else if i = 2 then e = p*q; "
    "else if i = 2.5 then e = 7; else if i = 3 then e = x2; else e = 0.1*p; f = f + e*x3; end;",
};

struct ElementCase {
  Model m;
  std::unique_ptr<ProgramText> text;

  explicit ElementCase(const std::string& statements)
  {
    std::mt19937 random(7);
    std::uniform_real_distribution<double> uniform(-1, 1);
    std::vector<double> k;
    for (int r = 0; r < rows_of_data; ++r) k.push_back(static_cast<double>(r % (elements + 1)));
    m.data("k", k);
    for (int e = 1; e <= elements; ++e) {
      std::vector<double> x;
      for (int r = 0; r < rows_of_data; ++r) x.push_back(r == 20 && e == 4 ? none : uniform(random));
      m.data("x" + std::to_string(e), x);
    }
    m.theta = {0.3, -0.7};
    text = parse_program("array x[12] x1-x12; " + statements);
    m.compile(text->step.proc.program.statements, {"p", "q"});
  }

  double plain(std::size_t row, double p, double q)
  {
    PlainEvaluator e;
    e.variables = {{"p", p}, {"q", q}};
    for (std::size_t c = 0; c < m.columns.size(); ++c) e.variables[m.variables[c].name] = m.columns[c][row];
    e.run(m.program);
    return e.read("f");
  }
};

bool agree(double a, double b, double tolerance)
{
  return std::isnan(a) || std::isnan(b) ? std::isnan(a) && std::isnan(b)
                                        : std::fabs(a - b) <= tolerance * (1 + std::fabs(b));
}

} // namespace

TEST(ElementLoops, GiveValuesAndDerivatives)
{
  for (const char* const statements : programs) {
    ElementCase c(statements);
    CMPDER first, second;
    const CMPLIST wrt{c.m.parameters};
    ASSERT_EQ(cmpder(first, CMPLIST{{c.m.symbol("f")}}, wrt, *c.m.compiler), 0) << c.m.messages();
    ASSERT_EQ(cmpder(second, first.der, wrt, *c.m.compiler), 0) << c.m.messages();
    ASSERT_EQ(first.der.n(), 2);
    std::vector<CMPSYM*> outputs{c.m.symbol("f")};
    outputs.insert(outputs.end(), first.der.s.begin(), first.der.s.end());
    outputs.insert(outputs.end(), second.der.s.begin(), second.der.s.end());
    const auto v = c.m.run(outputs);
    EXPECT_NE(cmppsts(*c.m.compiler).find("elements number"), std::string::npos) << statements;
    const double p = c.m.theta[0], q = c.m.theta[1], h = 1e-4;
    for (std::size_t row = 0; row < rows_of_data; ++row) {
      const auto at = [&](double i, double j) { return c.plain(row, p + i * h, q + j * h); };
      EXPECT_TRUE(agree(v[0][row], at(0, 0), 1e-13)) << statements << " row " << row;
      const double gradient[] = {(at(1, 0) - at(-1, 0)) / (2 * h), (at(0, 1) - at(0, -1)) / (2 * h)};
      const double mixed = (at(1, 1) - at(1, -1) - at(-1, 1) + at(-1, -1)) / (4 * h * h);
      const double hessian[2][2] = {{(at(1, 0) - 2 * at(0, 0) + at(-1, 0)) / (h * h), mixed},
                                    {mixed, (at(0, 1) - 2 * at(0, 0) + at(0, -1)) / (h * h)}};
      if (std::isnan(at(0, 0))) continue; // derivatives of nothing
      for (std::size_t d = 0; d < 2; ++d)
        EXPECT_TRUE(agree(v[1 + d][row], gradient[first.wrtindex[d]], 1e-5)) << statements << " row " << row;
      for (std::size_t d = 0; d < second.der.s.size(); ++d)
        EXPECT_TRUE(agree(v[3 + d][row],
                          hessian[first.wrtindex[static_cast<std::size_t>(second.objindex[d])]][second.wrtindex[d]],
                          1e-4))
            << statements << " row " << row;
    }
    Frame frame = c.m.frame();
    frame.set_parameters(c.m.theta.data());
    frame.set_points(nullptr, 1, 1);
    const engine::Program* const program = cmpspec(*c.m.compiler, outputs);
    for (std::int32_t row = 0; row < rows_of_data; ++row) {
      const std::int32_t point = 0;
      Tile tile;
      tile.lanes = 1;
      tile.observation = &row;
      tile.point = &point;
      ASSERT_EQ(frame.run(*program, tile), 0);
      for (std::size_t k = 0; k < outputs.size(); ++k)
        ASSERT_EQ(std::bit_cast<std::uint64_t>(frame.output(static_cast<int>(k))[0]),
                  std::bit_cast<std::uint64_t>(v[k][static_cast<std::size_t>(row)]));
    }
  }
}

TEST(ElementLoops, RefuseSubscriptsOutsideTheBounds)
{
  ElementCase c("f = 0; do i = 1 to k; f = f + p*x[i + 1]; end;");
  int code = 0;
  (void)c.m.run({c.m.symbol("f")}, {}, &code);
  EXPECT_EQ(code, run_code::subscript);
}

} // namespace torvale::test
