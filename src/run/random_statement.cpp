#include "host/text.h"
#include "run/statement_processing.h"

#include <algorithm>

namespace torvale::run {

using model::NX;
using model::REFFECT;
using syntax::STMT;

namespace {

void random_effects(NX& n, const STMT& stmt, REFFECT& reff, int first_effect)
{
  auto& log = n.host->log();
  for (const auto& item : stmt.slot(1).list) {
    const auto place = place_at(n, "RANDOM", item.where);
    const bool repeated = std::any_of(reff.names.begin(), reff.names.end(),
                                      [&](const std::string& s) { return host::equal_names(s, item.text); });
    if (repeated) {
      log.xpmlog(503, 9320, {{"name", item.text}}, place);
      tvlexit(n, 3000);
    }
    if (reserved_name(item.text)) {
      log.xpmlog(503, 9321, {{"name", item.text}, {"role", "a random effect"}}, place);
      tvlexit(n, 3000);
    }
    engine::CMPSYM* symbol = engine::cmpsyms(*n.gcmp, item.text);
    if (symbol == nullptr) symbol = engine::cmpsymd(*n.gcmp, item.text, 'v', 'n');
    if (symbol->assigned) {
      log.xpmlog(503, 9322, {{"name", item.text}, {"role", "a random effect"}}, place);
      tvlexit(n, 3000);
    }
    if (n.fid->find(item.text) != nullptr) {
      log.xpmlog(503, 18, {{"name", item.text}}, place);
      n.raise(4);
    }
    engine::cmpran(*n.gcmp, symbol, first_effect + static_cast<int>(reff.names.size()));
    reff.names.push_back(item.text);
    reff.ransym.s.push_back(symbol);
  }
}

void distribution(NX& n, const STMT& stmt, REFFECT& reff)
{
  auto& log = n.host->log();
  const auto place = place_at(n, "RANDOM", stmt.where);
  reff.distrtype = static_cast<int>(stmt.number_or(4, 0));
  if (reff.distrtype != 0 && reff.distrtype != 8) {
    log.xpmlog(503, 332, {}, place);
    tvlexit(n, 1012);
  }
  for (const auto& item : stmt.slot(2).list) {
    engine::CMPSYM* symbol = engine::cmpsite(*n.gcmp, item.expr);
    if (symbol == nullptr) symbol = engine::cmpexpr(*n.gcmp, item.expr);
    reff.distrsym.s.push_back(symbol);
  }
  reff.nd = reff.distrsym.n();
  if (reff.distrtype == 0 && reff.nd != reff.nr + reff.nrs) {
    log.xpmlog(503, 15, {{"expected", reff.nr + reff.nrs}, {"found", reff.nd}, {"effects", reff.nr}}, place);
    tvlexit(n, 1012);
  }
  if (reff.distrtype == 8) {
    if (n.method != 0) {
      log.xpmlog(503, 9323, {}, place);
      tvlexit(n, 3000);
    }
    if (reff.nd % (reff.nr + 1) != 0) {
      log.xpmlog(503, 334, {{"found", reff.nd}, {"effects", reff.nr}}, place);
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
  const auto& list = stmt.slot(5).list;
  if (list.size() != 1) {
    log.xpmlog(503, 8, {{"found", list.size()}}, place_at(n, "RANDOM", stmt.where));
    tvlexit(n, 1012);
  }
  const auto at = n.fid->xvfind(list[0].text);
  if (at == host::DataSet::npos) {
    host::MessageArguments arguments = {{"role", "subject"}, {"name", list[0].text}};
    const std::string nearest = host::nearest_name(list[0].text, n.fid->column_names());
    if (!nearest.empty()) arguments.emplace_back("near", nearest);
    log.xpmlog(503, 9, arguments, place_at(n, "RANDOM", list[0].where));
    tvlexit(n, 3000);
  }
  reff.subname = n.fid->columns()[at].name();
  reff.sub_dsvarno = static_cast<int>(at) + 1;
  reff.sub_character = !n.fid->columns()[at].numeric();
}

} // namespace

void readrandom(NX& n, const STMT& stmt, REFFECT& reff)
{
  reff.stmt = &stmt;
  int first = 0;
  for (const auto& other : n.reff) first += &other == &reff ? 0 : other.nr;
  random_effects(n, stmt, reff, first);
  reff.nr = static_cast<int>(reff.names.size());
  if (reff.nr == 0) {
    n.host->log().xpmlog(503, 13, {}, place_at(n, "RANDOM", stmt.where));
    tvlexit(n, 1012);
  }
  reff.nrs = reff.nr * (reff.nr + 1) / 2;
  reff.npr = reff.nr + n.nparm;
  distribution(n, stmt, reff);
  subject(n, stmt, reff);
  reff.alpha = stmt.number_or(7, n.alpha);
  reff.dfe = stmt.number_or(8, -1);
  if (stmt.given(6) && !stmt.slot(6).list.empty()) reff.outeb = &stmt.slot(6).list[0];
}

} // namespace torvale::run
