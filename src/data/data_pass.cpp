// One pass over the data with the model program, before anything is fitted: which observations can be used, and is
// constant within a subject what must be.

#include "data/data_pass.h"

#include "data/row_runner.h"
#include "data/starting_values.h"
#include "evaluation/program_faults.h"
#include "host/missing.h"

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
constexpr std::array<const char*, 8> what = {"",
                                             "the dependent variable",
                                             "the replicate variable",
                                             "the log likelihood",
                                             "a derivative of the log likelihood",
                                             "an argument of RANDOM",
                                             "a derivative of an argument of RANDOM",
                                             "nothing, but DELETE was executed"};

// Everything that the pass learns of the rows.
struct Pass {
  std::vector<double> arguments;   // nobs x nd: distribution arguments of each row (no random effects: empty)
  std::vector<double> loglik;      // _ll of each row
  long fractions = 0;              // used rows whose response is not a whole number, where it should be one
  std::int64_t first_fraction = 0; // row of the first one
};

// Runs the program once more at one row, with all checks: what went wrong there.
int run_checked(const NX& n, engine::Frame& frame, const engine::Program& program, const Pass& pass, std::int64_t row,
                std::vector<engine::Fault>& faults)
{
  const int nr = n.nreff() > 0 ? n.leaf().nr : 0;
  std::vector<double> mean(static_cast<std::size_t>(std::max(1, nr)), 0.0);
  if (nr > 0 && n.leaf().distrtype == 0) std::copy_n(pass.arguments.begin() + row * n.leaf().nd, nr, mean.begin());
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
  host::MessageArguments arguments = {{"code", rc}};
  host::MessagePlace place;
  for (const std::int32_t row : rows) {
    std::vector<engine::Fault> faults;
    if (run_checked(n, frame, program, pass, row, faults) <= 2 || faults.empty()) continue;
    place = place_of(n, row);
    evaluation::words_of(n, faults.front()).add_to(arguments, place);
    arguments.emplace_back("observation", observation_number(n, row));
    break;
  }
  n.host->log().xpmlog(503, 9201, arguments, place);
  n.raise(1012);
  return 1;
}

// Distribution arguments of every row, from the slice of the program that yields them; random effects stand at 0 there,
// and may not enter.
int run_arguments(NX& n, engine::Frame& frame, Pass& pass)
{
  const auto& reff = n.leaf();
  pass.arguments.resize(static_cast<std::size_t>(n.store->nobs * reff.nd));
  const std::vector<double> zero(static_cast<std::size_t>(reff.nr), 0.0);
  frame.set_points(zero.data(), 1, 1);
  std::vector<std::int32_t> stopped;
  const int rc = run_rows(
      n, frame, *reff.setup_value.code, {},
      [&](const engine::Tile& tile, const engine::Frame& f) {
        for (int k = 0; k < reff.nd; ++k) {
          const double* values = f.output(k);
          for (int j = 0; j < tile.lanes; ++j)
            pass.arguments[static_cast<std::size_t>(tile.observation[j] * reff.nd + k)] = values[j];
        }
        return 0;
      },
      stopped);
  return rc == 0 ? 0 : report_stop(n, frame, *reff.setup_value.code, pass, rc, stopped);
}

void mark(NX& n, std::int64_t row, BadCause cause)
{
  auto& bad = n.store->badobs[static_cast<std::size_t>(row)];
  if (bad == BadCause::none) bad = cause;
}

