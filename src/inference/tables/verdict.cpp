#include "inference/tables/verdict.h"

#include "host/messages/names/labels.h"
#include "inference/tables/tables.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace torvale::inference {

using host::FitSummary;
using host::readable;
using model::FitOutcome;
using model::NX;
using Standing = FitSummary::Standing;

namespace {

std::string listed(const std::vector<std::string>& names, const std::vector<int>& places)
{
  std::string out;
  for (const int i : places) {
    if (i < 0 || static_cast<std::size_t>(i) >= names.size()) continue;
    out += (out.empty() ? "" : ", ") + names[static_cast<std::size_t>(i)];
  }
  return out;
}

// "b0 - 0.5 b1": a combination of parameters.
std::string combination(const model::FlatDirection& direction, const std::vector<std::string>& names)
{
  std::string out;
  for (std::size_t k = 0; k < direction.parameter.size(); ++k) {
    const double w = direction.weight[k];
    const std::string size = std::abs(std::abs(w) - 1) < 5e-4 ? "" : fmt::format("{:.3g} ", std::abs(w));
    out += (out.empty() ? (w < 0 ? "-" : "") : (w < 0 ? " - " : " + ")) + size +
           names[static_cast<std::size_t>(direction.parameter[k])];
  }
  return out;
}

std::string in_likelihood(double x)
{
  return fmt::format("{:.2g} in -2 log likelihood", x);
}

std::string unidentified(const VerdictFacts& f)
{
  std::vector<int> places;
  for (std::size_t i = 0; i < f.verdict->identified.size(); ++i)
    if (f.verdict->identified[i] == 0) places.push_back(static_cast<int>(i));
  return listed(f.parameters, places);
}

bool singular(const VerdictFacts& f)
{
  return f.verdict->outcome == FitOutcome::confirmed_singular || !f.verdict->flat.empty() || !unidentified(f).empty();
}

// The first finding: whether the fit converged, and how it is known.
std::string convergence(const VerdictFacts& f, bool converged)
{
  const std::string how = f.reason.empty() ? std::string() : " " + f.reason;
  if (!f.optimized) return "nothing was optimized";
  switch (f.verdict->outcome) {
  case FitOutcome::confirmed:
    return "yes, confirmed: a minimum." + how;
  case FitOutcome::confirmed_singular:
    return "yes, confirmed, but the minimum is not a single point." + how;
  case FitOutcome::unconfirmed:
    return "yes by the criterion; there is no Hessian to confirm it." + how;
  case FitOutcome::user_criterion:
    return "stopped by a criterion that the program sets." + how;
  case FitOutcome::not_evaluated:
    return "no: the objective cannot be computed at any starting value." + how;
  case FitOutcome::not_minimum:
    return "no: this is not a minimum." + how;
  case FitOutcome::not_judged:
    break;
  }
  return (converged ? "yes." : "no.") + how;
}

std::string hessian(const VerdictFacts& f)
{
  if (f.verdict->indefinite) return "not positive definite: a direction leads further down";
  if (singular(f)) return "singular: the data do not determine every parameter";
  if (f.verdict->outcome == FitOutcome::confirmed) return "positive definite";
  if (!f.covariance) return "not available: no standard errors";
  return f.verdict->outcome == FitOutcome::not_judged ? "" : "positive definite where it was judged";
}

std::string headline(const VerdictFacts& f, const FitSummary& s)
{
  const model::Verdict& v = *f.verdict;
  if (!f.optimized) return "Nothing was optimized: the tables hold for the parameter values given.";
  if (v.outcome == FitOutcome::not_evaluated || f.znlprc == 0)
    return "There is no fit: the objective cannot be computed at any starting value.";
  if (!*s.converged) return "The fit did not converge. Its estimates are where it stopped, not results.";
  if (!v.separated.empty())
    return "The likelihood goes on rising without end along some parameters: they have no estimate.";
  if (const std::string names = unidentified(f); !names.empty())
    return "The fit converged, but the data do not determine " + names + ".";
  if (singular(f)) return "The fit converged, but the data do not determine every parameter.";
  if (!f.covariance) return "The fit converged, but there are no standard errors.";
  if (v.outcome == FitOutcome::user_criterion && !std::isnan(v.gain) && v.gain > 1e-4)
    return "A criterion of the program stopped the fit before its minimum: " + in_likelihood(v.gain) +
           " is left to gain.";
  if (s.standing != Standing::good) return "The fit converged. Read the remarks below before its results.";
  return "The fit converged.";
}

Standing standing(const VerdictFacts& f, const FitSummary& s)
{
  const model::Verdict& v = *f.verdict;
  if (f.optimized && !s.converged.value_or(false)) return Standing::bad;
  if (!v.separated.empty() || v.indefinite) return Standing::bad;
  const bool remark = singular(f) || !f.covariance || !v.at_bounds.empty() || !v.vanished.empty() ||
                      v.singular_effects || !v.left_start || !f.warnings.empty() ||
                      std::abs(v.quadrature_change) > 0.1 || v.outcome == FitOutcome::unconfirmed ||
                      v.outcome == FitOutcome::user_criterion;
  return remark ? Standing::caution : Standing::good;
}

} // namespace

