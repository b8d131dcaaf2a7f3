#include "inference/outputs/method_outputs.h"

#include "host/data/libraries.h"
#include "host/messages/names/labels.h"
#include "host/messages/names/statements.h"
#include "inference/outputs/open_output.h"
#include "integration/monte_carlo_error.h"
#include "integration/subject_gradients.h"
#include "integration/subjects/evaluation_parts.h"

#include <cmath>

namespace torvale::inference {

using host::CellKind;
using host::ColumnKind;
using host::OutputDataSet;
using model::ModelLists;
using model::NX;

namespace {

// Random effects of all levels.
int dimensions(const ModelLists& n)
{
  int count = 0;
  for (const auto& reff : n.reff) count += reff.nr;
  return count;
}

void declare_points(NX& n)
{
  OutputDataSet& out = *n.outqfid;
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  for (int k = 1; k <= dimensions(n); ++k) out.add_column("Abscissa" + std::to_string(k), ColumnKind::numeric);
  if (n.method == 0) out.add_column("LogWeight", ColumnKind::numeric);
}

void declare_gradients(NX& n)
{
  OutputDataSet& out = *n.sgradfid;
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  out.add_column("Observation", ColumnKind::numeric);
  if (n.nreff() > 0) out.add_column_like(*n.fid->find(n.outer().subname));
  for (const auto& p : n.parmstr) add_output_column(n, out, p.parmname, "Gradient of " + p.parmname);
}

} // namespace

int open_method_outputs(NX& n)
{
  if (n.outq != nullptr && (n.nreff() == 0 || (n.method != 0 && n.method != 3))) {
    constexpr const char* names[] = {"GAUSS", "FIRO", "HARDY", "ISAMP", "GAUSS with DISCRETE"};
    n.host->log().xpmlog(
        message::point_set_without_rule{.method = n.nreff() == 0 ? "GAUSS without RANDOM" : names[n.method]});
    n.raise(4);
  } else if (n.outq != nullptr) {
    if (const int rc = open_output(n, *n.outq, "TORVALE", n.outqfid); rc != 0) return rc;
    declare_points(n);
  }
  if (n.outsg != nullptr) {
    if (const int rc = open_output(n, *n.outsg, "TORVALE", n.sgradfid); rc != 0) return rc;
    declare_gradients(n);
  }
  return 0;
}

void write_points(NX& n)
{
  if (n.outqfid == nullptr) return;
  OutputDataSet& out = *n.outqfid;
  const int dims = dimensions(n), nqp = n.nqp;
  const long points = n.method == 3 ? n.leaf().nqpr : std::lround(std::pow(nqp, dims));
  for (long t = 0; t < points; ++t) {
    std::size_t at = set_by_variables(n, 0, out);
    double log_weight = 0.0;
    long digits = t; // the first dimension varies fastest
    for (int k = 0; k < dims; ++k, digits /= nqp) {
      const auto digit = static_cast<std::size_t>(digits % nqp);
      out.set(at++, n.method == 3 ? n.leaf().points[static_cast<std::size_t>(k * points + t)] : n.absc[digit]);
      if (n.method == 0) log_weight += n.herm[digit];
    }
    if (n.method == 0) out.set(at, log_weight);
    out.end_row();
  }
}

int write_subject_gradients(NX& n)
{
  if (n.sgradfid == nullptr) return 0;
  OutputDataSet& out = *n.sgradfid;
  std::vector<double> gradients;
  if (const int rc = integration::subject_gradients(n, gradients); rc != 0) return rc;
  const auto np = static_cast<std::size_t>(n.nparm);
  const auto write = [&](std::size_t unit, std::int64_t closing_row) {
    const auto row = static_cast<std::size_t>(n.store->group_row(closing_row));
    std::size_t at = set_by_variables(n, row, out);
    out.set(at++, static_cast<double>(row + 1));
    if (n.nreff() > 0) out.set_from(at++, *n.fid->find(n.outer().subname), n.rows.begin + row);
    for (std::size_t j = 0; j < np; ++j) out.set(at++, gradients[unit * np + j]);
    out.end_row();
  };
  if (n.nreff() == 0)
    for (std::int64_t row = 0; row < n.store->nobs; ++row) { // in the order of the file
      const std::int64_t r = n.store->row_of_group(row);
      write(static_cast<std::size_t>(r), r);
    }
  else
    for (const auto& s : n.outer().SubInfo)
      write(static_cast<std::size_t>(s.index), s.badsub ? s.first_row + s.SubCount - 1 : s.lvalidobs);
  return 0;
}

int write_importance_sampling(NX& n)
{
  if (n.method != 3 || n.nreff() == 0) return 0;
  double error = host::missing;
  if (const int rc = integration::monte_carlo_error(n, error); rc > 2) return rc;
  // The constant of the method has one log(2 pi)/2 a subject, whatever the number of effects.
  const double shift = n.outer().nrepsub * (n.leaf().nr - 1) * integration::log2pi;
  host::Table table("ImportanceSampling", host::otbmsg(label::importance_sampling_accuracy),
                    {{"Descr", CellKind::text, host::otbmsg(label::description), "", ""},
                     {"Value", CellKind::number, host::otbmsg(label::value), "BEST12", ""}});
  table.row({host::xpmstr(label::quadrature_points), static_cast<double>(n.nqp)});
  table.row({host::xpmstr(label::monte_carlo_error_of_log_likelihood), error});
  table.row({host::xpmstr(label::shift_of_minus_two_log_likelihood), shift});
  table.row({host::xpmstr(label::unshifted_minus_two_log_likelihood), 2.0 * n.fval - shift});
  n.host->tables().wobmth(std::move(table));
  n.host->log().xpmlog(message::monte_carlo_error{.error = error, .points = n.nqp});
  if (shift != 0.0) n.host->log().xpmlog(message::importance_shift{.shift = shift, .unshifted = 2.0 * n.fval - shift});
  return 0;
}

} // namespace torvale::inference
