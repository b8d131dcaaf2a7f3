// The chain of RANDOM statements: what holds of all of them, and the order of their levels.
#include "run/statements/statement_processing.h"

#include "host/messages/names/methods.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/statements.h"
#include "run/statements/idle_options.h"
#include "syntax/statement_names.h"

#include <algorithm>

namespace torvale::run {

using model::NX;
using syntax::STMT;
using syntax::torvale_slot;

namespace {

// The chain of effects, the outermost level first: their numbers in the compiled model.
void number_effects(NX& n)
{
  for (auto reff = n.reff.rbegin(); reff != n.reff.rend(); ++reff) {
    reff->first_effect = n.mransym.n();
    for (auto* symbol : reff->ransym.s) {
      engine::cmpran(*n.gcmp, symbol, n.mransym.n());
      n.mransym.s.push_back(symbol);
    }
  }
}

} // namespace

void random_statements(NX& n, const STMT& procedure)
{
  auto& log = n.host->log();
  std::vector<const STMT*> statements;
  for (const auto& stmt : n.proc->statements)
    if (stmt.name == "RANDOM") statements.push_back(&stmt);
  if (statements.empty()) {
    if (n.method == 1) {
      log.xpmlog(message::firo_needs_random, place_at(n, "TORVALE", procedure.slot(torvale_slot::method).where));
      tvlexit(n, 3000);
    }
    if (n.empirical) {
      log.xpmlog(message::empirical_needs_random, place_at(n, "TORVALE", procedure.where));
      tvlexit(n, 3000);
    }
    n.method = 0;
    n.adaptive = n.adscale = false;
    n.nqp = 1;
    refuse_events_without_subjects(n);
    if (procedure.given(torvale_slot::outr)) {
      log.xpmlog(message::outr_without_random, place_at(n, "TORVALE", procedure.slot(torvale_slot::outr).where));
      n.raise(4);
    }
    return;
  }
  if (statements.size() > 1 && n.method != 0) {
    log.xpmlog(message::levels_need_gauss, place_at(n, "RANDOM", statements[1]->where));
    tvlexit(n, 3000);
  }
  n.reff.resize(statements.size());
  for (std::size_t k = 0; k < statements.size(); ++k) readrandom(n, *statements[k], n.reff[k]);
  if (n.method == 2 && n.leaf().nr != 1) {
    log.xpmlog(message::hardy_needs_one_effect{.count = n.leaf().nr}, place_at(n, "RANDOM", statements[0]->where));
    tvlexit(n, 1012);
  }
  if (statements.size() > 1) nested_levels(n, procedure);
  number_effects(n);
  note_idle_points(n, procedure);
  STMT* prediction = nullptr;
  if (const auto& out = procedure.slot(torvale_slot::outr).list; procedure.given(torvale_slot::outr) && !out.empty())
    n.outr = &out[0];
  n.wants_effects =
      n.outr != nullptr || n.fitted.out != nullptr || syntax::FindStmt(*n.proc, "PREDICT", &prediction) > 0 ||
      std::any_of(n.reff.begin(), n.reff.end(), [](const auto& r) { return r.outeb != nullptr || r.outpp != nullptr; });
  n.leaf().prsym.s = n.prsym.s;
  for (auto* symbol : n.leaf().ransym.s) n.leaf().prsym.s.push_back(symbol);
  if (n.empirical && n.method != 0 && n.method != 3) {
    log.xpmlog(message::empirical_needs_quadrature, place_at(n, "TORVALE", procedure.where));
    tvlexit(n, 3000);
  }
}

} // namespace torvale::run
