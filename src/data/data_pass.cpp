// One pass over the data with the model program, before anything is fitted: which observations can be used, and is
// constant within a subject what must be.

#include "data/data_pass.h"

#include "data/pass_reports.h"
#include "data/row_marker.h"
#include "data/row_runner.h"
#include "data/starting_values.h"
#include "data/subject_counts.h"
#include "data/subject_tables.h"
#include "evaluation/program_faults.h"
#include "host/messages/names/files.h"
#include "host/messages/names/optimization.h"
#include "host/values/missing.h"
#include "host/values/text.h"

#include <algorithm>
#include <cmath>

namespace torvale::data {

using model::BadCause;
using model::NX;

namespace {

// Distribution arguments of every row, from the slice of the program that yields them; random effects stand at 0 there,
// and may not enter.
int run_arguments(NX& n, RowRunner& rows, std::size_t level, PassFindings& pass)
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

// The whole program at the means: `_ll`, the derivatives that the method uses, the dependent and replicate variables.
int run_program(NX& n, RowRunner& rows, PassFindings& pass)
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

// What PUT statements write, once per observation in the order of the file, at the means of the random effects: a
// program runs dozens of times per evaluation, and nobody wants its lines from there.
// Not 0, with a message, when a line is longer than its file takes.
int write_put_lines(NX& n, engine::Frame& frame, const PassFindings& pass)
{
  if (!engine::has_put(*n.gcmp)) return 0;
  std::vector<double> mean = no_effects(n);
  for (std::int64_t at = 0; at < n.store->nobs; ++at) {
    const std::int64_t row = n.store->row_of_group(at);
    means_at(n, pass, row, mean.data());
    frame.set_points(mean.data(), 1, 1);
    frame.set_range(row, 1);
    std::vector<engine::PutLine> lines;
    frame.run_put(row, 0, lines);
    for (const auto& line : lines) {
      const std::size_t characters = line.most > 0 ? host::display_width(line.text) : 0;
      if (characters > static_cast<std::size_t>(line.most)) {
        n.host->log().xpmlog(
            message::put_line_too_long{.characters = characters, .file = line.target, .most = line.most},
            evaluation::place_of(n, row));
        n.raise(1012);
        return 1;
      }
      if (line.is_file)
        n.host->xpfput(line.target, line.text, line.append);
      else if (host::equal_names(line.target, "PRINT"))
        n.host->xpsout(line.text);
      else
        n.host->log().xpslog(line.text);
    }
  }
  return 0;
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
  PassFindings pass;
  pass.arguments.resize(n.reff.size());
  for (std::size_t k = 0; k < n.reff.size(); ++k)
    if (run_arguments(n, rows, k, pass) != 0) return 1;
  if (run_program(n, rows, pass) != 0) return 1;
  if (inspect_bad_rows(n, frame, pass) != 0) return 1;
  report_values(n, pass);

  n.store->nobsu = n.store->nobs - pass.found.bad;
  for (auto reff = n.reff.rbegin(); reff != n.reff.rend(); ++reff)
    if (count_subjects(n, pass, *reff) != 0) return 1;
  if (n.store->nobsu == 0) {
    report_nothing_left(n);
    n.raise(1012);
    return 1;
  }
  if (n.reobsinfo && n.nreff() > 0) tvlmisc(n);
  report_impossible(n, pass);
  return write_put_lines(n, frame, pass);
}

} // namespace torvale::data
