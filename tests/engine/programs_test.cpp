// Programs as people write them, against values worked out by hand.

#include "engine/model_fixture.h"
#include "engine/stages/native_stage.h"

#include <cstring>

namespace torvale::test {

namespace {

const double missing = std::nan("");

void expect_values(const std::vector<double>& got, const std::vector<double>& want, double tolerance = 1e-14)
{
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (std::isnan(want[i])) {
      EXPECT_TRUE(std::isnan(got[i])) << "row " << i << " is " << got[i];
      continue;
    }
    EXPECT_NEAR(got[i], want[i], tolerance * std::max(1.0, std::fabs(want[i]))) << "row " << i;
  }
}

} // namespace

// ll = y * eta - log(1 + exp(eta)), eta = b0 + b1 x + u: value, gradient and Hessian in closed form.
TEST(EnginePrograms, LogisticModelHasItsTextbookDerivatives)
{
  Model m;
  m.data("x", {0.5, -1.0, 2.0, 0.0});
  m.data("y", {1, 0, 1, 0});
  Trees& t = m.trees;
  m.compile({t.assign("eta", t.add(t.add(t.var("b0"), t.mul(t.var("b1"), t.var("x"))), t.var("u"))),
             t.assign("_ll", t.sub(t.mul(t.var("y"), t.var("eta")),
                                   t.call("log", {t.add(t.number(1), t.call("exp", {t.var("eta")}))})))},
            {"b0", "b1"}, {"u"});
  m.theta = {0.3, -0.7};
  CMPLIST obj{{m.symbol("_ll")}}, wrt{{m.parameters[0], m.parameters[1], m.effects[0]}};
  CMPDER first, second;
  ASSERT_EQ(cmpder(first, obj, wrt, *m.compiler), 0) << m.messages();
  ASSERT_EQ(first.der.n(), 3);
  ASSERT_EQ(cmpder(second, first.der, wrt, *m.compiler), 0);
  ASSERT_EQ(second.der.n(), 9);
  std::vector<CMPSYM*> outputs{m.symbol("_ll")};
  outputs.insert(outputs.end(), first.der.s.begin(), first.der.s.end());
  outputs.insert(outputs.end(), second.der.s.begin(), second.der.s.end());
  const double u = 0.25;
  const auto v = m.run(outputs, {u});
  for (std::size_t i = 0; i < 4; ++i) {
    const double x = m.columns[0][i], y = m.columns[1][i], eta = 0.3 - 0.7 * x + u, p = 1 / (1 + std::exp(-eta));
    EXPECT_NEAR(v[0][i], y * eta - std::log1p(std::exp(eta)), 1e-14);
    const double d[] = {1.0, x, 1.0};
    for (std::size_t a = 0; a < 3; ++a) {
      EXPECT_NEAR(v[1 + a][i], (y - p) * d[a], 1e-14);
      for (std::size_t b = 0; b < 3; ++b) EXPECT_NEAR(v[4 + 3 * a + b][i], -p * (1 - p) * d[a] * d[b], 1e-14);
    }
  }
  // The intercept and the random effect enter through one sum: their derivatives are one node, so is the whole Hessian
  // but for x. Everything that depends on the effect alone or on data is hoisted.
  const ProgramSize size = program_size(*cmpspec(*m.compiler, outputs));
  EXPECT_LE(size.nodes, 30);
  EXPECT_LT(size.nodes, size.nodes_before / 3);
}

