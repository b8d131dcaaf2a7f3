#include "host/messages/names/fit.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"

#include <algorithm>

namespace torvale::run {

using model::NX;
using model::REFFECT;
using syntax::random_slot;
using syntax::STMT;

namespace {

void random_effects(NX& n, const STMT& stmt, REFFECT& reff)
{
  auto& log = n.host->log();
  for (const auto& item : stmt.slot(random_slot::effects).list) {
    const auto place = place_at(n, "RANDOM", item.where);
    const bool repeated = std::any_of(reff.names.begin(), reff.names.end(),
                                      [&](const std::string& s) { return host::equal_names(s, item.text); });
    if (repeated) {
      log.xpmlog(message::random_effect_twice{.name = item.text}, place);
      tvlexit(n, 3000);
    }
    if (reserved_name(item.text)) {
      log.xpmlog(message::reserved_name{.name = item.text, .role = "a random effect"}, place);
      tvlexit(n, 3000);
    }
    engine::CMPSYM* symbol = engine::cmpsyms(*n.gcmp, item.text);
    if (symbol == nullptr) symbol = engine::cmpsymd(*n.gcmp, item.text, 'v', 'n');
    if (symbol->assigned) {
      log.xpmlog(message::role_is_assigned{.name = item.text, .role = "a random effect"}, place);
      tvlexit(n, 3000);
    }
    if (n.fid->find(item.text) != nullptr) {
      log.xpmlog(message::random_effect_in_data{.name = item.text}, place);
      n.raise(4);
    }
    reff.names.push_back(item.text);
    reff.ransym.s.push_back(symbol);
  }
}

void distribution(NX& n, const STMT& stmt, REFFECT& reff)
{
  auto& log = n.host->log();
  const auto place = place_at(n, "RANDOM", stmt.where);
  reff.distrtype = static_cast<int>(stmt.number_or(random_slot::distribution, 0));
  if (reff.distrtype != 0 && reff.distrtype != 8) {
    log.xpmlog(message::random_distribution_unknown, place);
    tvlexit(n, 1012);
  }
  for (const auto& item : stmt.slot(random_slot::arguments).list) {
    engine::CMPSYM* symbol = engine::cmpsite(*n.gcmp, item.expr);
    if (symbol == nullptr) symbol = engine::cmpexpr(*n.gcmp, item.expr);
    reff.distrsym.s.push_back(symbol);
  }
  reff.nd = reff.distrsym.n();
  if (reff.distrtype == 0 && reff.nd != reff.nr + reff.nrs) {
    log.xpmlog(
        message::wrong_number_of_random_arguments{.expected = reff.nr + reff.nrs, .effects = reff.nr, .found = reff.nd},
        place);
    tvlexit(n, 1012);
  }
  if (reff.distrtype == 8) {
    if (n.method != 0) {
      log.xpmlog(message::method_with_discrete, place);
      tvlexit(n, 3000);
    }
    if (reff.nd % (reff.nr + 1) != 0) {
      log.xpmlog(message::discrete_arguments_uneven{.found = reff.nd, .effects = reff.nr}, place);
      tvlexit(n, 1012);
    }
    n.method = 4;
    n.adaptive = n.adscale = false;
    n.nqp = 0;
  }
}

void subject(NX& n, const STMT& stmt, REFFECT& reff)
{
  auto& log = n.host->log();
  const auto& list = stmt.slot(random_slot::subject).list;
  // Variables around it are for several RANDOM statements; nestcheck looks at them.
  if (list.empty() || (list.size() != 1 && n.nreff() == 1)) {
    log.xpmlog(message::subject_not_one_variable{.found = list.size()}, place_at(n, "RANDOM", stmt.where));
    tvlexit(n, 1012);
  }
  const auto at = n.fid->xvfind(list[0].text);
  const bool parameter = std::any_of(n.parmstr.begin(), n.parmstr.end(),
                                     [&](const auto& p) { return host::equal_names(p.parmname, list[0].text); });
  if (at == host::DataSet::npos || parameter) {
    log.xpmlog(
        message::role_variable_not_in_data{.role = "subject",
                                           .name = list[0].text,
                                           .near = parameter ? std::string()
                                                             : host::nearest_name(list[0].text, n.fid->column_names())},
        place_at(n, "RANDOM", list[0].where));
    tvlexit(n, 3000);
  }
  reff.subname = n.fid->columns()[at].name();
  reff.sub_dsvarno = static_cast<int>(at) + 1;
  reff.sub_character = !n.fid->columns()[at].numeric();
  for (std::size_t k = 1; k < list.size(); ++k) reff.outer_names.push_back(list[k].text);
}

} // namespace

void readrandom(NX& n, const STMT& stmt, REFFECT& reff)
{
  reff.stmt = &stmt;
  random_effects(n, stmt, reff);
  reff.nr = static_cast<int>(reff.names.size());
  if (reff.nr == 0) {
    n.host->log().xpmlog(message::no_random_effect, place_at(n, "RANDOM", stmt.where));
    tvlexit(n, 1012);
  }
  reff.nrs = reff.nr * (reff.nr + 1) / 2;
  reff.npr = reff.nr + n.nparm;
  distribution(n, stmt, reff);
  subject(n, stmt, reff);
  reff.alpha = stmt.number_or(random_slot::alpha, n.alpha);
  reff.dfe = stmt.number_or(random_slot::df, -1);
  if (const auto& out = stmt.slot(random_slot::out).list; !out.empty()) reff.outeb = &out[0];
  if (const auto& out = stmt.slot(random_slot::outri).list; !out.empty()) reff.outri = &out[0];
  if (const auto& out = stmt.slot(random_slot::outp).list; !out.empty()) {
    if (reff.distrtype == 8) {
      reff.outpp = &out[0];
    } else {
      n.host->log().xpmlog(message::outp_needs_discrete, place_at(n, "RANDOM", stmt.slot(random_slot::outp).where));
      n.raise(4);
    }
  }
}

} // namespace torvale::run
