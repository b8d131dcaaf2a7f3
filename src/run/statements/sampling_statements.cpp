// MCMC and PRIOR: posterior sampling of every BY group after its fit.

#include "host/messages/names/methods.h"
#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "run/statements/statement_processing.h"
#include "sampling/sampler.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <cmath>

namespace torvale::run {

using model::NX;
using syntax::mcmc_flag;
using syntax::mcmc_slot;
using syntax::prior_slot;
using syntax::STMT;

namespace {

std::optional<host::DataSetReference> reference_of(NX& n, const syntax::StItem& item, const host::MessagePlace& place)
{
  host::DataSetReference reference{item.text, item.quoted, {}};
  if (item.options.empty()) return reference;
  auto options = host::parse_data_set_options(item.options, n.host->log(), place);
  if (!options) return std::nullopt;
  reference.options = std::move(*options);
  return reference;
}

[[noreturn]] void refuse(NX& n, const char* what, syntax::Position where)
{
  n.host->log().xpmlog(message::cannot_sample{.what = what}, place_at(n, "MCMC", where));
  tvlexit(n, 3000);
}

// COVDATA=: the covariance that proposals begin with.
void read_covariance(NX& n, const STMT& mcmc)
{
  const syntax::StItem& item = mcmc.slot(mcmc_slot::covdata).list.at(0);
  const auto place = place_at(n, "MCMC", item.where);
  const auto reference = reference_of(n, item, place);
  if (!reference) tvlexit(n, 1008);
  proposal_covariance(n, *reference, place);
}

double log_prior(const NX& n, engine::Frame& frame, const double* theta, double* gradient)
{
  const auto& s = n.sampling;
  const std::int32_t lane = 0;
  frame.set_parameters(theta);
  if (frame.run(*s.prior, {1, &lane, &lane, &lane}) > 2) return host::missing;
  double sum = 0.0;
  const auto values = static_cast<std::size_t>(s.priors.n());
  for (std::size_t k = 0; k < values; ++k) sum += frame.output(static_cast<int>(k))[0];
  for (std::size_t k = 0; gradient != nullptr && k < s.list.size(); ++k)
    gradient[s.list[k]] += frame.output(static_cast<int>(values + k))[0];
  return sum;
}

} // namespace

void sampling_statement(NX& n)
{
  STMT* mcmc = nullptr;
  const int count = syntax::FindStmt(*n.proc, "MCMC", &mcmc);
  if (count > 1) {
    n.host->log().xpmlog(message::repeated_statement{.statement = "MCMC"}, place_at(n, "MCMC", mcmc->where));
    tvlexit(n, 3000);
  }
  if (count == 1) n.sampling.mcmc = mcmc;
}

void sampling_needs(NX& n)
{
  const STMT* const mcmc = n.sampling.mcmc;
  if (mcmc == nullptr) return;
  const bool integrated = mcmc->flag(mcmc_flag::nointegrate) || n.nreff() == 0;
  if (n.nreff() > 1) refuse(n, "a model with several RANDOM statements", mcmc->where);
  if (!integrated && n.method == 4)
    refuse(n, "random effects with the DISCRETE distribution, unless NOINTEGRATE stands", mcmc->where);
  if (!integrated) n.wants_effects = true;
  if (mcmc->number_or(mcmc_slot::sampler, 1) == 2 && n.fd != 0) refuse(n, "SAMPLER=NUTS with FD", mcmc->where);
  if (mcmc->flag(mcmc_flag::nooptimize)) { // the chains start where PARMS says
    n.noopt = true;
    n.str->tech = 1;
  }
  if (mcmc->given(mcmc_slot::covdata)) read_covariance(n, *mcmc);
}

void read_sampling_statements(NX& n)
{
  for (const auto& stmt : n.proc->statements) {
    if (stmt.name != "PRIOR") continue;
    for (const auto& item : stmt.slot(prior_slot::expression).list) {
      engine::CMPSYM* symbol = engine::cmpexpr(*n.gcmp, item.expr);
      if (log_diagnostics(n) > 0) tvlexit(n, 1012);
      parameters_only(n, "PRIOR", symbol, item.where);
      n.sampling.priors.s.push_back(symbol);
    }
  }
  if (n.sampling.priors.n() == 0) return;
  if (n.sampling.mcmc == nullptr) {
    n.host->log().xpmlog(message::prior_without_sampling);
    n.raise(4);
  }
  if (engine::cmpder(n.sampling.prior_der, n.sampling.priors, n.prsym, *n.gcmp) != 0) {
    log_diagnostics(n);
    tvlexit(n, 1012);
  }
}

void specialise_sampling_statements(NX& n)
{
  auto& s = n.sampling;
  if (s.mcmc == nullptr) return;
  if (s.priors.n() > 0) {
    std::vector<engine::CMPSYM*> outputs = s.priors.s;
    for (std::size_t k = 0; k < s.prior_der.der.s.size(); ++k) {
      outputs.push_back(s.prior_der.der.s[k]);
      s.list.push_back(s.prior_der.wrtindex[k]);
    }
    s.prior = engine::cmpspec(*n.gcmp, outputs);
  }
  if (!s.mcmc->given(mcmc_slot::out) || s.mcmc->slot(mcmc_slot::out).list.empty()) return;
  const auto place = place_at(n, "MCMC", s.mcmc->slot(mcmc_slot::out).list[0].where);
  const auto reference = reference_of(n, s.mcmc->slot(mcmc_slot::out).list[0], place);
  int code = 3000;
  if (reference) s.output = n.host->libraries().open_output(*reference, n.host->log(), place, &code);
  if (s.output == nullptr) tvlexit(n, code);
}

void complete_sample_output(NX& n)
{
  if (n.sampling.output == nullptr || !n.sampling.output->data().columns().empty()) return;
  sampling::SamplerOptions o;
  o.out = n.sampling.output;
  o.nointegrate = true; // of the subjects nothing may be known
  sampling::declare_sample_columns(n, o);
}

int run_sampler(NX& n, sampling::SampleDraws* draws)
{
  const STMT& mcmc = *n.sampling.mcmc;
  sampling::SamplerOptions o;
  o.no_u_turn = mcmc.number_or(mcmc_slot::sampler, 1) == 2;
  o.nooptimize = mcmc.flag(mcmc_flag::nooptimize);
  o.nointegrate = mcmc.flag(mcmc_flag::nointegrate);
  o.chains = static_cast<int>(mcmc.number_or(mcmc_slot::chains, 4));
  o.lognote = static_cast<long>(mcmc.number_or(mcmc_slot::lognote, 0));
  o.chain.single = mcmc.flag(mcmc_flag::single);
  o.chain.sample = static_cast<long>(mcmc.number_or(mcmc_slot::sample, 1000));
  o.chain.burn = static_cast<long>(mcmc.number_or(mcmc_slot::burn, o.no_u_turn ? 1000 : 0));
  o.chain.adjscale = static_cast<long>(mcmc.number_or(mcmc_slot::adjscale, 0));
  o.chain.adjincr =
      std::max(1L, static_cast<long>(mcmc.number_or(
                       mcmc_slot::adjincr, std::max(50.0, std::floor(static_cast<double>(o.chain.adjscale) / 20.0)))));
  o.chain.maxbviol = static_cast<long>(mcmc.number_or(mcmc_slot::maxbviol, 10000));
  o.chain.seed = n.seed;
  o.covariance = n.sampling.covariance;
  o.out = n.sampling.output;
  o.draws = draws;
  if (!o.no_u_turn && o.chain.adjscale > o.chain.burn) {
    n.host->log().xpmlog(message::adaptation_beyond_burn_in{.adapted = o.chain.adjscale, .burn = o.chain.burn},
                         place_at(n, "MCMC", mcmc.where));
    n.raise(4);
  }
  const bool sampled = n.nreff() > 0 && !o.nointegrate;
  if (sampled && std::any_of(n.leaf().SubInfo.begin(), n.leaf().SubInfo.end(),
                             [](const auto& s) { return !s.badsub && s.weight != 1.0; })) {
    n.host->log().xpmlog(message::replicates_not_sampled, place_at(n, "MCMC", mcmc.where));
    n.raise(1012);
    return 1;
  }
  // A frame for each chain at most, since chains may run side by side.
  std::vector<std::unique_ptr<engine::Frame>> frames;
  const double none = 0.0;
  if (n.sampling.prior != nullptr) {
    for (int c = 0; c < static_cast<int>(n.ctx.size()); ++c) {
      frames.push_back(std::make_unique<engine::Frame>(*n.gcmp, n.bound));
      frames.back()->set_range(0, 1);
      frames.back()->set_points(&none, 1, 1);
    }
    o.prior = [&](int context, const double* theta, double* gradient) {
      return log_prior(n, *frames[static_cast<std::size_t>(context)], theta, gradient);
    };
  }
  return sampling::tvlmcmc(n, o);
}

} // namespace torvale::run
