#include "inference/effect_outputs.h"

#include "host/libraries.h"
#include "host/message_names.h"
#include "host/missing.h"
#include "host/text.h"
#include "inference/output_columns.h"
#include "inference/shrinkage.h"
#include "inference/standard_errors.h"
#include "matrix/quadratic_forms.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace torvale::inference {

using host::OutputDataSet;
using integration::Posterior;
using model::NX;
using model::REFFECT;

namespace {

// BY variables, the subject variables of the levels from the outermost down to `deepest`, and the results.
void declare(NX& n, OutputDataSet& out, std::size_t deepest)
{
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  for (std::size_t k = n.reff.size(); k-- > deepest;) out.add_column_like(*n.fid->find(n.reff[k].subname));
  out.add_column("Effect", host::ColumnKind::character, "Random Effect");
  add_result(n, out, "Estimate", "Empirical Bayes Estimate");
  add_test_columns(n, out);
  if (out.data().label.empty()) out.data().label = "Modes of the joint density of data and random effects";
}

void declare_rounds(NX& n, OutputDataSet& out)
{
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  for (std::size_t k = n.reff.size(); k-- > 0;) out.add_column_like(*n.fid->find(n.reff[k].subname));
  add_result(n, out, "Round", "Round");
  add_result(n, out, "Level", "Level");
  out.add_column("Effect", host::ColumnKind::character, "Random Effect");
  add_result(n, out, "Estimate", "Estimate");
}

// The name of a level's data set that only OUTR= asked for.
std::string name_of_part(const NX& n, std::size_t level)
{
  const std::string number = std::to_string(n.reff.size() - level);
  return "_R_" + std::string(host::cut_name(n.reff[level].subname, 11 - number.size())) + "_" + number;
}

// Row of the input that a subject begins with.
std::size_t input_row(const NX& n, const REFFECT& reff, int subject)
{
  const auto first = static_cast<std::size_t>(reff.SubInfo[static_cast<std::size_t>(subject)].first_row);
  return n.rows.begin + static_cast<std::size_t>(n.store->group_row[first]);
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

// Effect e of a chain: its estimate, and the error of its inverse Hessian's diagonal and what the parameters add, D C
// D'.
TVAL effect(const NX& n, const REFFECT& reff, const Posterior& posterior, int leaf, std::size_t e)
{
  const auto nr = static_cast<std::size_t>(posterior.nr), np = static_cast<std::size_t>(n.nparm),
             entry = static_cast<std::size_t>(leaf);
  TVAL t;
  t.alpha = reff.alpha;
  t.dfe = reff.dfe >= 0 ? reff.dfe : n.dfe;
  t.estimate = t.sder = host::missing;
  if (leaf >= 0) {
    t.estimate = posterior.estimate[entry * nr + e];
    const double* const d = posterior.derivative.data() + (entry * nr + e) * np;
    double square = posterior.covariance[entry * (nr * (nr + 1) / 2) + e * (e + 3) / 2];
    if (np > 0 && (n.covmat.empty() || moves_along_flat(n, d))) square = host::missing;
    if (np > 0 && !n.covmat.empty()) square += matrix::zmxq1(d, n.covmat.data(), n.nparm, 1);
    t.sder = square >= 0 ? std::sqrt(square) : host::missing;
  }
  tvltval(t);
  return t;
}

// BY variables and subject variables of a subject of `level`; those of deeper levels stay missing. Returns the column
// behind them.
std::size_t set_subject(const NX& n, OutputDataSet& out, std::size_t deepest, std::size_t level, std::size_t row)
{
  std::size_t at = 0;
  for (const auto& by : n.bylist) out.set_from(at++, *n.fid->find(by.name), row);
  for (std::size_t k = n.reff.size(); k-- > deepest; ++at)
    if (k >= level) out.set_from(at, *n.fid->find(n.reff[k].subname), row);
  return at;
}

void write_row(const NX& n, OutputDataSet& out, std::size_t deepest, std::size_t level, std::size_t row,
               const std::string& name, const TVAL& t)
{
  std::size_t at = set_subject(n, out, deepest, level, row);
  out.set(at++, std::string_view(name));
  out.set(at++, t.estimate);
  set_test(out, at, t);
  out.end_row();
}

// The first subject whose modes were not found although it has usable records.
void report_lost_subject(NX& n, const Posterior& posterior)
{
  const auto& subjects = n.leaf().SubInfo;
  for (std::size_t s = 0; s < subjects.size(); ++s) {
    if (subjects[s].badsub || posterior.known[s] != 0) continue;
    n.host->log().xpmlog(message::prediction_failed{.subject = n.nreff() > 1 ? subjects[s].nestlev : subjects[s].prnc});
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
    reff.outebfid = reff.outeb != nullptr
                        ? open_data_set(n, *reff.outeb, "RANDOM")
                        : n.host->libraries().open_output({name_of_part(n, k), false, {}}, n.host->log());
    if (reff.outebfid == nullptr) return 1;
    declare(n, *reff.outebfid, k);
  }
  for (REFFECT& reff : n.reff) {
    if (reff.outri == nullptr) continue;
    reff.outrifid = open_data_set(n, *reff.outri, "RANDOM");
    if (reff.outrifid == nullptr) return 1;
    declare_rounds(n, *reff.outrifid);
  }
  if (n.outr == nullptr) return 0;
  n.eboutfid = open_data_set(n, *n.outr, "TORVALE");
  if (n.eboutfid == nullptr) return 1;
  declare(n, *n.eboutfid, 0);
  return 0;
}

void write_effect_outputs(NX& n, const Posterior& posterior)
{
  report_lost_subject(n, posterior);
  if (n.eboutfid != nullptr ||
      std::any_of(n.reff.begin(), n.reff.end(), [](const REFFECT& r) { return r.outebfid != nullptr; }))
    write_shrinkage(n, posterior);
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    const REFFECT& reff = n.reff[k];
    if (reff.outebfid == nullptr && n.eboutfid == nullptr) continue;
    for (const int s : subjects_in_order(n, k)) {
      const std::size_t row = input_row(n, reff, s);
      const int leaf = integration::known_leaf(n, posterior, k, s);
      for (std::size_t e = 0; e < reff.names.size(); ++e) {
        const TVAL t = effect(n, reff, posterior, leaf, static_cast<std::size_t>(reff.first_effect) + e);
        if (reff.outebfid != nullptr) write_row(n, *reff.outebfid, k, k, row, reff.names[e], t);
        if (n.eboutfid != nullptr) write_row(n, *n.eboutfid, 0, k, row, reff.names[e], t);
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
