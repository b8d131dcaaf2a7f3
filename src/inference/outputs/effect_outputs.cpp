#include "inference/outputs/effect_outputs.h"

#include "host/data/libraries.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"
#include "host/values/text.h"
#include "inference/outputs/open_output.h"
#include "inference/outputs/output_columns.h"
#include "inference/outputs/shrinkage.h"
#include "inference/tables/standard_errors.h"
#include "matrix/quadratic_forms.h"
#include "model/subject_names.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace torvale::inference {

using host::OutputDataSet;
using integration::Posterior;
using model::GroupState;
using model::ModelLists;
using model::NX;
using model::REFFECT;

namespace {

// BY variables and the subject variables of the levels from the outermost down to `deepest`.
void declare_subject(ModelLists& n, OutputDataSet& out, std::size_t deepest)
{
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  for (std::size_t k = n.reff.size(); k-- > deepest;) out.add_column_like(*n.fid->find(n.reff[k].subname));
}

void declare_effects(NX& n, OutputDataSet& out, std::size_t deepest)
{
  declare_subject(n, out, deepest);
  out.add_column("Effect", host::ColumnKind::character, "Random Effect");
  add_output_column(n, out, "Estimate", "Empirical Bayes Estimate");
  add_test_columns(n, out);
  if (!out.data().label.empty()) return;
  out.data().label =
      n.method == 4 ? "Posterior means of the random effects" : "Modes of the joint density of data and random effects";
}

void declare_probabilities(NX& n, OutputDataSet& out)
{
  declare_subject(n, out, 0);
  add_output_column(n, out, "Point", "");
  add_output_column(n, out, "Estimate", "Posterior Probability Estimate");
  add_test_columns(n, out);
}

void declare_rounds(NX& n, OutputDataSet& out)
{
  declare_subject(n, out, 0);
  add_output_column(n, out, "Round", "Round");
  add_output_column(n, out, "Level", "Level");
  out.add_column("Effect", host::ColumnKind::character, "Random Effect");
  add_output_column(n, out, "Estimate", "Estimate");
}

// The name of a level's data set that only OUTR= asked for.
std::string name_of_part(const ModelLists& n, std::size_t level)
{
  const std::string number = std::to_string(n.reff.size() - level);
  return "_R_" + std::string(host::cut_name(n.reff[level].subname, 11 - number.size())) + "_" + number;
}

// Row of the input that a subject begins with.
std::size_t input_row(const GroupState& n, const REFFECT& reff, int subject)
{
  return model::input_row(n, reff.SubInfo[static_cast<std::size_t>(subject)].first_row);
}

// The subjects of a level: in the order of the index, or by the values of the subject variables from the outermost on.
std::vector<int> subjects_in_order(const NX& n, std::size_t level)
{
  const auto& subjects = n.reff[level].SubInfo;
  std::vector<int> order(subjects.size());
  std::iota(order.begin(), order.end(), 0);
  if (n.nreff() == 1) return order;
  const auto row = [&](int s) { return input_row(n, n.reff[level], s); };
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    for (std::size_t k = n.reff.size(); k-- > level;) {
      const host::Column& column = *n.fid->find(n.reff[k].subname);
      if (const int c = host::compare_cells(column, row(a), column, row(b)); c != 0) return c < 0;
    }
    return false;
  });
  return order;
}

// An estimate of an entry of the posterior, whose squared error is `own` and what the parameters add through its
// derivative d, with DF and alpha of its level. leaf -1: there is no entry.
TVAL tested(const NX& n, const REFFECT& reff, int leaf, double estimate, double own, const double* d)
{
  TVAL t;
  t.alpha = reff.alpha;
  t.dfe = reff.dfe >= 0 ? reff.dfe : n.dfe;
  t.estimate = t.sder = host::missing;
  if (leaf >= 0) {
    t.estimate = estimate;
    double square = own;
    if (n.nparm > 0)
      square = n.covmat.empty() || moves_along_flat(n, d) ? host::missing
                                                          : own + matrix::zmxq1(d, n.covmat.data(), n.nparm, 1);
    t.sder = square >= 0 ? std::sqrt(square) : host::missing;
  }
  tvltval(t);
  return t;
}

// Effect e of a chain: with the diagonal of its inverse Hessian and D C D'.
TVAL effect(const NX& n, const REFFECT& reff, const Posterior& posterior, int leaf, std::size_t e)
{
  const auto nr = static_cast<std::size_t>(posterior.nr), np = static_cast<std::size_t>(n.nparm),
             entry = static_cast<std::size_t>(std::max(leaf, 0));
  return tested(n, reff, leaf, posterior.estimate[entry * nr + e],
                posterior.covariance[entry * (nr * (nr + 1) / 2) + e * (e + 3) / 2],
                posterior.derivative.data() + (entry * nr + e) * np);
}

// Posterior probability of a support point; its limits stay inside 0 and 1.
TVAL probability(const NX& n, const REFFECT& reff, const Posterior& posterior, int leaf, std::size_t point)
{
  const auto np = static_cast<std::size_t>(n.nparm), points = static_cast<std::size_t>(posterior.points),
             at = static_cast<std::size_t>(std::max(leaf, 0)) * points + point;
  TVAL t = tested(n, reff, leaf, posterior.probability[at], 0.0, posterior.probability_by.data() + at * np);
  if (t.lower < 0.0) t.lower = 0.0;
  if (t.upper > 1.0) t.upper = 1.0;
  return t;
}