// Tiles of consecutive places in a list of records, or of one place at many points, compute what the rows do lane by lane.
TEST(EnginePrograms, RecordsOfAListAreReadInAnyOrder)
{
  constexpr int rows = 300, points = 150;
  Model m;
  std::vector<double> x(rows), u(points);
  for (int i = 0; i < rows; ++i) x[static_cast<std::size_t>(i)] = std::sin(i);
  for (int p = 0; p < points; ++p) u[static_cast<std::size_t>(p)] = std::cos(3 * p);
  m.data("x", x);
  Trees& t = m.trees;
  m.compile({t.assign("z", t.call("exp", {t.add(t.mul(t.var("b"), t.mul(t.var("x"), t.var("x"))), t.var("u"))})),
             t.assign("w", t.mul(t.call("log", {t.add(t.var("x"), t.number(2))}), t.var("u")))},
            {"b"}, {"u"});
  m.theta = {0.7};
  const engine::Program& program = *cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("z"), m.symbol("w")});
  std::vector<std::int32_t> order;
  for (int i = 0; i < 290; ++i) order.push_back(i * 7 % rows);
  Tile slots, one;
  slots.lanes = 137;
  slots.first = 150;
  slots.first_point = 13;
  one.lanes = one.repeat = 145;
  one.first = 289;
  one.first_point = 5;
  for (const bool native : {true, false}) {
    set_native(native);
    Frame frame = m.frame(), by_row = m.frame();
    for (Frame* const f : {&frame, &by_row}) {
      f->set_parameters(m.theta.data());
      f->set_points(u.data(), points, points);
    }
    for (const Tile& tile : {slots, one, slots}) {
      frame.set_records(order.data(), static_cast<std::int64_t>(order.size()));
      ASSERT_EQ(frame.run(program, tile), 0);
      for (int j = 0; j < tile.lanes; ++j) {
        const std::int32_t row = order[static_cast<std::size_t>(tile.repeat > 1 ? tile.first : tile.first + j)];
        const std::int32_t point = tile.first_point + j;
        ASSERT_EQ(by_row.run(program, {1, &row, &point}), 0);
        EXPECT_EQ(frame.output(0)[j], by_row.output(0)[0]) << "lane " << j << ", machine code " << native;
        EXPECT_EQ(frame.output(1)[j], by_row.output(1)[0]) << "lane " << j << ", machine code " << native;
      }
      frame.set_range(0, rows); // and back
    }
    // The same records as a part of the order that the data were told of: read where they stand.
    std::vector<std::int32_t> all(11, 3);
    all.insert(all.end(), order.begin(), order.end());
    const auto data = m.bound_data();
    Frame in_order(*m.compiler, data);
    cmporder(*data, all.data(), static_cast<std::int64_t>(all.size()));
    for (Frame* const f : {&frame, &in_order}) {
      f->set_parameters(m.theta.data());
      f->set_points(u.data(), points, points);
    }
    frame.set_records(order.data(), static_cast<std::int64_t>(order.size()));
    in_order.set_records(all.data() + 11, static_cast<std::int64_t>(order.size()));
    for (const Tile& tile : {slots, one, slots}) {
      ASSERT_EQ(frame.run(program, tile), 0);
      ASSERT_EQ(in_order.run(program, tile), 0);
      for (int k = 0; k < 2; ++k)
        EXPECT_TRUE(std::equal(frame.output(k), frame.output(k) + tile.lanes, in_order.output(k))) << "machine code " << native;
    }
  }
  set_native(true);
}

