#include "inference/tables/expressions.h"

#include "evaluation/program_faults.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"

#include <cmath>

namespace torvale::inference {

namespace {

// Message 73 with the reason, where the program or the expression has a fault; else the value was missing before.
int refuse(model::NX& n, engine::Frame& frame, const model::EstimateStatement& s, const char* statement)
{
  std::vector<engine::Fault> faults;
  int nerror = 0, nmissgen = 0;
  frame.run_checked(*s.program, 0, 0, faults, nerror, nmissgen);
  message::expression_fails_at_estimates words{.statement = statement, .label = s.label};
  host::MessagePlace place;
  if (faults.empty()) {
    place = n.sources->place(statement, s.where);
    if (nmissgen > 0) words.reason = "a variable that it uses is missing";
  } else {
    evaluation::words_of(n, faults.front()).add_to(words, place);
  }
  n.host->log().xpmlog(words, place);
  n.raise(1012);
  return 1;
}

} // namespace

int evaluate_expressions(model::NX& n, const std::vector<model::EstimateStatement>& statements, const char* statement,
                         ExpressionValues& out)
{
  const auto np = static_cast<std::size_t>(n.nparm);
  engine::Frame frame(*n.gcmp, n.bound);
  frame.set_parameters(n.parm.data());
  frame.set_range(0, 1);
  std::size_t effects = 1;
  for (const auto& r : n.reff) effects += static_cast<std::size_t>(r.nr);
  const std::vector<double> zero(effects, 0.0);
  frame.set_points(zero.data(), 1, 1);
  const std::int32_t lane = 0;
  const engine::Tile tile{1, &lane, &lane, &lane};

  for (const auto& s : statements) {
    if (engine::sequential(*s.program)) frame.reset_state(*s.program, 1);
    const auto rows = static_cast<std::size_t>(s.expr.n());
    const auto first = out.value.size();
    if (frame.run(*s.program, tile) > 2) return refuse(n, frame, s, statement);
    for (std::size_t r = 0; r < rows; ++r) out.value.push_back(frame.output(static_cast<int>(r))[0]);
    for (std::size_t r = 0; r < rows; ++r) {
      if (std::isnan(out.value[first + r])) return refuse(n, frame, s, statement);
      const auto start = out.gradient.size();
      bool missing = false;
      for (std::size_t j = 0; j < np; ++j) {
        out.gradient.push_back(frame.output(static_cast<int>(rows + r * np + j))[0]);
        missing = missing || std::isnan(out.gradient.back());
      }
      if (missing) std::fill(out.gradient.begin() + static_cast<std::ptrdiff_t>(start), out.gradient.end(), 0.0);
    }
  }
  return 0;
}

} // namespace torvale::inference