// The whole program at the means: `_ll`, the derivatives that the method uses, the dependent and replicate variables.
int run_program(NX& n, engine::Frame& frame, const Pass& arguments, Pass& pass)
{
  const int nr = n.nreff() > 0 ? n.leaf().nr : 0;
  const int nd = n.nreff() > 0 ? n.leaf().nd : 0;
  const auto rows = static_cast<std::size_t>(n.store->nobs);
  std::vector<double> means(std::max<std::size_t>(1, static_cast<std::size_t>(nr)) * rows, 0.0);
  std::vector<std::int32_t> point(nr > 0 ? rows : 0);
  if (nr > 0 && n.leaf().distrtype == 0) {
    for (std::size_t row = 0; row < rows; ++row)
      for (int e = 0; e < nr; ++e)
        means[static_cast<std::size_t>(e) * rows + row] =
            arguments.arguments[row * static_cast<std::size_t>(nd) + static_cast<std::size_t>(e)];
  }
  for (std::size_t row = 0; row < point.size(); ++row) point[row] = static_cast<std::int32_t>(row);
  frame.set_points(means.data(), nr > 0 ? static_cast<int>(rows) : 1, static_cast<int>(rows));

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
  host::MessageArguments arguments = {{"observation", observation_number(n, fault.row)}};
  auto place = place_of(n, fault.row);
  evaluation::words_of(n, fault).add_to(arguments, place);
  n.host->log().xpmlog(503, 70, arguments, place);
  n.raise(1012);
  return true;
}