// Outputs that a tile puts where sums stand, or adds to them: the bits of the same made from Frame::output, whatever
// the padding of the strip; what stands behind them stays. One output is missing in some lanes.
TEST(EnginePrograms, TilesAddToSums)
{
  constexpr int rows = 400;
  Model m;
  std::vector<double> x;
  for (int i = 0; i < rows; ++i) x.push_back(i % 90 == 7 ? none : 0.01 * i - 1.0);
  m.data("x", x);
  Trees& t = m.trees;
  m.compile({t.assign("z", t.call("exp", {t.mul(t.var("b"), t.var("x"))})),
             t.assign("w", t.mul(t.var("z"), t.var("x"))), t.assign("v", t.add(t.var("b"), t.var("b")))},
            {"b"}, {});
  m.theta = {0.7};
  const engine::Program& program =
      *cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("z"), m.symbol("w"), m.symbol("v")});
  const auto same = [](const std::vector<double>& a, const std::vector<double>& b) {
    return std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
  };
  set_native_pairs_after(0);
  for (const bool native : {true, false}) {
    set_native(native);
    Frame frame = m.frame();
    frame.set_parameters(m.theta.data());
    for (const int lanes : {1, 7, 8, 33, 128, 131, 272}) {
      std::vector<std::vector<double>> sums(3, std::vector<double>(static_cast<std::size_t>(lanes) + 12, 0.25));
      auto expected = sums;
      std::vector<double*> at;
      for (auto& s : sums) at.push_back(s.data());
      for (const int first : {0, 100, 20}) {
        Tile tile;
        tile.lanes = lanes;
        tile.first = first;
        ASSERT_EQ(frame.run(program, tile), 0);
        for (int k = 0; k < 3; ++k) {
          const auto d = static_cast<std::size_t>(distinct_output(program, k));
          for (int j = 0; j < lanes; ++j) {
            double& sum = expected[d][static_cast<std::size_t>(j + 3)];
            sum = first == 0 ? frame.output(k)[j] : sum + frame.output(k)[j];
          }
        }
        tile.sums = at.data();
        tile.first_sum = 3;
        tile.adds = first > 0;
        ASSERT_EQ(frame.run(program, tile), 0);
        for (std::size_t k = 0; k < 3; ++k)
          EXPECT_TRUE(same(sums[k], expected[k])) << lanes << " lanes, output " << k << ", machine code " << native;
      }
    }
  }
  set_native(true);
  set_native_pairs_after(32768);
}

// Missing values in branches: a comparison with a missing value is exact, and no branch leaks into the other.
TEST(EnginePrograms, BranchesFollowTheOrderOfMissingValues)
{
  Model m;
  m.data("x", {1, 9, missing, 5});
  Trees& t = m.trees;
  m.compile({t.if_(t.binary(Op::less, t.var("x"), t.number(5)), t.assign("z", t.number(1)), t.assign("z", t.number(2))),
             t.if_(t.binary(Op::equal, t.var("x"), t.number(missing)), t.assign("w", t.number(7)),
                   t.assign("w", t.call("log", {t.sub(t.var("x"), t.number(1))}))),
             t.assign("sum", t.add(t.var("x"), t.number(1)))},
            {});
  const auto v = m.run({m.symbol("z"), m.symbol("w"), m.symbol("sum")});
  expect_values(v[0], {1, 2, 1, 2});
  expect_values(v[1], {missing, std::log(8.0), 7, std::log(4.0)});
  expect_values(v[2], {2, 10, missing, 6});
}

// The branch not taken contributes derivative 0, also where its own derivative does not exist.
TEST(EnginePrograms, UntakenBranchesDoNotReachDerivatives)
{
  Model m;
  m.data("t", {0, 1, 2});
  Trees& t = m.trees;
  m.compile({t.if_(t.binary(Op::greater, t.var("t"), t.number(0)),
                   t.assign("f", t.mul(t.var("a"), t.call("log", {t.mul(t.var("t"), t.var("a"))}))),
                   t.assign("f", t.var("a"))),
             t.assign("g", t.power(t.var("t"), t.var("b")))},
            {"a", "b"});
  m.theta = {1.5, 0.8};
  CMPDER d;
  ASSERT_EQ(cmpder(d, CMPLIST{{m.symbol("f"), m.symbol("g")}}, CMPLIST{m.parameters}, *m.compiler), 0) << m.messages();
  ASSERT_EQ(d.der.n(), 2);
  const auto v = m.run(d.der.s);
  expect_values(v[0], {1, std::log(1.5) + 1, std::log(3.0) + 1});
  expect_values(v[1], {0, 0, std::pow(2, 0.8) * std::log(2.0)});
}

