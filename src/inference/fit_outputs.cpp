#include "inference/fit_outputs.h"

#include "host/libraries.h"
#include "inference/open_output.h"
#include "inference/predictions.h"
#include "matrix/quadratic_forms.h"

#include <cmath>

namespace torvale::inference {

using host::ColumnKind;
using host::OutputDataSet;
using integration::Posterior;
using model::NX;
using model::PredictStatement;
using model::REFFECT;

namespace {

// What follows an estimate, in this order.
void add_test_columns(NX& n, OutputDataSet& out)
{
  add_output_column(n, out, "StdErrPred", "Standard Error of Prediction");
  add_output_column(n, out, "DF", "Degrees of Freedom");
  add_output_column(n, out, "tValue", "t Value");
  add_output_column(n, out, "Probt", "Pr > |t|");
  add_output_column(n, out, "Alpha", "Alpha");
  add_output_column(n, out, "Lower", "Lower Confidence Limit");
  add_output_column(n, out, "Upper", "Upper Confidence Limit");
}

void declare(NX& n, PredictStatement& statement)
{
  OutputDataSet& out = *statement.output;
  for (const auto& column : n.fid->columns()) out.add_column_like(column);
  add_output_column(n, out, "Pred", "Predicted Value");
  add_test_columns(n, out);
  if (!statement.derivatives) return;
  for (const auto& p : n.parmstr) add_output_column(n, out, "Der_" + p.parmname, "Der " + p.parmname);
  for (std::size_t level = n.reff.size(); level > 0; --level)
    for (const auto& effect : n.reff[level - 1].names)
      add_output_column(n, out, "Der_" + effect + "_" + std::to_string(n.reff.size() - level + 1), "Der " + effect);
}

void declare_subject(NX& n, const REFFECT& reff, OutputDataSet& out)
{
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  out.add_column_like(*n.fid->find(reff.subname));
}

void declare_effects(NX& n, REFFECT& reff)
{
  OutputDataSet& out = *reff.outebfid;
  declare_subject(n, reff, out);
  out.add_column("Effect", ColumnKind::character, "Random Effect");
  add_output_column(n, out, "Estimate", "Empirical Bayes Estimate");
  add_test_columns(n, out);
}

void declare_probabilities(NX& n, REFFECT& reff)
{
  OutputDataSet& out = *reff.outppfid;
  declare_subject(n, reff, out);
  out.add_column("Point", ColumnKind::numeric);
  add_output_column(n, out, "Estimate", "Posterior Probability Estimate");
  add_test_columns(n, out);
}

// t, p and limits stand behind the error and DF, in the order of add_test_columns.
std::size_t set_test(OutputDataSet& out, std::size_t at, double error, double df, double t, double p, double alpha,
                     double lower, double upper)
{
  for (const double x : {error, df, t, p, alpha, lower, upper}) out.set(at++, x);
  return at;
}

void write(const NX& n, const PredictStatement& statement, const PredictionColumns& c)
{
  OutputDataSet& out = *statement.output;
  const auto& columns = n.fid->columns();
  const std::size_t derivatives = c.value.empty() ? 0 : c.derivative.size() / c.value.size();
  for (std::size_t row = 0; row < c.value.size(); ++row) {
    for (std::size_t k = 0; k < columns.size(); ++k) out.set_from(k, columns[k], n.rows.begin + row);
    std::size_t at = columns.size();
    out.set(at++, c.value[row]);
    at = set_test(out, at, c.error[row], c.df, c.t[row], c.p[row], c.alpha, c.lower[row], c.upper[row]);
    for (std::size_t k = 0; k < derivatives; ++k) out.set(at++, c.derivative[row * derivatives + k]);
    out.end_row();
  }
}

// The squared error of effect e of a subject: its inverse Hessian's diagonal and what the parameters add, D C D'.
double squared_error(const NX& n, const Posterior& posterior, std::size_t subject, std::size_t e)
{
  const auto nr = static_cast<std::size_t>(posterior.nr), np = static_cast<std::size_t>(n.nparm);
  const double own = posterior.covariance[subject * (nr * (nr + 1) / 2) + e * (e + 3) / 2];
  if (n.covmat.empty()) return host::missing;
  return own + matrix::zmxq1(posterior.derivative.data() + (subject * nr + e) * np, n.covmat.data(), n.nparm, 1);
}

// BY variables and subject of a row; the number of columns filled.
std::size_t set_subject(const NX& n, const REFFECT& reff, std::size_t subject, OutputDataSet& out)
{
  const auto row =
      static_cast<std::size_t>(n.store->group_row[static_cast<std::size_t>(reff.SubInfo[subject].first_row)]);
  std::size_t at = set_by_variables(n, row, out);
  out.set_from(at++, *n.fid->find(reff.subname), n.rows.begin + row);
  return at;
}

// The rest of a row: an estimate whose squared error is `square`, with DF and alpha of its level.
TVAL tested(const NX& n, const REFFECT& reff, double estimate, double square)
{
  TVAL t;
  t.alpha = reff.alpha;
  t.dfe = reff.dfe >= 0 ? reff.dfe : n.dfe;
  t.estimate = estimate;
  t.sder = square >= 0 ? std::sqrt(square) : host::missing;
  tvltval(t);
  return t;
}

void end_row(OutputDataSet& out, std::size_t at, const TVAL& t)
{
  out.set(at++, t.estimate);
  set_test(out, at, t.sder, t.dfe, t.tval, t.prob, t.alpha, t.lower, t.upper);
  out.end_row();
}

void write_effects(const NX& n, const REFFECT& reff, const Posterior& posterior)
{
  OutputDataSet& out = *reff.outebfid;
  for (std::size_t s = 0; s < reff.SubInfo.size(); ++s)
    for (std::size_t e = 0; e < reff.names.size(); ++e) {
      std::size_t at = set_subject(n, reff, s, out);
      out.set(at++, std::string_view(reff.names[e]));
      const double square = posterior.known[s] != 0 ? squared_error(n, posterior, s, e) : host::missing;
      end_row(out, at, tested(n, reff, posterior.estimate[s * reff.names.size() + e], square));
    }
}

// Posterior probabilities; their limits stay inside 0 and 1.
void write_probabilities(const NX& n, const REFFECT& reff, const Posterior& posterior)
{
  OutputDataSet& out = *reff.outppfid;
  const auto points = static_cast<std::size_t>(posterior.points), np = static_cast<std::size_t>(n.nparm);
  for (std::size_t s = 0; s < reff.SubInfo.size(); ++s)
    for (std::size_t t = 0; t < points; ++t) {
      std::size_t at = set_subject(n, reff, s, out);
      out.set(at++, static_cast<double>(t + 1));
      double square = host::missing;
      if (posterior.known[s] != 0 && !n.covmat.empty())
        square = matrix::zmxq1(posterior.probability_by.data() + (s * points + t) * np, n.covmat.data(), n.nparm, 1);
      TVAL test = tested(n, reff, posterior.probability[s * points + t], square);
      if (test.lower < 0.0) test.lower = 0.0;
      if (test.upper > 1.0) test.upper = 1.0;
      end_row(out, at, test);
    }
}

} // namespace

int open_fit_outputs(NX& n)
{
  for (PredictStatement& statement : n.predictions) {
    if (statement.out == nullptr) continue;
    statement.output = open_output(n, *statement.out, "PREDICT");
    if (statement.output == nullptr) return 1;
    declare(n, statement);
  }
  for (REFFECT& reff : n.reff) {
    if (reff.outeb != nullptr) {
      reff.outebfid = open_output(n, *reff.outeb, "RANDOM");
      if (reff.outebfid == nullptr) return 1;
      declare_effects(n, reff);
    }
    if (reff.outpp != nullptr) {
      reff.outppfid = open_output(n, *reff.outpp, "RANDOM");
      if (reff.outppfid == nullptr) return 1;
      declare_probabilities(n, reff);
    }
  }
  return 0;
}

int write_fit_outputs(NX& n)
{
  Posterior posterior;
  if (n.wants_effects && n.nreff() > 0)
    if (const int rc = integration::find_posterior(n, posterior); rc > 2) return rc;
  for (const PredictStatement& statement : n.predictions) {
    if (statement.output == nullptr) continue;
    PredictionColumns columns;
    if (const int rc = predict(n, statement, posterior, columns); rc > 2) return rc;
    write(n, statement, columns);
  }
  for (const REFFECT& reff : n.reff) {
    if (reff.outebfid != nullptr) write_effects(n, reff, posterior);
    if (reff.outppfid != nullptr) write_probabilities(n, reff, posterior);
  }
  return 0;
}

} // namespace torvale::inference