// BY variables and subject variables of a subject of `level`; those of deeper levels stay missing. Returns the column
// behind them.
std::size_t set_subject(const ModelLists& n, OutputDataSet& out, std::size_t deepest, std::size_t level,
                        std::size_t row)
{
  std::size_t at = 0;
  for (const auto& by : n.bylist) out.set_from(at++, *n.fid->find(by.name), row);
  for (std::size_t k = n.reff.size(); k-- > deepest; ++at)
    if (k >= level) out.set_from(at, *n.fid->find(n.reff[k].subname), row);
  return at;
}

void end_row(OutputDataSet& out, std::size_t at, const TVAL& t)
{
  out.set(at++, t.estimate);
  set_test(out, at, t);
  out.end_row();
}

void write_effect(const NX& n, OutputDataSet& out, std::size_t deepest, std::size_t level, std::size_t row,
                  const std::string& name, const TVAL& t)
{
  const std::size_t at = set_subject(n, out, deepest, level, row);
  out.set(at, std::string_view(name));
  end_row(out, at + 1, t);
}

void write_probabilities(const NX& n, const Posterior& posterior)
{
  const REFFECT& reff = n.leaf();
  OutputDataSet& out = *reff.outppfid;
  for (std::size_t s = 0; s < reff.SubInfo.size(); ++s)
    for (std::size_t point = 0; point < static_cast<std::size_t>(posterior.points); ++point) {
      const auto subject = static_cast<int>(s);
      const std::size_t at = set_subject(n, out, 0, 0, input_row(n, reff, subject));
      out.set(at, static_cast<double>(point + 1));
      end_row(out, at + 1, probability(n, reff, posterior, integration::known_leaf(n, posterior, 0, subject), point));
    }
}

// The first subject whose modes were not found although it has usable records.
void report_lost_subject(NX& n, const Posterior& posterior)
{
  const auto& subjects = n.leaf().SubInfo;
  for (std::size_t s = 0; s < subjects.size(); ++s) {
    if (subjects[s].badsub || posterior.known[s] != 0) continue;
    n.host->log().xpmlog(message::prediction_failed{.subject = model::chain_name(n, subjects[s])});
    n.raise(4);
    return;
  }
}

} // namespace

int open_effect_outputs(NX& n)
{
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    REFFECT& reff = n.reff[k];
    if (reff.outeb == nullptr && n.outr == nullptr) continue;
    int rc = 0;
    if (reff.outeb != nullptr)
      rc = open_output(n, *reff.outeb, "RANDOM", reff.outebfid);
    else
      reff.outebfid = n.host->libraries().open_output({name_of_part(n, k), false, {}}, n.host->log(), {}, &rc);
    if (rc != 0) return rc;
    declare_effects(n, *reff.outebfid, k);
  }
  for (REFFECT& reff : n.reff) {
    if (reff.outpp != nullptr) {
      if (const int rc = open_output(n, *reff.outpp, "RANDOM", reff.outppfid); rc != 0) return rc;
      declare_probabilities(n, *reff.outppfid);
    }
    if (reff.outri == nullptr) continue;
    if (const int rc = open_output(n, *reff.outri, "RANDOM", reff.outrifid); rc != 0) return rc;
    declare_rounds(n, *reff.outrifid);
  }
  if (n.outr == nullptr) return 0;
  if (const int rc = open_output(n, *n.outr, "TORVALE", n.eboutfid); rc != 0) return rc;
  declare_effects(n, *n.eboutfid, 0);
  return 0;
}

void write_effect_outputs(NX& n, const Posterior& posterior)
{
  report_lost_subject(n, posterior);
  if (n.leaf().outppfid != nullptr) write_probabilities(n, posterior);
  const bool effects = n.eboutfid != nullptr || std::any_of(n.reff.begin(), n.reff.end(),
                                                            [](const REFFECT& r) { return r.outebfid != nullptr; });
  if (effects && n.method != 4) write_shrinkage(n, posterior); // support points have no variance of their own
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    const REFFECT& reff = n.reff[k];
    if (reff.outebfid == nullptr && n.eboutfid == nullptr) continue;
    for (const int s : subjects_in_order(n, k)) {
      const std::size_t row = input_row(n, reff, s);
      const int leaf = integration::known_leaf(n, posterior, k, s);
      for (std::size_t e = 0; e < reff.names.size(); ++e) {
        const TVAL t = effect(n, reff, posterior, leaf, static_cast<std::size_t>(reff.first_effect) + e);
        if (reff.outebfid != nullptr) write_effect(n, *reff.outebfid, k, k, row, reff.names[e], t);
        if (n.eboutfid != nullptr) write_effect(n, *n.eboutfid, 0, k, row, reff.names[e], t);
      }
    }
  }
}

int write_round_outputs(NX& n)
{
  if (std::all_of(n.reff.begin(), n.reff.end(), [](const REFFECT& r) { return r.outrifid == nullptr; })) return 0;
  std::vector<model::RoundEffect> rounds;
  if (const int rc = integration::find_rounds(n, rounds); rc > 2) return rc;
  for (const REFFECT& owner : n.reff) {
    if (owner.outrifid == nullptr) continue;
    OutputDataSet& out = *owner.outrifid;
    if (rounds.empty()) n.host->log().xpmlog(message::no_rounds_to_write{.data = out.name()});
    for (const model::RoundEffect& r : rounds) {
      const auto level = static_cast<std::size_t>(r.level);
      std::size_t at = set_subject(n, out, 0, level, input_row(n, n.reff[level], r.subject));
      out.set(at++, r.round + 1);
      out.set(at++, static_cast<double>(n.reff.size() - level));
      out.set(at++, std::string_view(n.reff[level].names[static_cast<std::size_t>(r.effect)]));
      out.set(at, r.value);
      out.end_row();
    }
  }
  return 0;
}

} // namespace torvale::inference
