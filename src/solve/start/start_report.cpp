#include "solve/start/start_report.h"

#include "evaluation/program_faults.h"
#include "evaluation/record_frame.h"
#include "host/messages/names/fit.h"
#include "host/values/text.h"
#include "model/distribution_labels.h"
#include "model/subject_names.h"

#include <algorithm>
#include <cmath>

namespace torvale::solve {

using model::NX;

namespace {

// What stands under one heading: the records of a subject, or one record.
struct Worst {
  double loglik = 0.0;         // sum over the records that have one
  long records = 0, bad = 0;   // used ones; of them impossible, or without a value
  std::int64_t first_bad = -1; // store row
};

bool is_bad(double ll)
{
  return !(ll > model::impossible_loglik);
}

// The log likelihood of every used record, one tile after the other; missing for the others.
std::vector<double> record_logliks(const NX& n, engine::Frame& frame)
{
  std::vector<double> result(static_cast<std::size_t>(n.store->nobs), host::missing);
  for (std::int64_t first = 0; first < n.store->nobs; first += engine::max_lanes) {
    engine::Tile tile;
    tile.lanes = static_cast<int>(std::min<std::int64_t>(engine::max_lanes, n.store->nobs - first));
    tile.first = static_cast<std::int32_t>(first);
    frame.set_range(first, tile.lanes);
    if (frame.run(*n.programs.value.code, tile) > 2) return {};
    std::copy_n(frame.output(0), tile.lanes, result.begin() + first);
  }
  return result;
}

std::vector<Worst> by_subject(const NX& n, const std::vector<double>& loglik)
{
  std::vector<Worst> all;
  const auto add = [&](std::int64_t first, std::int64_t count) {
    Worst w;
    for (std::int64_t row = first; row < first + count; ++row) {
      const auto r = static_cast<std::size_t>(row);
      if (n.store->badobs[r] != model::BadCause::none) continue;
      ++w.records;
      if (!is_bad(loglik[r])) {
        w.loglik += loglik[r];
        continue;
      }
      if (w.bad++ == 0) w.first_bad = row;
    }
    if (w.bad > 0) all.push_back(w);
  };
  if (n.nreff() == 0)
    for (std::int64_t row = 0; row < n.store->nobs; ++row) add(row, 1);
  else
    for (const auto& s : n.outer().SubInfo) add(s.first_row, s.SubCount);
  return all;
}

// The response at a row and the distribution of MODEL with its arguments there: "y = 0 with Poisson(1.9e-17)".
std::string response_at(NX& n, engine::Frame& frame, std::int64_t row)
{
  const auto& column = n.fid->columns()[static_cast<std::size_t>(n.depsym->dsvarno - 1)];
  std::string text = n.depname + " = " + column.shown(model::input_row(n, row));
  std::vector<engine::CMPSYM*> arguments; // as the statements that stand for MODEL name them
  for (const char* name : {"_arg1", "_arg2", "_arg3"})
    if (auto* const symbol = engine::cmpsyms(*n.gcmp, name); symbol != nullptr && symbol->assigned)
      arguments.push_back(symbol);
  constexpr int general = 5;
  if (arguments.empty() || n.disttype == general) return text;
  const engine::Program& program = *engine::cmpspec(*n.gcmp, arguments);
  engine::Tile one;
  one.lanes = 1;
  one.first = static_cast<std::int32_t>(row);
  frame.set_range(row, 1);
  if (frame.run(program, one) > 2) return text;
  text += " with " + host::xpmstr(model::distribution_label(n.disttype));
  for (std::size_t k = 0; k < arguments.size(); ++k)
    text += (k == 0 ? "(" : ", ") + host::readable(frame.output(static_cast<int>(k))[0]);
  return text + ")";
}

void tell(NX& n, engine::Frame& frame, const Worst& w)
{
  host::MessagePlace place = evaluation::place_of(n, w.first_bad);
  message::start_fails_at_subject words{.observation = evaluation::observation_number(n, w.first_bad)};
  if (n.nreff() > 0) {
    words.bad = w.bad;
    words.records = w.records;
  }
  std::vector<engine::Fault> faults;
  int nerror = 0, nmissgen = 0;
  frame.set_range(w.first_bad, 1);
  frame.run_checked(*n.programs.value.code, w.first_bad, 0, faults, nerror, nmissgen);
  if (!faults.empty()) {
    evaluation::words_of(n, faults.front()).add_to(words, place);
  } else if (n.depsym != nullptr && n.depsym->dsvarno > 0) {
    words.response = response_at(n, frame, w.first_bad);
  }
  n.host->log().xpmlog(words, place);
}

} // namespace

int report_worst_subjects(NX& n)
{
  constexpr std::size_t told = 3;
  const engine::Program& program = *n.programs.value.code;
  if (engine::sequential(program) || n.response_told) return 0;
  evaluation::RecordFrame records(n, n.parm.data());
  engine::Frame& frame = records.frame;
  const std::vector<double> loglik = record_logliks(n, frame);
  if (loglik.empty()) return 0;
  std::vector<Worst> all = by_subject(n, loglik);
  const auto end = all.begin() + static_cast<std::ptrdiff_t>(std::min(told, all.size()));
  std::partial_sort(all.begin(), end, all.end(), [](const Worst& a, const Worst& b) {
    return a.bad != b.bad ? a.bad > b.bad : a.loglik != b.loglik ? a.loglik < b.loglik : a.first_bad < b.first_bad;
  });
  std::for_each(all.begin(), end, [&](const Worst& w) { tell(n, frame, w); });
  return static_cast<int>(end - all.begin());
}

} // namespace torvale::solve
