// Sums over records, for any choice of subjects, against a plain loop: one record and one point at a time, in the order
// of the records. To the last bit, since no result may depend on what shares a tile.

#include "evaluation/record_sums.h"
#include "integration/objective.h"
#include "integration/small_model.h"
#include "integration/subjects/evaluation_parts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <random>

namespace torvale::tests {

namespace {

// Subjects of 1 to `longest` records; with `keeps`, the log likelihood remembers the record before.
ModelText uneven_model(std::mt19937& random, int subjects, int longest, bool keeps)
{
  std::uniform_int_distribution<int> length(1, longest);
  std::normal_distribution<double> normal;
  std::vector<double> subject, x, y;
  for (int s = 1; s <= subjects; ++s)
    for (int k = length(random); k > 0; --k) {
      subject.push_back(s);
      x.push_back(normal(random));
      y.push_back(normal(random));
    }
  ModelText m;
  m.parameters = {"b", "g"};
  m.effects = {"u"};
  m.prior = {Term(0.0), Term("g")};
  m.columns = {{"subject", subject}, {"x", x}, {"y", y}};
  if (keeps) m.assignments.emplace_back("before", Term::call("coalesce", {Term::call("lag", {Term("e")}), Term(0.0)}));
  m.assignments.emplace_back("e", Term("y") - Term("b") * "x" - "u");
  m.assignments.emplace_back("_ll", keeps ? Term(-0.5) * (Term("e") - Term(0.3) * "before") * "e"
                                          : Term(-0.5) * Term("e") * "e");
  return m;
}

// Slots that are side by side from the first on, others with gaps: what a mode search leaves when some have arrived.
std::vector<int> choose_slots(std::mt19937& random, int slots)
{
  const int together = std::uniform_int_distribution<int>(0, slots)(random);
  const double share = std::uniform_real_distribution<double>()(random);
  std::bernoulli_distribution chosen(share);
  std::vector<int> result;
  for (int s = 0; s < slots; ++s)
    if (s < together || chosen(random)) result.push_back(s);
  if (result.empty()) result.push_back(slots - 1);
  return result;
}

struct Case {
  model::NX& n;
  const engine::Program& program;
  std::span<const int> places;
  const std::vector<int>& slots;
  int points;
};

void expect_plain_sums(const Case& c, std::mt19937& random)
{
  model::TVLThreadCtx& ctx = *c.n.ctx[0];
  const model::BatchWork& b = ctx.batch;
  const evaluation::Pairs pairs{c.slots.data(), static_cast<int>(c.slots.size()), c.points};
  const int all = pairs.count * pairs.points;
  ASSERT_LE(all, evaluation::most_pairs);
  std::normal_distribution<double> normal;
  std::vector<double> ran(evaluation::most_pairs);
  for (double& u : ran) u = normal(random);
  const std::size_t outputs = 1 + static_cast<std::size_t>(*std::max_element(c.places.begin(), c.places.end()));
  std::vector<double> sums(outputs * evaluation::most_pairs, -99.0);
  ctx.frame->set_points(ran.data(), all, evaluation::most_pairs);
  ASSERT_EQ(evaluation::tvllogl(c.n, ctx, pairs, {&c.program, c.places, sums.data(), evaluation::most_pairs}), 0);

  engine::Frame frame(*c.n.gcmp, c.n.bound);
  frame.set_parameters(c.n.parm.data());
  frame.set_records(b.rows, b.level[b.levels]);
  frame.set_points(ran.data(), all, evaluation::most_pairs);
  const std::int32_t state = 0;
  for (int i = 0; i < pairs.count; ++i)
    for (int q = 0; q < pairs.points; ++q) {
      const std::int32_t pair = i * pairs.slot_step() + q * pairs.point_step();
      if (engine::sequential(c.program)) frame.reset_state(c.program, 1);
      std::vector<double> expected(c.places.size(), 0.0);
      for (int k = 0; k < b.levels && b.level[k] + pairs.slots[i] < b.level[k + 1]; ++k) {
        const std::int32_t record = b.level[k] + pairs.slots[i];
        engine::Tile tile;
        tile.lanes = 1;
        tile.observation = &record;
        tile.point = &pair;
        tile.state = engine::sequential(c.program) ? &state : nullptr;
        ASSERT_EQ(frame.run(c.program, tile), 0);
        for (std::size_t o = 0; o < expected.size(); ++o) expected[o] += frame.output(static_cast<int>(o))[0];
      }
      for (std::size_t o = 0; o < expected.size(); ++o) {
        const double found =
            sums[static_cast<std::size_t>(c.places[o]) * evaluation::most_pairs + static_cast<std::size_t>(pair)];
        ASSERT_EQ(std::bit_cast<std::uint64_t>(found), std::bit_cast<std::uint64_t>(expected[o]))
            << found << " for " << expected[o] << ": slot " << pairs.slots[i] << " of " << pairs.count << ", point "
            << q << " of " << pairs.points << ", output " << o;
      }
    }
}

} // namespace

TEST(RecordSums, EqualAPlainLoopForEveryChoiceOfSubjects)
{
  std::mt19937 random(20);
  for (int round = 0; round < 24; ++round) {
    const bool keeps = round % 6 == 5;
    const auto run = make_run(uneven_model(random, round % 2 == 0 ? 200 : 45, round % 3 == 0 ? 4 : 14, keeps), {});
    model::NX& n = *run;
    n.parm = {0.4, 0.7};
    model::TVLThreadCtx& ctx = *n.ctx[0];
    ctx.frame->set_parameters(n.parm.data());
    for (const model::Batch& batch : n.batches) {
      integration::take_batch(n, ctx, batch);
      for (int choice = 0; choice < 8; ++choice) {
        const std::vector<int> slots = choose_slots(random, ctx.batch.slots);
        const int room = evaluation::most_pairs / static_cast<int>(slots.size());
        static constexpr int counts[] = {1, 1, 3, 9, 31, 40};
        const int points = std::min(room, counts[std::uniform_int_distribution<int>(0, 5)(random)]);
        for (const model::ModelProgram* p : {&n.programs.value, &n.programs.gradient})
          expect_plain_sums({n, *p->code, p->outputs, slots, points}, random);
        if (HasFatalFailure()) return;
      }
    }
  }
}

} // namespace torvale::tests
