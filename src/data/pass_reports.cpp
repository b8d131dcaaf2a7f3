#include "data/pass_reports.h"

#include "evaluation/program_faults.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/statements.h"
#include "model/distribution_labels.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace torvale::data {

using evaluation::observation_number;
using evaluation::place_of;
using model::BadCause;
using model::NX;

namespace {

// What is missing in an unusable row, by BadCause.
constexpr std::array<const char*, 9> what = {"",
                                             "the dependent variable",
                                             "the replicate variable",
                                             "the log likelihood",
                                             "a derivative of the log likelihood",
                                             "an argument of RANDOM",
                                             "a derivative of an argument of RANDOM",
                                             "nothing, but DELETE was executed",
                                             "nothing, but they are event records"};

// Runs the program once more at one row, with all checks: what went wrong there.
int run_checked(const NX& n, engine::Frame& frame, const engine::Program& program, const PassFindings& pass,
                std::int64_t row, std::vector<engine::Fault>& faults)
{
  std::vector<double> mean = no_effects(n);
  means_at(n, pass, row, mean.data());
  frame.set_points(mean.data(), 1, 1);
  frame.set_range(row, 1);
  int nerror = 0, nmissgen = 0;
  return frame.run_checked(program, row, 0, faults, nerror, nmissgen);
}

// The first fault that a row's values went through: its own, or one of an earlier record that a kept value came from.
// False when there is none.
bool report_fault(NX& n, engine::Frame& frame, const PassFindings& pass, std::int64_t row)
{
  std::vector<engine::Fault> faults;
  run_checked(n, frame, *n.pass_program, pass, row, faults);
  if (faults.empty()) return false;
  const engine::Fault& fault = faults.front();
  message::program_fails_at_start words{.observation = observation_number(n, fault.row)};
  auto place = place_of(n, fault.row);
  evaluation::words_of(n, fault).add_to(words, place);
  n.host->log().xpmlog(words, place);
  n.raise(1012);
  return true;
}

} // namespace

int report_stop(NX& n, engine::Frame& frame, const engine::Program& program, const PassFindings& pass, int rc,
                std::vector<std::int32_t> rows)
{
  constexpr std::int64_t searched_most = 100000;
  for (std::int64_t row = 0; row < std::min(n.store->nobs, searched_most); ++row)
    rows.push_back(static_cast<std::int32_t>(row));
  message::program_stopped words{.code = rc};
  host::MessagePlace place;
  for (const std::int32_t row : rows) {
    std::vector<engine::Fault> faults;
    if (run_checked(n, frame, program, pass, row, faults) <= 2 || faults.empty()) continue;
    place = place_of(n, row);
    evaluation::words_of(n, faults.front()).add_to(words, place);
    words.observation = observation_number(n, row);
    break;
  }
  n.host->log().xpmlog(words, place);
  n.raise(1012);
  return 1;
}

int inspect_bad_rows(NX& n, engine::Frame& frame, const PassFindings& pass)
{
  if (pass.found.bad == 0) return 0;
  std::array<long, 9> counts{};
  std::array<std::int64_t, 9> firsts{};
  const bool deletes = engine::deletes_records(*n.gcmp); // a record that DELETE leaves out is missing without a fault
  const bool sequential = engine::sequential(*n.pass_program);
  int inspected = 200; // a fault shows at once; the rest is counting
  // Records that may be run for it: kept values are worked out from the subject's first record on.
  std::int64_t records = std::clamp(4000000 / std::max(1, engine::program_size(*n.pass_program).nodes), 5, 20000);
  for (std::int64_t row = 0; row < n.store->nobs; ++row) {
    const BadCause cause = n.store->badobs[static_cast<std::size_t>(row)];
    if (cause == BadCause::none || cause == BadCause::dependent || cause == BadCause::replicate ||
        cause == BadCause::event)
      continue;
    bool data_missing = false;
    for (const auto& column : n.store->view.columns)
      data_missing = data_missing || (column.numeric != nullptr && std::isnan(column.numeric[row]));
    if (inspected > 0 && records > 0) {
      --inspected;
      const std::int32_t* const starts = n.store->view.subject_start;
      records -= sequential ? row - (starts != nullptr ? starts[row] : 0) + 1 : 1;
      if (report_fault(n, frame, pass, row)) return 1;
    }
    if (data_missing || deletes) continue;
    const auto c = static_cast<std::size_t>(cause);
    if (counts[c]++ == 0) firsts[c] = row;
  }
  for (std::size_t c = 0; c < counts.size(); ++c) {
    if (counts[c] == 0 || c == static_cast<std::size_t>(BadCause::deleted)) continue;
    n.host->log().xpmlog(message::value_missing_at_start{.count = counts[c],
                                                         .what = what[c],
                                                         .observation = observation_number(n, firsts[c])},
                         place_of(n, firsts[c]));
    n.raise(4);
  }
  return 0;
}

void report_impossible(NX& n, const PassFindings& pass)
{
  const auto& rows = pass.found.first_impossible;
  if (rows.empty() || n.response_told) return;
  std::string shown;
  for (std::size_t i = 0; i < rows.size(); ++i)
    shown += (i > 0 ? ", " : "") + std::to_string(observation_number(n, rows[i]));
  n.host->log().xpmlog(message::impossible_at_start{.count = pass.found.impossible, .observations = shown},
                       place_of(n, rows[0]));
}

void report_values(NX& n, const PassFindings& pass)
{
  const auto& bad = n.store->badobs;
  const auto first = pass.found.bad > 0 ? std::find(bad.begin(), bad.end(), BadCause::replicate) : bad.end();
  if (first != bad.end()) {
    const auto row = static_cast<std::int64_t>(first - bad.begin());
    n.host->log().xpmlog(
        message::replicate_not_positive{.count = std::count(bad.begin(), bad.end(), BadCause::replicate),
                                        .name = n.repname,
                                        .observation = observation_number(n, row)},
        place_of(n, row));
    n.raise(4);
  }
  if (pass.found.fractions == 0) return;
  n.host->log().xpmlog(message::response_not_whole{.count = pass.found.fractions,
                                                   .name = n.depname,
                                                   .observation = observation_number(n, pass.found.first_fraction),
                                                   .distribution = host::xpmstr(model::distribution_label(n.disttype))},
                       place_of(n, pass.found.first_fraction));
  n.raise(4);
}

void report_nothing_left(NX& n)
{
  std::string causes;
  for (std::size_t c = 1; c < what.size(); ++c) {
    const auto rows = std::count(n.store->badobs.begin(), n.store->badobs.end(), static_cast<BadCause>(c));
    if (rows > 0) causes += (causes.empty() ? "" : ", ") + std::string(what[c]) + " in " + std::to_string(rows);
  }
  n.host->log().xpmlog(message::no_usable_observation{.causes = causes});
}

} // namespace torvale::data
