// REPLICATE: how often a subject counts.
#include "run/statements/statement_processing.h"

#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "syntax/statement_names.h"

#include <algorithm>

namespace torvale::run {

using model::NX;
using syntax::replicate_slot;
using syntax::STMT;

namespace {

// Two statements of a kind that may stand once.
void refuse_second(NX& n, const char* word)
{
  STMT* stmt = nullptr;
  if (syntax::FindStmt(*n.proc, word, &stmt) < 2) return;
  n.host->log().xpmlog(message::repeated_statement{.statement = word}, place_at(n, word, stmt->where));
  tvlexit(n, 3000);
}

} // namespace

void replicate_statement(NX& n)
{
  refuse_second(n, "REPLICATE");
  STMT* stmt = nullptr;
  if (syntax::FindStmt(*n.proc, "REPLICATE", &stmt) == 0) return;
  if (stmt->slot(replicate_slot::variable).list.size() != 1) tvlexit(n, 3000);
  const auto& item = stmt->slot(replicate_slot::variable).list[0];
  n.repname = item.text;
  n.repsym = engine::cmpsyms(*n.gcmp, item.text);
  const auto at = n.fid->xvfind(item.text);
  const bool computed = n.repsym != nullptr && n.repsym->assigned;
  const bool parameter = n.repsym != nullptr && n.repsym->parameter >= 0;
  const bool usable = !parameter && (computed || (at != host::DataSet::npos && n.fid->columns()[at].numeric()));
  if (!usable) {
    n.host->log().xpmlog(message::bad_replicate_variable{.name = item.text, .data = n.data_name},
                         place_at(n, "REPLICATE", item.where));
    tvlexit(n, 3000);
  }
  if (!computed) n.repsym = engine::cmpsymg(*n.gcmp, item.text, static_cast<int>(at) + 1, 'n');
  n.repsym->used = true; // the data pass reads it, whether the program does or not
}

void refuse_modelled_replicate(NX& n)
{
  if (n.repsym == nullptr) return;
  for (const auto* input : engine::cmpdeps(*n.gcmp, n.repsym)) {
    if (input->parameter < 0 && input->random_effect < 0) continue;
    n.host->log().xpmlog(message::replicate_not_of_data{.name = n.repname,
                                                        .kind = input->parameter >= 0 ? "parameter" : "random effect",
                                                        .input = input->name},
                         place_at(n, "REPLICATE", n.repsym->where));
    tvlexit(n, 3000);
  }
}

} // namespace torvale::run