TEST(EnginePrograms, LoopsArraysAndJumps)
{
  Model m;
  m.data("n", {0, 1, 3, 6});
  m.data("x", {2, 3, 4, 5});
  Trees& t = m.trees;
  std::vector<Statement*> s;
  s.push_back(t.array("a", 3, {"a1", "a2", "a3"}));
  s.push_back(
      t.loop("i", t.number(1), t.number(3), {t.assign(t.element("a", {t.var("i")}), t.mul(t.var("i"), t.var("x")))}));
  s.push_back(t.assign("total", t.call("sum", {t.whole("a")})));
  // A loop whose count is data: the factorial-like product p * (k + theta).
  s.push_back(t.assign("p", t.number(1)));
  s.push_back(
      t.loop("k", t.number(1), t.var("n"), {t.assign("p", t.mul(t.var("p"), t.add(t.var("k"), t.var("theta"))))}));
  s.push_back(t.assign("last", t.var("k")));
  // A subscript that is data, limited to the bounds.
  s.push_back(
      t.assign("pick", t.element("a", {t.call("min", {t.call("max", {t.var("n"), t.number(1)}), t.number(3)})})));
  // WHILE: how often can x be halved.
  s.push_back(t.assign("y", t.var("x")));
  s.push_back(t.assign("halvings", t.number(0)));
  s.push_back(t.while_(
      t.binary(Op::greater, t.var("y"), t.number(1)),
      {t.assign("y", t.div(t.var("y"), t.number(2))), t.assign("halvings", t.add(t.var("halvings"), t.number(1)))}));
  // Leaving a loop, and a jump forward over an assignment.
  s.push_back(t.loop("j", t.number(1), t.number(10),
                     {t.if_(t.binary(Op::equal, t.var("j"), t.var("x")), t.plain(StatementKind::leave))}));
  s.push_back(t.assign("flag", t.number(0)));
  s.push_back(t.if_(t.binary(Op::less, t.var("n"), t.number(2)), t.jump(StatementKind::go_to, "over")));
  s.push_back(t.assign("flag", t.number(1)));
  s.push_back(t.labelled("over", t.assign("seen", t.number(1))));
  m.compile(s, {"theta"});
  m.theta = {0.5};
  CMPDER d;
  ASSERT_EQ(cmpder(d, CMPLIST{{m.symbol("p")}}, CMPLIST{m.parameters}, *m.compiler), 0) << m.messages();
  ASSERT_EQ(d.der.n(), 1);
  const auto v = m.run({m.symbol("total"), m.symbol("p"), m.symbol("last"), m.symbol("pick"), m.symbol("halvings"),
                        m.symbol("j"), m.symbol("flag"), d.der.s[0]});
  EXPECT_EQ(cmperrors(*m.compiler), 0) << m.messages();
  expect_values(v[0], {12, 18, 24, 30});
  std::vector<double> p, dp;
  for (const double n : m.columns[0]) {
    double value = 1, slope = 0;
    for (double k = 1; k <= n; ++k) {
      slope = slope * (k + 0.5) + value;
      value *= k + 0.5;
    }
    p.push_back(value);
    dp.push_back(slope);
  }
  expect_values(v[1], p);
  expect_values(v[2], {1, 2, 4, 7});
  expect_values(v[3], {2, 3, 12, 15});
  expect_values(v[4], {1, 2, 2, 3});
  expect_values(v[5], {2, 3, 4, 5});
  expect_values(v[6], {0, 0, 1, 1});
  expect_values(v[7], dp);
}

// A backward GOTO is a loop; LINK comes back; DELETE leaves no results.
TEST(EnginePrograms, BackwardJumpsLinksAndDelete)
{
  Model m;
  m.data("x", {1, 4, -1});
  Trees& t = m.trees;
  m.compile({t.if_(t.binary(Op::less, t.var("x"), t.number(0)), t.plain(StatementKind::delete_)),
             t.assign("c", t.number(0)), t.labelled("again", t.assign("c", t.add(t.var("c"), t.number(1)))),
             t.if_(t.binary(Op::less, t.var("c"), t.var("x")), t.jump(StatementKind::go_to, "again")),
             t.jump(StatementKind::link, "sub"), t.assign("after", t.add(t.var("r"), t.number(100))), t.return_(),
             t.labelled("sub", t.assign("r", t.mul(t.var("c"), t.number(2)))), t.return_()},
            {});
  const auto v = m.run({m.symbol("c"), m.symbol("after")});
  EXPECT_EQ(cmperrors(*m.compiler), 0) << m.messages();
  expect_values(v[0], {1, 4, missing});
  expect_values(v[1], {102, 108, missing});
}

