#include "sampling/sample_output.h"

#include "host/messages/names/statements.h"
#include "host/values/missing.h"

#include <algorithm>
#include <cmath>

namespace torvale::sampling {

using host::CellKind;
using host::missing;
using model::ModelLists;
using model::NX;

namespace {

constexpr double agreement = 1.01;     // R-hat at which chains are taken to agree
constexpr double enough_draws = 100.0; // effective draws a chain
constexpr double far_away = 1e8;       // standard errors from the estimate: the posterior has no end there

// The same number of draws from every chain: an interruption may leave some a stride behind.
long common_length(const std::vector<const Chain*>& chains)
{
  long length = chains.empty() ? 0 : chains[0]->draws.kept();
  for (const Chain* c : chains) length = std::min(length, c->draws.kept());
  return length;
}

void write_specifications(NX& n, const SamplerOptions& o, const Posterior& target)
{
  host::Table table("MCMCSpecifications", "MCMC Specifications",
                    {{"Descr", CellKind::text, "Description", "", ""}, {"Value", CellKind::text, "Value", "", ""}});
  table.path = "Stat.TVL.MCMC";
  const auto row = [&](const char* what, const std::string& value) { table.row({what, value}); };
  row("Sampler", o.no_u_turn      ? "No-U-turn"
                 : o.chain.single ? "Random walk, one parameter at a time"
                                  : "Random walk, one block");
  row("Random Effects", n.nreff() == 0 ? "None" : target.joint != nullptr ? "Sampled" : "Integrated out");
  row("Start", o.nooptimize ? "Starting values" : "Estimates");
  row("Chains", std::to_string(o.chains));
  row("Samples per Chain", std::to_string(o.chain.sample));
  row("Burn-In Iterations", std::to_string(o.chain.burn));
  if (!o.no_u_turn) {
    row("Iterations with Adaptation", std::to_string(o.chain.adjscale));
    if (o.chain.adjscale > 0) row("Iterations between Adaptations", std::to_string(o.chain.adjincr));
  }
  row("Prior", o.prior ? "PRIOR statement" : "Flat");
  row("Seed", std::to_string(o.chain.seed));
  n.host->tables().wobmth(std::move(table));
}

double share(long part, long whole)
{
  return whole > 0 ? static_cast<double>(part) / static_cast<double>(whole) : missing;
}

// Shares over all chains. "Random": accepted moves of the random effects over all subjects, in the first row.
void write_rates(NX& n, const Posterior& target, const std::vector<const Chain*>& chains)
{
  host::Table table("AcceptanceRates", "Acceptance Rates",
                    {{"Parm", CellKind::text, "Parameter", "", ""},
                     {"Sampling", CellKind::number, "Accepted", "8.4", ""},
                     {"Boundary", CellKind::number, "Outside Bounds", "8.4", ""},
                     {"Random", CellKind::number, "Random Effects", "8.4", ""}});
  long subject_proposed = 0, subject_accepted = 0;
  for (const Chain* c : chains)
    for (std::size_t s = 0; s < c->counts.subject_proposed.size(); ++s) {
      subject_proposed += c->counts.subject_proposed[s];
      subject_accepted += c->counts.subject_accepted[s];
    }
  for (std::size_t j = 0; j < n.parmstr.size(); ++j) {
    long proposed = 0, accepted = 0, outside = 0;
    for (const Chain* c : chains) {
      proposed += c->counts.proposed[j];
      accepted += c->counts.accepted[j];
      outside += c->counts.outside[j];
    }
    const bool moved = target.fixed[j] == 0;
    table.row({n.parmstr[j].parmname, moved ? share(accepted, proposed) : missing,
               moved ? share(outside, proposed) : missing,
               j == 0 ? share(subject_accepted, subject_proposed) : missing});
  }
  n.host->tables().wobmth(std::move(table));
}

// One quantity of all chains, cut to the common length.
std::vector<double> gather(const std::vector<const Chain*>& chains, long length, std::size_t stride, std::size_t at,
                           bool logpost)
{
  std::vector<double> out;
  out.reserve(static_cast<std::size_t>(length) * chains.size());
  for (const Chain* c : chains)
    for (std::size_t k = 0; k < static_cast<std::size_t>(length); ++k)
      out.push_back(logpost ? c->draws.logpost[k] : c->draws.theta[k * stride + at]);
  return out;
}

struct Agreement {
  double worst_rhat = 0.0, least_draws = INFINITY;
  std::string worst, least;
};

void write_diagnostics(NX& n, const SamplerOptions& o, const Posterior& target, const std::vector<const Chain*>& chains)
{
  const long length = common_length(chains);
  const auto count = static_cast<int>(chains.size());
  host::Table table("MCMCDiagnostics", "Posterior Summary and Diagnostics",
                    {{"Parameter", CellKind::text, "Parameter", "", ""},
                     {"Mean", CellKind::number, "Mean", "D10.4", ""},
                     {"StdDev", CellKind::number, "Standard Deviation", "D10.4", ""},
                     {"MCSE", CellKind::number, "Monte Carlo Error", "D10.4", ""},
                     {"P2_5", CellKind::number, "2.5%", "D10.4", ""},
                     {"P50", CellKind::number, "50%", "D10.4", ""},
                     {"P97_5", CellKind::number, "97.5%", "D10.4", ""},
                     {"RHat", CellKind::number, "R-hat", "8.4", ""},
                     {"ESSBulk", CellKind::number, "Bulk ESS", "10.1", ""},
                     {"ESSTail", CellKind::number, "Tail ESS", "10.1", ""}});
  Agreement found;
  for (std::size_t j = 0; j <= n.parmstr.size(); ++j) {
    const bool logpost = j == n.parmstr.size();
    const std::vector<double> draws = gather(chains, length, n.parmstr.size(), j, logpost);
    const Diagnostics d = diagnose({draws, count});
    const std::string& name = logpost ? std::string("LogPost") : n.parmstr[j].parmname;
    table.row(
        {name, d.mean, d.sd, d.mcse, d.quantile[0], d.quantile[1], d.quantile[2], d.rhat, d.ess_bulk, d.ess_tail});
    if (!logpost && target.fixed[j] != 0) continue;
    if (!(d.rhat <= found.worst_rhat)) found.worst_rhat = d.rhat, found.worst = name;
    const double effective =
        std::isnan(d.ess_bulk) || std::isnan(d.ess_tail) ? missing : std::min(d.ess_bulk, d.ess_tail);
    if (!(effective >= found.least_draws)) found.least_draws = effective, found.least = name;
  }
  n.host->tables().wobmth(std::move(table));
  long divergent = 0;
  for (const Chain* c : chains) divergent += c->counts.divergent;
  if (divergent > 0) {
    n.host->log().xpmlog(message::trajectories_diverged{.count = divergent});
    n.raise(4);
  }
  if (found.worst_rhat < agreement && found.least_draws >= enough_draws * count) {
    n.host->log().xpmlog(message::chains_agree{.rhat = found.worst_rhat, .draws = std::floor(found.least_draws)});
    return;
  }
  if (length == 0) return;
  n.host->log().xpmlog(message::chains_disagree{.rhat = found.worst_rhat,
                                                .worst = found.worst,
                                                .draws = found.least_draws,
                                                .least = found.least,
                                                .wanted = static_cast<long>(enough_draws) * o.chains});
  n.raise(4);
}

// Under flat priors a posterior need not have an end: a chain that runs away shows it.
void report_drift(NX& n, const Posterior& target, const std::vector<const Chain*>& chains)
{
  for (std::size_t j = 0; j < n.parmstr.size(); ++j) {
    const double variance = n.covmat.empty() ? missing : n.covmat[j * (j + 3) / 2];
    const double scale = variance > 0.0 ? std::sqrt(variance) : 0.1 * std::max(std::abs(n.parm[j]), 1.0);
    for (const Chain* c : chains) {
      if (target.fixed[j] != 0 || c->draws.kept() == 0) continue;
      const double last = c->draws.theta[static_cast<std::size_t>(c->draws.kept() - 1) * n.parmstr.size() + j];
      if (std::abs(last - n.parm[j]) <= far_away * scale) continue;
      n.host->log().xpmlog(message::chain_drifts{.name = n.parmstr[j].parmname});
      n.raise(4);
      break;
    }
  }
}

} // namespace

void declare_sample_columns(NX& n, const SamplerOptions& o)
{
  host::OutputDataSet& out = *o.out;
  for (const auto& by : n.bylist) out.add_column_like(*n.fid->find(by.name));
  for (const auto& p : n.parmstr) out.add_column(p.parmname, host::ColumnKind::numeric);
  if (n.nreff() > 0 && !o.nointegrate)
    for (std::size_t s = 0; s < n.leaf().SubInfo.size(); ++s)
      for (const auto& effect : n.leaf().names)
        out.add_column(effect + "_" + std::to_string(s + 1), host::ColumnKind::numeric);
  out.add_column("LogPost", host::ColumnKind::numeric, "Log Posterior");
  out.add_column("Sample", host::ColumnKind::numeric, "Iteration");
  out.add_column("Chain", host::ColumnKind::numeric, "Chain");
}

void write_sample(NX& n, const SamplerOptions& o, const std::vector<const Chain*>& chains)
{
  if (o.out == nullptr) return;
  if (o.out->data().columns().empty()) declare_sample_columns(n, o);
  host::OutputDataSet& out = *o.out;
  const std::size_t np = n.parmstr.size(), width = out.data().columns().size(), by = n.bylist.size();
  const std::size_t room = width - by - np - 3; // columns of effects: as many as the first BY group has
  if (n.nreff() > 0 && !o.nointegrate && n.leaf().SubInfo.size() * n.leaf().names.size() > room) {
    n.host->log().xpmlog(message::sample_lacks_effects{.count = room / n.leaf().names.size()});
    n.raise(4);
  }
  for (std::size_t c = 0; c < chains.size(); ++c) {
    const ChainDraws& d = chains[c]->draws;
    const std::size_t effects = d.kept() > 0 ? d.effects.size() / static_cast<std::size_t>(d.kept()) : 0;
    for (std::size_t k = 0; k < static_cast<std::size_t>(d.kept()); ++k) {
      std::size_t at = 0;
      for (const auto& b : n.bylist) out.set_from(at++, *n.fid->find(b.name), n.rows.begin);
      for (std::size_t j = 0; j < np; ++j) out.set(at++, d.theta[k * np + j]);
      for (std::size_t e = 0; e < std::min(effects, room); ++e) out.set(at + e, d.effects[k * effects + e]);
      at += room;
      out.set(at++, d.logpost[k]);
      out.set(at++, static_cast<double>(k + 1));
      out.set(at, static_cast<double>(c + 1));
      out.end_row();
    }
  }
}

void keep_draws(const ModelLists& n, const SamplerOptions& o, const Posterior& target,
                const std::vector<const Chain*>& chains)
{
  const long length = common_length(chains);
  if (o.draws == nullptr || length == 0) return;
  o.draws->chains = static_cast<int>(chains.size());
  const auto add = [&](const std::string& name, std::size_t at, bool logpost) {
    const std::vector<double> draws = gather(chains, length, n.parmstr.size(), at, logpost);
    o.draws->names.push_back(name);
    o.draws->draws.insert(o.draws->draws.end(), draws.begin(), draws.end());
  };
  for (std::size_t j = 0; j < n.parmstr.size(); ++j)
    if (target.fixed[j] == 0) add(n.parmstr[j].parmname, j, false);
  add("LogPost", 0, true);
}

void write_tables(NX& n, const SamplerOptions& options, const Posterior& target,
                  const std::vector<const Chain*>& chains)
{
  write_specifications(n, options, target);
  write_rates(n, target, chains);
  write_diagnostics(n, options, target, chains);
  report_drift(n, target, chains);
}

} // namespace torvale::sampling
