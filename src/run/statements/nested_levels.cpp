// Several RANDOM statements: levels of subjects nested in each other.

#include "host/messages/names/optimization.h"
#include "host/values/text.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"

#include <algorithm>

namespace torvale::run {

using model::NX;
using model::REFFECT;
using syntax::replicate_slot;
using syntax::STMT;
using syntax::torvale_slot;

namespace {

host::MessagePlace place_of_random(const NX& n, const REFFECT& reff)
{
  return place_at(n, "RANDOM", reff.stmt->where);
}

// nestcheck: orders the levels, the deepest first; they must form a chain without a gap, each inside those before it.
void nestcheck(NX& n)
{
  const auto fail = [&](const REFFECT& reff) {
    n.host->log().xpmlog(message::subjects_not_nested{.subject = reff.subname}, place_of_random(n, reff));
    tvlexit(n, 3000);
  };
  const auto level = [](const REFFECT& reff) { return reff.outer_names.size() + 1; };
  std::stable_sort(n.reff.begin(), n.reff.end(),
                   [&](const REFFECT& a, const REFFECT& b) { return level(a) < level(b); });
  for (std::size_t i = 0; i < n.reff.size(); ++i) {
    const REFFECT& reff = n.reff[i];
    if (level(reff) != i + 1) fail(reff);
    // Each of the levels before must stand among the outer variables, and no variable twice.
    for (std::size_t k = 0; k < i; ++k) {
      const auto same = [&](const std::string& name) { return host::equal_names(name, n.reff[k].subname); };
      if (std::count_if(reff.outer_names.begin(), reff.outer_names.end(), same) != 1) fail(reff);
      if (same(reff.subname)) fail(reff);
    }
  }
  std::reverse(n.reff.begin(), n.reff.end());
}

void refuse_common_effects(NX& n)
{
  for (std::size_t a = 0; a < n.reff.size(); ++a)
    for (std::size_t b = 0; b < a; ++b)
      for (const std::string& name : n.reff[a].names)
        if (std::any_of(n.reff[b].names.begin(), n.reff[b].names.end(),
                        [&](const std::string& other) { return host::equal_names(name, other); })) {
          n.host->log().xpmlog(message::random_effect_in_two_statements{.name = name}, place_of_random(n, n.reff[a]));
          tvlexit(n, 3000);
        }
}

// The options of the search of one level act under EBITER$ only, which searches level by level.
void ignore_search_options(NX& n, const STMT& procedure)
{
  const auto warn = [&](host::MessageCode message) {
    n.host->log().xpmlog(message, place_at(n, "TORVALE", procedure.where));
    n.raise(4);
  };
  if (n.ebopt) warn(message::ebopt_ignored_with_levels);
  n.ebopt = false;
  if (n.ebiter) return;
  if (procedure.given(torvale_slot::ebssfrac)) warn(message::ebssfrac_ignored_with_levels);
  if (procedure.given(torvale_slot::ebsstol)) warn(message::ebsstol_ignored_with_levels);
  if (procedure.given(torvale_slot::ebstep)) warn(message::ebsteps_ignored_with_levels);
  if (procedure.given(torvale_slot::ebsubstep)) warn(message::ebsubsteps_ignored_with_levels);
  if (procedure.given(torvale_slot::ebtol)) warn(message::ebtol_ignored_with_levels);
}

} // namespace

void nested_levels(NX& n, const STMT& procedure)
{
  const bool discrete = std::any_of(n.reff.begin(), n.reff.end(), [](const REFFECT& r) { return r.distrtype != 0; });
  if (discrete || n.method != 0) {
    n.host->log().xpmlog(message::levels_need_gauss, place_of_random(n, n.reff[1]));
    tvlexit(n, 3000);
  }
  nestcheck(n);
  refuse_common_effects(n);
  ignore_search_options(n, procedure);
  STMT* replicate = nullptr;
  if (syntax::FindStmt(*n.proc, "REPLICATE", &replicate) > 0) {
    const std::string name = replicate->slot(replicate_slot::variable).list.empty()
                                 ? ""
                                 : replicate->slot(replicate_slot::variable).list[0].text;
    n.host->log().xpmlog(message::replicate_with_levels{.name = name}, place_at(n, "REPLICATE", replicate->where));
    tvlexit(n, 3000);
  }
  if (n.nosort) {
    n.host->log().xpmlog(message::nosortsub_ignored_with_levels, place_at(n, "TORVALE", procedure.where));
    n.raise(4);
    n.nosort = false;
  }
  refuse_doses_across_levels(n);
}

} // namespace torvale::run