// Autoregression: a lag of a computed value carries its derivative; sums start anew with each subject.
TEST(EnginePrograms, KeptValuesCarryTheirDerivatives)
{
  Model m;
  m.data("y", {1, 2, 4, 3, 5});
  m.starts = {0, 0, 0, 3, 3};
  Trees& t = m.trees;
  m.compile({t.assign("e", t.sub(t.var("y"), t.var("mu"))), t.assign("before", t.call("lag", {t.var("e")})),
             t.assign("first", t.call("lag", {t.var("y")})), t.sum("total", t.mul(t.var("mu"), t.var("y"))),
             t.assign("r", t.conditional(t.binary(Op::equal, t.var("before"), t.number(missing)), t.var("e"),
                                         t.sub(t.var("e"), t.mul(t.var("rho"), t.var("before")))))},
            {"mu", "rho"});
  m.theta = {0.5, 0.3};
  CMPDER d, dd;
  ASSERT_EQ(cmpder(d, CMPLIST{{m.symbol("r"), m.symbol("total")}}, CMPLIST{m.parameters}, *m.compiler), 0)
      << m.messages();
  ASSERT_EQ(d.der.n(), 3);
  ASSERT_EQ(cmpder(dd, d.der, CMPLIST{m.parameters}, *m.compiler), 0);
  std::vector<CMPSYM*> outputs{m.symbol("r"), m.symbol("total"), m.symbol("first")};
  outputs.insert(outputs.end(), d.der.s.begin(), d.der.s.end());
  const auto v = m.run(outputs);
  expect_values(v[0], {0.5, 1.5 - 0.15, 3.5 - 0.45, 2.5, 4.5 - 0.75});
  expect_values(v[1], {0.5, 1.5, 3.5, 1.5, 4});
  expect_values(v[2], {missing, 1, 2, missing, 3});
  expect_values(v[3], {-1, -1 + 0.3, -1 + 0.3, -1, -1 + 0.3});
  expect_values(v[4], {0, -0.5, -1.5, 0, -2.5});
  expect_values(v[5], {1, 3, 7, 3, 8});
}

// Texts: comparisons of data with constants, a text chosen by a branch, substrings and lengths.
TEST(EnginePrograms, TextsDecideBranches)
{
  Model m;
  m.data("x", {1, 2, 3, 4});
  m.characters("sex", {"M", "F", "", "M "});
  Trees& t = m.trees;
  m.compile({t.if_(t.binary(Op::equal, t.var("sex"), t.text("M")), t.assign("g", t.text("male")),
                   t.assign("g", t.text("other"))),
             t.assign("z", t.conditional(t.binary(Op::equal, t.call("upcase", {t.var("g")}), t.text("MALE")),
                                         t.var("x"), t.number(0))),
             t.assign("len", t.call("length", {t.binary(Op::concatenate, t.var("g"), t.text("!"))})),
             t.assign("blank", t.call("missing", {t.var("sex")}))},
            {});
  const auto v = m.run({m.symbol("z"), m.symbol("len"), m.symbol("blank")});
  EXPECT_EQ(cmperrors(*m.compiler), 0) << m.messages();
  expect_values(v[0], {1, 0, 0, 4});
  expect_values(v[1], {5, 5, 5, 5});
  expect_values(v[2], {0, 0, 1, 0});
}