// Looks closer at the rows that came out unusable: a program fault ends the group; a value that went missing without a
// missing value in the data deserves a warning.
int inspect_bad_rows(NX& n, engine::Frame& frame, const Pass& arguments)
{
  std::array<long, 8> counts{};
  std::array<std::int64_t, 8> firsts{};
  const bool deletes = engine::deletes_records(*n.gcmp); // a record that DELETE leaves out is missing without a fault
  const bool sequential = engine::sequential(*n.pass_program);
  int inspected = 200; // a fault shows at once; the rest is counting
  // Records that may be run for it: kept values are worked out from the subject's first record on.
  std::int64_t records = std::clamp(4000000 / std::max(1, engine::program_size(*n.pass_program).nodes), 5, 20000);
  for (std::int64_t row = 0; row < n.store->nobs; ++row) {
    const BadCause cause = n.store->badobs[static_cast<std::size_t>(row)];
    if (cause == BadCause::none || cause == BadCause::dependent || cause == BadCause::replicate) continue;
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
    n.host->log().xpmlog(503, 9202,
                         {{"count", counts[c]}, {"what", what[c]}, {"observation", observation_number(n, firsts[c])}},
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
  const auto& reff = n.leaf();
  const std::int64_t first = subject.fvalidobs;
  for (std::int64_t row = first + 1; row < subject.first_row + subject.SubCount; ++row) {
    if (n.store->badobs[static_cast<std::size_t>(row)] != BadCause::none) continue;
    for (int k = 0; k < reff.nd; ++k) {
      const auto at = [&](std::int64_t r) { return pass.arguments[static_cast<std::size_t>(r * reff.nd + k)]; };
      if (same_value(at(row), at(first))) continue;
      host::MessageArguments arguments = {{"observation", observation_number(n, row)}};
      std::string variables;
      for (const int dsvarno : n.rhs)
        variables += (variables.empty() ? "" : ", ") + n.fid->columns()[static_cast<std::size_t>(dsvarno - 1)].name();
      if (!variables.empty()) arguments.emplace_back("variables", variables);
      const auto record = place_of(n, row);
      auto place = n.sources->place("RANDOM", reff.stmt->where);
      place.row = record.row;
      place.subject = record.subject;
      n.host->log().xpmlog(503, 137, arguments, place);
      return 1;
    }
    for (const int dsvarno : n.rhs)
      for (const auto& column : n.store->view.columns) {
        if (column.dsvarno != dsvarno) continue;
        const bool same = column.numeric != nullptr ? same_value(column.numeric[row], column.numeric[first])
                                                    : column.codes[row] == column.codes[first];
        if (same) continue;
        const auto& name = n.fid->columns()[static_cast<std::size_t>(dsvarno - 1)].name();
        n.host->log().xpmlog(503, 146, {{"variable", name}, {"observation", observation_number(n, row)}},
                             place_of(n, row));
        return 1;
      }
    if (n.repsym != nullptr && !same_value(n.store->replicate[static_cast<std::size_t>(row)],
                                           n.store->replicate[static_cast<std::size_t>(first)])) {
      n.host->log().xpmlog(503, 9203, {{"variable", n.repname}, {"observation", observation_number(n, row)}},
                           place_of(n, row));
      return 1;
    }
  }
  return 0;
}

int count_subjects(NX& n, const Pass& pass)
{
  auto& reff = n.leaf();
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
  if (rows.empty()) return;
  std::string shown;
  for (std::size_t i = 0; i < std::min<std::size_t>(3, rows.size()); ++i)
    shown += (i > 0 ? ", " : "") + std::to_string(observation_number(n, rows[i]));
  n.host->log().xpmlog(503, 9204, {{"count", rows.size()}, {"observations", shown}}, place_of(n, rows[0]));
}

// Rows that a REPLICATE value below SINGVAR= removes, and responses that counts cannot have.
void report_values(NX& n, const Pass& pass)
{
  const auto& bad = n.store->badobs;
  const auto first = std::find(bad.begin(), bad.end(), BadCause::replicate);
  if (first != bad.end()) {
    const auto row = static_cast<std::int64_t>(first - bad.begin());
    n.host->log().xpmlog(503, 9211,
                         {{"count", std::count(bad.begin(), bad.end(), BadCause::replicate)},
                          {"name", n.repname},
                          {"observation", observation_number(n, row)}},
                         place_of(n, row));
    n.raise(4);
  }
  if (pass.fractions == 0) return;
  n.host->log().xpmlog(503, 9209,
                       {{"count", pass.fractions},
                        {"name", n.depname},
                        {"distribution", host::xpmstr(503, 40 + n.disttype)},
                        {"observation", observation_number(n, pass.first_fraction)}},
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
  n.host->log().xpmlog(503, 71, {{"causes", causes}});
}

// What PUT statements write, once per observation in the order of the file, at the means of the random effects: a
// program runs dozens of times per evaluation, and nobody wants its lines from there.
void write_put_lines(NX& n, engine::Frame& frame, const Pass& pass)
{
  if (!engine::has_put(*n.gcmp)) return;
  const int nr = n.nreff() > 0 ? n.leaf().nr : 0;
  std::vector<double> mean(static_cast<std::size_t>(std::max(1, nr)), 0.0);
  for (const std::int32_t row : n.store->row_of_group) {
    if (nr > 0 && n.leaf().distrtype == 0)
      std::copy_n(pass.arguments.begin() + static_cast<std::int64_t>(row) * n.leaf().nd, nr, mean.begin());
    frame.set_points(mean.data(), 1, 1);
    frame.set_range(row, 1);
    std::vector<engine::PutLine> lines;
    frame.run_put(row, 0, lines);
    for (const auto& line : lines) {
      if (line.is_file)
        n.host->xpfput(line.target, line.text);
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
  if (n.lognote) log.xpmlog(503, 401, {{"data", n.bylist.empty() ? "data" : "by-group data"}});
  if (!n.nqpspec && (n.method == 0 || n.method == 3) && n.nreff() > 0) n.nqp = -1;

  engine::Frame frame(*n.gcmp, n.bound);
  std::vector<double> theta(n.parmstr.size()); // the first starting point that can be used
  for (long p = 0; p < n.npoints && !grid_point(n, p, theta.data()); ++p) {
  }
  for (double& value : theta) value = std::isnan(value) ? 1.0 : value; // no point can be used: the grid says why
  frame.set_parameters(theta.data());

  Pass pass;
  if (n.nreff() > 0 && run_arguments(n, frame, pass) != 0) return 1;
  if (run_program(n, frame, pass, pass) != 0) return 1;
  if (inspect_bad_rows(n, frame, pass) != 0) return 1;
  report_values(n, pass);

  n.store->nobsu = std::count(n.store->badobs.begin(), n.store->badobs.end(), BadCause::none);
  if (n.nreff() > 0 && count_subjects(n, pass) != 0) return 1;
  if (n.store->nobsu == 0) {
    report_nothing_left(n);
    n.raise(1012);
    return 1;
  }
  report_impossible(n, pass);
  write_put_lines(n, frame, pass);
  return 0;
}

} // namespace torvale::data