void verdict_words(const VerdictFacts& f, FitSummary& out)
{
  const model::Verdict& v = *f.verdict;
  const bool failed = f.znlprc <= 0 || v.outcome == FitOutcome::not_minimum || v.outcome == FitOutcome::not_evaluated;
  out.present = true;
  out.converged = f.optimized ? std::optional<bool>(!failed) : std::nullopt;
  out.findings.clear();
  const auto say = [&](const char* item, const std::string& words) {
    if (!words.empty()) out.findings.emplace_back(item, words);
  };
  say("Converged", convergence(f, !failed));
  if (!std::isnan(v.gain))
    say("Left to gain",
        in_likelihood(v.gain) + (std::isnan(v.accuracy) ? "" : fmt::format(" (rounding: {:.1g})", v.accuracy)));
  if (f.optimized && !failed) say("Hessian", hessian(f));
  std::string flat;
  for (const auto& direction : v.flat) flat += (flat.empty() ? "" : "; ") + combination(direction, f.parameters);
  if (!flat.empty()) say("Flat direction", "the likelihood does not change along " + flat);
  say("Not identified", unidentified(f));
  say("At bounds", listed(f.parameters, v.at_bounds));
  if (!v.vanished.empty())
    say("Vanished variance", listed(f.parameters, v.vanished) + ": no variation between subjects");
  if (v.singular_effects) say("Random effects", "their covariance matrix is singular");
  if (!v.separated.empty())
    say("Separation", listed(f.parameters, v.separated) + ": the likelihood goes on rising without end");
  if (!std::isnan(v.quadrature_change))
    say("Quadrature", "more points change -2 log likelihood by " + fmt::format("{:.2g}", v.quadrature_change));
  else if (!v.quadrature_reason.empty())
    say("Quadrature", "not checked: " + v.quadrature_reason);
  if (!v.left_start && f.optimized) say("Starting values", "the fit never left them");
  std::string codes;
  for (const auto& [group, number] : f.warnings)
    codes += fmt::format("{}{}/{}", codes.empty() ? "" : ", ", group, number);
  say("Warnings", codes);
  out.standing = standing(f, out);
  out.headline = headline(f, out);
}

namespace {

// The warnings of the step that concern this group, in order, each code once.
std::vector<std::pair<int, int>> warnings_so_far(const NX& n)
{
  std::vector<std::pair<int, int>> out;
  for (const host::Message& m : n.host->log().messages()) {
    if (m.severity != host::Severity::warning || (m.by_group >= 0 && m.by_group != n.group)) continue;
    const std::pair code(m.group, m.number);
    if (std::find(out.begin(), out.end(), code) == out.end()) out.push_back(code);
  }
  return out;
}

std::string convergence_words(const NX& n)
{
  for (const host::Table& table : n.host->group().tables)
    if (table.name == "ConvergenceStatus" && !table.rows().empty())
      if (const std::string* words = table.rows()[0][0].text()) return *words;
  return {};
}

// Keys of the results: numbers of the fit.
void fill_figures(const NX& n, FitSummary& out)
{
  const bool stands = n.znlprc > 0;
  const InformationCriteria c = information_criteria(n);
  const auto add = [&](const char* key, host::Cell value) { out.figures.emplace_back(key, std::move(value)); };
  add("minus2_log_likelihood", stands ? c.minus2_log_likelihood : host::missing);
  add("aic", stands ? c.aic : host::missing);
  add("aicc", stands ? c.aicc : host::missing);
  add("bic", stands ? c.bic : host::missing);
  add("parameters", n.nparm);
  add("observations", n.store->nobsu);
  if (n.nreff() > 0) add("subjects", n.outer().nsub);
  add("evaluations", n.str->nfct);
  add("iterations", static_cast<long>(n.str->nitr));
}

} // namespace

void write_verdict(NX& n)
{
  VerdictFacts facts;
  facts.verdict = &n.verdict;
  for (const auto& p : n.parmstr) facts.parameters.push_back(p.parmname);
  facts.znlprc = n.znlprc;
  facts.optimized = !n.noopt && n.znlprc != 10 && n.nparm > 0;
  facts.covariance = !n.covmat.empty();
  facts.reason = facts.optimized ? convergence_words(n) : std::string();
  facts.warnings = warnings_so_far(n);

  FitSummary& out = n.host->group().fit;
  verdict_words(facts, out);
  fill_figures(n, out);
  out.parameters = facts.parameters;
  out.start = n.parmstart;
  out.estimates = n.parm;
  out.covariance = n.covmat;

  host::Table table("FitVerdict", host::otbmsg(label::fit_verdict),
                    {{"Item", host::CellKind::text, host::otbmsg(label::question), "", ""},
                     {"Finding", host::CellKind::text, host::otbmsg(label::finding), "", ""}});
  for (const auto& [item, finding] : out.findings) table.row({item, finding});
  n.host->tables().wobmth(std::move(table));
}

} // namespace torvale::inference
