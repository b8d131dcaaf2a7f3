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

namespace torvale::data {

using evaluation::observation_number;
using evaluation::place_of;
using model::BadCause;
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

// What the pass learns of the rows of one block.
struct BlockFindings {
  long fractions = 0;                         // used rows whose response is not a whole number, where it should be one
  std::int64_t first_fraction = 0;            // row of the first one
  long impossible = 0;                        // usable rows with an impossible log likelihood
  std::vector<std::int64_t> first_impossible; // a few of these rows

  void add(const BlockFindings& next)
  {
    if (fractions == 0) first_fraction = next.first_fraction;
    fractions += next.fractions;
    impossible += next.impossible;
    for (const std::int64_t row : next.first_impossible)
      if (first_impossible.size() < most_shown) first_impossible.push_back(row);
  }
  static constexpr std::size_t most_shown = 3;
};

// Everything that the pass learns of the rows.
struct Pass {
  std::vector<std::vector<double>> arguments; // by level: distribution arguments of each row, nd each; one row for all
                                              // where they do not vary
  BlockFindings found;
};

const double* arguments_at(const ModelLists& n, const Pass& pass, std::size_t level, std::int64_t row)
{
  const auto& reff = n.reff[level];
  return pass.arguments[level].data() + (reff.setup_varies ? row * reff.nd : 0);
}

// The means of all random effects at a row: what the program is run at.
void means_at(const ModelLists& n, const Pass& pass, std::int64_t row, double* mean)
{
  for (std::size_t k = 0; k < n.reff.size(); ++k) {
    const auto& reff = n.reff[k];
    if (reff.distrtype != 0 || pass.arguments.size() <= k || pass.arguments[k].empty()) continue;
    std::copy_n(arguments_at(n, pass, k, row), reff.nr, mean + reff.first_effect);
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
int run_arguments(NX& n, RowRunner& rows, std::size_t level, Pass& pass)
{
  const auto& reff = n.reff[level];
  std::vector<double>& arguments = pass.arguments[level];
  arguments.resize(static_cast<std::size_t>(reff.setup_varies ? n.store->nobs * reff.nd : reff.nd));
  const auto nd = static_cast<std::size_t>(reff.nd);
  const engine::Program& program = *reff.setup_value.code;
  if (!reff.setup_varies) {
    const std::vector<double> zero = no_effects(n);
    engine::Frame& frame = rows.frame();
    frame.set_points(zero.data(), 1, 1);
    frame.set_range(0, 1);
    engine::Tile first;
    first.lanes = 1;
    if (const int rc = frame.run(program, first); rc > 2) return report_stop(n, frame, program, pass, rc, {0});
    for (std::size_t k = 0; k < nd; ++k) arguments[k] = frame.output(static_cast<int>(k))[0];
    return 0;
  }
  std::vector<std::int32_t> stopped;
  const int rc = rows.run(
      program, {no_effects(n), {}},
      [&](const RowTile& tile, const engine::Frame& f, long) {
        for (std::size_t k = 0; k < nd; ++k) {
          const double* values = f.output(static_cast<int>(k));
          for (int j = 0; j < tile.lanes; ++j) arguments[static_cast<std::size_t>(tile.row(j)) * nd + k] = values[j];
        }
      },
      stopped);
  return rc == 0 ? 0 : report_stop(n, rows.frame(), program, pass, rc, stopped);
}

// Whole without a call: adding 2^52 rounds what is smaller to a whole number.
bool whole(double x)
{
  constexpr double two_52 = 4503599627370496.0;
  const double size = std::abs(x);
  return !(size < two_52) || (size + two_52) - two_52 == size;
}

// Takes the outputs of the whole program for the rows of a tile.
class RowMarker {
public:
  explicit RowMarker(NX& n)
      : n_(n),
        counts_(n.disttype == 2 || n.disttype == 3 || n.disttype == 4 || n.disttype == 6) // binary to negative binomial
  {
  }

  void take(const RowTile& tile, const engine::Frame& frame, BlockFindings& found) const
  {
    const int outputs = static_cast<int>(n_.pass_kind.size());
    const double* loglik = nullptr;
    for (int k = 0; k < outputs; ++k) {
      const auto cause = static_cast<BadCause>(n_.pass_kind[static_cast<std::size_t>(k)]);
      const double* const values = frame.output(k);
      if (cause == BadCause::log_likelihood && loglik == nullptr) loglik = values;
      if (cause == BadCause::replicate) take_replicates(tile, values);
      if (usable(values, tile.lanes, cause)) continue;
      for (int j = 0; j < tile.lanes; ++j) look_at(tile.row(j), values[j], cause, found);
    }
    if (loglik == nullptr || possible(loglik, tile.lanes)) return;
    for (int j = 0; j < tile.lanes; ++j) {
      const std::int64_t row = tile.row(j);
      if (loglik[j] > model::impossible_loglik || n_.store->badobs[static_cast<std::size_t>(row)] != BadCause::none)
        continue;
      ++found.impossible;
      if (found.first_impossible.size() < BlockFindings::most_shown) found.first_impossible.push_back(row);
    }
  }

private:
  // Nearly always all lanes are fine: that is found out in vectors.
  bool usable(const double* values, int lanes, BadCause cause) const
  {
    bool good = true;
    if (cause == BadCause::replicate)
      for (int j = 0; j < lanes; ++j) good &= values[j] >= n_.singvar;
    else if (cause == BadCause::dependent && counts_)
      for (int j = 0; j < lanes; ++j) good &= values[j] == values[j] && whole(values[j]);
    else
      for (int j = 0; j < lanes; ++j) good &= values[j] == values[j];
    return good;
  }

  static bool possible(const double* loglik, int lanes)
  {
    bool good = true;
    for (int j = 0; j < lanes; ++j) good &= loglik[j] > model::impossible_loglik;
    return good;
  }

  void take_replicates(const RowTile& tile, const double* values) const
  {
    for (int j = 0; j < tile.lanes; ++j) n_.store->replicate[static_cast<std::size_t>(tile.row(j))] = values[j];
  }

  void look_at(std::int64_t row, double value, BadCause cause, BlockFindings& found) const
  {
    const bool refused = cause == BadCause::replicate && !(value >= n_.singvar);
    if (std::isnan(value) || refused) {
      auto& bad = n_.store->badobs[static_cast<std::size_t>(row)];
      if (bad == BadCause::none) bad = cause;
    } else if (cause == BadCause::dependent && counts_ && !whole(value) && found.fractions++ == 0) {
      found.first_fraction = row;
    }
  }

  NX& n_;
  const bool counts_;
};

// The whole program at the means: `_ll`, the derivatives that the method uses, the dependent and replicate variables.
int run_program(NX& n, RowRunner& rows, Pass& pass)
{
  if (n.repsym != nullptr) n.store->replicate.assign(static_cast<std::size_t>(n.store->nobs), host::missing);
  RowPoints points{no_effects(n), {}};
  if (std::any_of(n.reff.begin(), n.reff.end(), [](const auto& reff) { return reff.setup_varies; }))
    points.of = [&](std::int64_t row, double* mean) { means_at(n, pass, row, mean); };
  else
    means_at(n, pass, 0, points.common.data());
  const RowMarker marker(n);
  std::vector<BlockFindings> found(static_cast<std::size_t>(rows.blocks()));
  std::vector<std::int32_t> stopped;
  const int rc = rows.run(
      *n.pass_program, points,
      [&](const RowTile& tile, const engine::Frame& f, long block) {
        marker.take(tile, f, found[static_cast<std::size_t>(block)]);
      },
      stopped);
  for (const BlockFindings& block : found) pass.found.add(block);
  return rc == 0 ? 0 : report_stop(n, rows.frame(), *n.pass_program, pass, rc, stopped);
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
      const auto at = [&](std::int64_t r) { return arguments_at(n, pass, level, r)[k]; };
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
  const bool all_used = n.store->nobsu == n.store->nobs;
  const bool may_change = reff.setup_varies || !reff.rhs.empty() || n.repsym != nullptr;
  for (auto& subject : reff.SubInfo) {
    const std::int32_t last = subject.first_row + subject.SubCount;
    subject.used = 0;
    if (all_used) {
      subject.used = subject.SubCount;
      subject.fvalidobs = subject.first_row;
      subject.lvalidobs = last - 1;
    }
    for (std::int32_t row = subject.first_row; row < last && !all_used; ++row) {
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
    if (may_change && check_subject(n, pass, subject) != 0) {
      n.raise(1012);
      return 1;
    }
  }
  return 0;
}

// Observations that the model calls impossible at the starting values: the fit will fail there, so name the worst now.
void report_impossible(NX& n, const Pass& pass)
{
  const auto& rows = pass.found.first_impossible;
  if (rows.empty() || n.response_told) return;
  std::string shown;
  for (std::size_t i = 0; i < rows.size(); ++i)
    shown += (i > 0 ? ", " : "") + std::to_string(observation_number(n, rows[i]));
  n.host->log().xpmlog(message::impossible_at_start{.count = pass.found.impossible, .observations = shown},
                       place_of(n, rows[0]));
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
  if (pass.found.fractions == 0) return;
  n.host->log().xpmlog(message::response_not_whole{.count = pass.found.fractions,
                                                   .name = n.depname,
                                                   .observation = observation_number(n, pass.found.first_fraction),
                                                   .distribution = host::xpmstr(model::distribution_label(n.disttype))},
                       place_of(n, pass.found.first_fraction));
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
  for (std::int64_t at = 0; at < n.store->nobs; ++at) {
    const std::int64_t row = n.store->row_of_group(at);
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

  std::vector<double> theta(n.parmstr.size()); // the first starting point that can be used
  for (long p = 0; p < n.npoints && !grid_point(n, p, theta.data()); ++p) {
  }
  for (double& value : theta) value = std::isnan(value) ? 1.0 : value; // no point can be used: the grid says why

  RowRunner rows(n, theta);
  engine::Frame& frame = rows.frame();
  Pass pass;
  pass.arguments.resize(n.reff.size());
  for (std::size_t k = 0; k < n.reff.size(); ++k)
    if (run_arguments(n, rows, k, pass) != 0) return 1;
  if (run_program(n, rows, pass) != 0) return 1;
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