TEST(EnginePrograms, StopsAndSubscriptsTrap)
{
  Model m;
  m.data("x", {1, 2, 3, 4});
  Trees& t = m.trees;
  m.compile({t.array("a", 3, {"a1", "a2", "a3"}), t.assign("a1", t.number(1)), t.assign("a2", t.number(1)),
             t.assign("a3", t.number(1)), t.assign("z", t.element("a", {t.var("x")})),
             t.if_(t.binary(Op::greater, t.var("x"), t.var("limit")), t.plain(StatementKind::stop))},
            {"limit"});
  int code = 0;
  m.theta = {10};
  (void)m.run({m.symbol("z")}, {}, &code);
  EXPECT_EQ(code, run_code::subscript);
  m.columns[0][3] = 2;
  (void)m.run({m.symbol("z")}, {}, &code);
  EXPECT_EQ(code, 0);
  m.theta = {2.5};
  (void)m.run({m.symbol("z")}, {}, &code);
  EXPECT_EQ(code, run_code::stopped);
}

// The slow path finds the faults that the wanted outputs meet, with statement, record and values, and nothing else.
TEST(EngineFaults, OnlyWhatIsExecutedAndWantedCounts)
{
  Model m;
  m.data("x", {0, 2, -1, missing});
  Trees& t = m.trees;
  m.compile({t.assign("unused", t.div(t.number(1), t.sub(t.var("x"), t.var("x")))),
             t.if_(t.binary(Op::greater, t.var("x"), t.number(0)),
                   t.assign("safe", t.call("log", {t.mul(t.number(3), t.var("x"))})), t.assign("safe", t.number(0))),
             t.assign("bad", t.add(t.call("log", {t.var("x")}), t.div(t.var("a"), t.var("x"))))},
            {"a"});
  m.theta = {3};
  const engine::Program* const safe = cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("safe")});
  const engine::Program* const bad = cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("bad")});
  Frame f = m.frame();
  f.set_parameters(m.theta.data());
  const int want[] = {2, 0, 1, 0};
  const int want_missing[] = {1, 0, 1, 3};
  for (int row = 0; row < 4; ++row) {
    std::vector<Fault> faults;
    int errors = -1, made = -1;
    EXPECT_EQ(f.run_checked(*safe, row, 0, faults, errors, made), 0);
    EXPECT_EQ(errors, 0) << faults[0].text;
    EXPECT_EQ(f.run_checked(*bad, row, 0, faults, errors, made), 0);
    EXPECT_EQ(errors, want[row]) << "row " << row;
    EXPECT_EQ(made, want_missing[row]) << "row " << row;
    for (const Fault& fault : faults) {
      EXPECT_EQ(fault.row, row);
      EXPECT_EQ(fault.where.line, 5); // the fifth statement made
    }
    if (row == 0) {
      EXPECT_NE(faults[1].text.find("division by zero (operands 3, 0)"), std::string::npos) << faults[1].text;
    }
  }
}

// Lines of PUT come in program order, only from the branches executed.
TEST(EngineFaults, PutWritesWhatItsBranchesReach)
{
  Model m;
  m.data("x", {1, 5});
  Trees& t = m.trees;
  auto* const put = t.statement<PutStatement>(StatementKind::put);
  PutItem words, value;
  words.kind = PutItem::Kind::text;
  words.text = "x is ";
  value.kind = PutItem::Kind::named_value;
  value.value = t.var("x");
  put->items = t.arena.copy(std::vector<PutItem>{words, value});
  m.compile({t.if_(t.binary(Op::greater, t.var("x"), t.number(2)), put), t.assign("y", t.var("x"))}, {});
  Frame f = m.frame();
  std::vector<PutLine> lines;
  (void)cmpspec(*m.compiler, std::vector<CMPSYM*>{m.symbol("y")});
  ASSERT_TRUE(has_put(*m.compiler));
  f.run_put(0, 0, lines);
  EXPECT_TRUE(lines.empty());
  f.run_put(1, 0, lines);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, "x is x=5 ");
  EXPECT_EQ(lines[0].target, "LOG");
}

} // namespace torvale::test
