// One pass over the data with the model program, before anything is fitted: which observations can be used, and is
// constant within a subject what must be.

#include "data/data_pass.h"

#include "data/row_runner.h"
#include "data/starting_values.h"
#include "data/subject_tables.h"
#include "evaluation/program_faults.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"
#include "model/distribution_labels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

namespace torvale::data {

using evaluation::observation_number;
using evaluation::place_of;
using model::BadCause;
using model::GroupState;
using model::ModelLists;
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

// Everything that the pass learns of the rows.
struct Pass {
  std::vector<std::vector<double>> arguments; // by level, nobs x nd: distribution arguments of each row
  std::vector<double> loglik;                 // _ll of each row
  long fractions = 0;                         // used rows whose response is not a whole number, where it should be one
  std::int64_t first_fraction = 0;            // row of the first one
};

// The means of all random effects at a row: what the program is run at.
void means_at(const ModelLists& n, const Pass& pass, std::int64_t row, double* mean)
{
  for (std::size_t k = 0; k < n.reff.size(); ++k) {
    const auto& reff = n.reff[k];
    if (reff.distrtype != 0 || pass.arguments.size() <= k || pass.arguments[k].empty()) continue;
    std::copy_n(pass.arguments[k].begin() + row * reff.nd, reff.nr, mean + reff.first_effect);
  }
}

std::vector<double> no_effects(const ModelLists& n)
{
  return std::vector<double>(static_cast<std::size_t>(std::max(1, n.programs.ne)), 0.0);
}

// Runs the program once more at one row, with all checks: what went wrong there.
int run_checked(const NX& n, engine::Frame& frame, const engine::Program& program, const Pass& pass, std::int64_t row,
                std::vector<engine::Fault>& faults)
{
  std::vector<double> mean = no_effects(n);
  means_at(n, pass, row, mean.data());
  frame.set_points(mean.data(), 1, 1);
  frame.set_range(row, 1);
  int nerror = 0, nmissgen = 0;
  return frame.run_checked(program, row, 0, faults, nerror, nmissgen);
}

// One of these rows holds a fatal fault: names the row, the line and the cause. A fault met while columns were computed
// may stand in any other row.
int report_stop(NX& n, engine::Frame& frame, const engine::Program& program, const Pass& pass, int rc,
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

// Distribution arguments of every row, from the slice of the program that yields them; random effects stand at 0 there,
// and may not enter.
int run_arguments(NX& n, engine::Frame& frame, std::size_t level, Pass& pass)
{
  const auto& reff = n.reff[level];
  std::vector<double>& arguments = pass.arguments[level];
  arguments.resize(static_cast<std::size_t>(n.store->nobs * reff.nd));
  const std::vector<double> zero = no_effects(n);
  frame.set_points(zero.data(), 1, 1);
  std::vector<std::int32_t> stopped;
  const int rc = run_rows(
      n, frame, *reff.setup_value.code, {},
      [&](const engine::Tile& tile, const engine::Frame& f) {
        for (int k = 0; k < reff.nd; ++k) {
          const double* values = f.output(k);
          for (int j = 0; j < tile.lanes; ++j)
            arguments[static_cast<std::size_t>(tile.observation[j] * reff.nd + k)] = values[j];
        }
        return 0;
      },
      stopped);
  return rc == 0 ? 0 : report_stop(n, frame, *reff.setup_value.code, pass, rc, stopped);
}

void mark(GroupState& n, std::int64_t row, BadCause cause)
{
  auto& bad = n.store->badobs[static_cast<std::size_t>(row)];
  if (bad == BadCause::none) bad = cause;
}

// The whole program at the means: `_ll`, the derivatives that the method uses, the dependent and replicate variables.
int run_program(NX& n, engine::Frame& frame, const Pass& arguments, Pass& pass)
{
  const bool effects = n.nreff() > 0;
  const auto rows = static_cast<std::size_t>(n.store->nobs);
  const auto ne = static_cast<std::size_t>(std::max(1, n.programs.ne));
  std::vector<double> means(ne * rows, 0.0);
  std::vector<std::int32_t> point(effects ? rows : 0);
  std::iota(point.begin(), point.end(), 0);
  if (effects) {
    std::vector<double> mean(ne, 0.0);
    for (std::size_t row = 0; row < rows; ++row) {
      means_at(n, arguments, static_cast<std::int64_t>(row), mean.data());
      for (std::size_t e = 0; e < ne; ++e) means[e * rows + row] = mean[e];
    }
  }
  frame.set_points(means.data(), effects ? static_cast<int>(rows) : 1, static_cast<int>(rows));

  pass.loglik.assign(rows, host::missing);
  if (n.repsym != nullptr) n.store->replicate.assign(rows, host::missing);
  const int outputs = static_cast<int>(n.pass_kind.size());
  const bool counts =
      n.disttype == 2 || n.disttype == 3 || n.disttype == 4 || n.disttype == 6; // binary to negative binomial
  std::vector<std::int32_t> stopped;
  const int rc = run_rows(
      n, frame, *n.pass_program, point,
      [&](const engine::Tile& tile, const engine::Frame& f) {
        bool ll_seen = false;
        for (int k = 0; k < outputs; ++k) {
          const auto cause = static_cast<BadCause>(n.pass_kind[static_cast<std::size_t>(k)]);
          const double* values = f.output(k);
          const bool is_ll = cause == BadCause::log_likelihood && !ll_seen;
          ll_seen = ll_seen || is_ll;
          for (int j = 0; j < tile.lanes; ++j) {
            const auto row = static_cast<std::size_t>(tile.observation[j]);
            if (is_ll) pass.loglik[row] = values[j];
            if (cause == BadCause::replicate) n.store->replicate[row] = values[j];
            const bool refused = cause == BadCause::replicate && !(values[j] >= n.singvar);
            if (std::isnan(values[j]) || refused)
              mark(n, tile.observation[j], cause);
            else if (cause == BadCause::dependent && counts && values[j] != std::floor(values[j]) &&
                     pass.fractions++ == 0)
              pass.first_fraction = tile.observation[j];
          }
        }
        return 0;
      },
      stopped);
  return rc == 0 ? 0 : report_stop(n, frame, *n.pass_program, arguments, rc, stopped);
}

// The first fault that a row's values went through: its own, or one of an earlier record that a kept value came from.
// False when there is none.
bool report_fault(NX& n, engine::Frame& frame, const Pass& pass, std::int64_t row)
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

// Looks closer at the rows that came out unusable: a program fault ends the group; a value that went missing without a
// missing value in the data deserves a warning.
int inspect_bad_rows(NX& n, engine::Frame& frame, const Pass& arguments)
{
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
      if (report_fault(n, frame, arguments, row)) return 1;
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

bool same_value(double a, double b)
{
  return a == b || (std::isnan(a) && std::isnan(b));
}

// Distribution arguments (message 137), the data variables behind them (146) and the replicate count (9203) must not
// change within a subject.
int check_subject(NX& n, const Pass& pass, const model::SUBINFO& subject)
{
  const auto level = static_cast<std::size_t>(subject.ranind);
  const auto& reff = n.reff[level];
  const std::int64_t first = subject.fvalidobs;
  for (std::int64_t row = first + 1; row < subject.first_row + subject.SubCount; ++row) {
    if (n.store->badobs[static_cast<std::size_t>(row)] != BadCause::none) continue;
    for (int k = 0; k < reff.nd; ++k) {
      const auto at = [&](std::int64_t r) { return pass.arguments[level][static_cast<std::size_t>(r * reff.nd + k)]; };
      if (same_value(at(row), at(first))) continue;
      std::string variables;
      for (const int dsvarno : reff.rhs)
        variables += (variables.empty() ? "" : ", ") + n.fid->columns()[static_cast<std::size_t>(dsvarno - 1)].name();
      const auto record = place_of(n, row);
      auto place = n.sources->place("RANDOM", reff.stmt->where);
      place.row = record.row;
      place.subject = record.subject;
      n.host->log().xpmlog(
          message::random_argument_changes{.observation = observation_number(n, row), .variables = variables}, place);
      return 1;
    }
    for (const int dsvarno : reff.rhs)
      for (const auto& column : n.store->view.columns) {
        if (column.dsvarno != dsvarno) continue;
        const bool same = column.numeric != nullptr ? same_value(column.numeric[row], column.numeric[first])
                                                    : column.codes[row] == column.codes[first];
        if (same) continue;
        const auto& name = n.fid->columns()[static_cast<std::size_t>(dsvarno - 1)].name();
        n.host->log().xpmlog(
            message::random_variable_changes{.variable = name, .observation = observation_number(n, row)},
            place_of(n, row));
        return 1;
      }
    if (n.repsym != nullptr && !same_value(n.store->replicate[static_cast<std::size_t>(row)],
                                           n.store->replicate[static_cast<std::size_t>(first)])) {
      n.host->log().xpmlog(message::replicate_changes{.variable = n.repname, .observation = observation_number(n, row)},
                           place_of(n, row));
      return 1;
    }
  }
  return 0;
}

int count_subjects(NX& n, const Pass& pass, model::REFFECT& reff)
{
  reff.nsub = 0;
  reff.nrepsub = 0.0;
  reff.ntmax = 0;
  for (auto& subject : reff.SubInfo) {
    subject.used = 0;
    for (std::int64_t row = subject.first_row; row < subject.first_row + subject.SubCount; ++row) {
      if (n.store->badobs[static_cast<std::size_t>(row)] != BadCause::none) continue;
      if (subject.used++ == 0) subject.fvalidobs = row;
      subject.lvalidobs = row;
    }
    subject.badsub = subject.used == 0;
    if (subject.badsub) continue;
    subject.weight = n.repsym != nullptr ? n.store->replicate[static_cast<std::size_t>(subject.lvalidobs)] : 1.0;
    ++reff.nsub;
    reff.nrepsub += subject.weight;
    reff.ntmax = std::max<long>(reff.ntmax, subject.used);
    if (check_subject(n, pass, subject) != 0) {
      n.raise(1012);
      return 1;
    }
  }
  return 0;
}

// Observations that the model calls impossible at the starting values: the fit will fail there, so name the worst now.
void report_impossible(NX& n, const Pass& pass)
{
  std::vector<std::int64_t> rows;
  for (std::int64_t row = 0; row < n.store->nobs; ++row)
    if (n.store->badobs[static_cast<std::size_t>(row)] == BadCause::none &&
        !(pass.loglik[static_cast<std::size_t>(row)] > model::impossible_loglik))
      rows.push_back(row);
  if (rows.empty() || n.response_told) return;
  std::string shown;
  for (std::size_t i = 0; i < std::min<std::size_t>(3, rows.size()); ++i)
    shown += (i > 0 ? ", " : "") + std::to_string(observation_number(n, rows[i]));
  n.host->log().xpmlog(message::impossible_at_start{.count = rows.size(), .observations = shown}, place_of(n, rows[0]));
}

// Rows that a REPLICATE value below SINGVAR= removes, and responses that counts cannot have.
void report_values(NX& n, const Pass& pass)
{
  const auto& bad = n.store->badobs;
  const auto first = std::find(bad.begin(), bad.end(), BadCause::replicate);
  if (first != bad.end()) {
    const auto row = static_cast<std::int64_t>(first - bad.begin());
    n.host->log().xpmlog(
        message::replicate_not_positive{.count = std::count(bad.begin(), bad.end(), BadCause::replicate),
                                        .name = n.repname,
                                        .observation = observation_number(n, row)},
        place_of(n, row));
    n.raise(4);
  }
  if (pass.fractions == 0) return;
  n.host->log().xpmlog(message::response_not_whole{.count = pass.fractions,
                                                   .name = n.depname,
                                                   .observation = observation_number(n, pass.first_fraction),
                                                   .distribution = host::xpmstr(model::distribution_label(n.disttype))},
                       place_of(n, pass.first_fraction));
  n.raise(4);
}

// No row is left: says how many fell to each cause.
void report_nothing_left(NX& n)
{
  std::string causes;
  for (std::size_t c = 1; c < what.size(); ++c) {
    const auto rows = std::count(n.store->badobs.begin(), n.store->badobs.end(), static_cast<BadCause>(c));
    if (rows > 0) causes += (causes.empty() ? "" : ", ") + std::string(what[c]) + " in " + std::to_string(rows);
  }
  n.host->log().xpmlog(message::no_usable_observation{.causes = causes});
}

// What PUT statements write, once per observation in the order of the file, at the means of the random effects: a
// program runs dozens of times per evaluation, and nobody wants its lines from there.
void write_put_lines(NX& n, engine::Frame& frame, const Pass& pass)
{
  if (!engine::has_put(*n.gcmp)) return;
  std::vector<double> mean = no_effects(n);
  for (const std::int32_t row : n.store->row_of_group) {
    means_at(n, pass, row, mean.data());
    frame.set_points(mean.data(), 1, 1);
    frame.set_range(row, 1);
    std::vector<engine::PutLine> lines;
    frame.run_put(row, 0, lines);
    for (const auto& line : lines) {
      if (line.is_file)
        n.host->xpfput(line.target, line.text, line.append);
      else if (host::equal_names(line.target, "PRINT"))
        n.host->xpsout(line.text);
      else
        n.host->log().xpslog(line.text);
    }
  }
}

} // namespace

int tvldata(NX& n)
{
  auto& log = n.host->log();
  if (n.lognote) log.xpmlog(message::reading_data{.data = n.bylist.empty() ? "data" : "by-group data"});
  if (!n.nqpspec && (n.method == 0 || n.method == 3) && n.nreff() > 0) n.nqp = -1;

  engine::Frame frame(*n.gcmp, n.bound);
  std::vector<double> theta(n.parmstr.size()); // the first starting point that can be used
  for (long p = 0; p < n.npoints && !grid_point(n, p, theta.data()); ++p) {
  }
  for (double& value : theta) value = std::isnan(value) ? 1.0 : value; // no point can be used: the grid says why
  frame.set_parameters(theta.data());

  Pass pass;
  pass.arguments.resize(n.reff.size());
  for (std::size_t k = 0; k < n.reff.size(); ++k)
    if (run_arguments(n, frame, k, pass) != 0) return 1;
  if (run_program(n, frame, pass, pass) != 0) return 1;
  if (inspect_bad_rows(n, frame, pass) != 0) return 1;
  report_values(n, pass);

  n.store->nobsu = std::count(n.store->badobs.begin(), n.store->badobs.end(), BadCause::none);
  for (auto reff = n.reff.rbegin(); reff != n.reff.rend(); ++reff)
    if (count_subjects(n, pass, *reff) != 0) return 1;
  if (n.store->nobsu == 0) {
    report_nothing_left(n);
    n.raise(1012);
    return 1;
  }
  if (n.reobsinfo && n.nreff() > 0) tvlmisc(n);
  report_impossible(n, pass);
  write_put_lines(n, frame, pass);
  return 0;
}

} // namespace torvale::data
