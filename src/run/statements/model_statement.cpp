// MODEL: the distribution and the dependent variable.
#include "run/statements/statement_processing.h"

#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "syntax/statement_names.h"

#include <algorithm>

namespace torvale::run {

using model::NX;
using syntax::model_slot;
using syntax::STMT;

namespace {

host::MessagePlace dependent_place(const NX& n)
{
  STMT* stmt = nullptr;
  syntax::FindStmt(*n.proc, "MODEL", &stmt);
  return place_at(n, "MODEL", stmt->slot(model_slot::dependent).list[0].where);
}

// The first text of the column that is no number; where they are names of levels, how a number is made of them.
message::dependent_is_character character_dependent(const std::string& name, const host::Column& column)
{
  std::size_t first = column.rows();
  bool numbers = false;
  for (std::size_t row = 0; row < column.rows(); ++row) {
    if (column.is_missing(row)) continue;
    const bool number = host::parse_number(column.text(row)).has_value();
    numbers = numbers || number;
    if (!number && first == column.rows()) first = row;
  }
  if (first == column.rows()) return {.name = name};
  message::dependent_is_character out{.name = name, .row = first + 1, .value = column.text(first)};
  const std::string& text = column.text(first);
  const bool name_like = text.find_first_of("0123456789'") == std::string::npos; // others are numbers in disguise
  if (!numbers && name_like) out.test = name + " = '" + text + "'";
  return out;
}

} // namespace

void model_statement(NX& n)
{
  auto& log = n.host->log();
  STMT* stmt = nullptr;
  const int count = syntax::FindStmt(*n.proc, "MODEL", &stmt);
  if (count == 0) {
    log.xpmlog(message::no_model, place_at(n, "TORVALE", n.proc->statements.front().where));
    tvlexit(n, 3000);
  }
  if (count > 1) {
    log.xpmlog(message::repeated_statement{.statement = "MODEL"}, place_at(n, "MODEL", stmt->where));
    tvlexit(n, 3000);
  }
  n.disttype = static_cast<int>(stmt->number_or(model_slot::distribution, 0));
  if (stmt->slot(model_slot::dependent).list.size() != 1) {
    log.xpmlog(message::no_model, place_at(n, "MODEL", stmt->where));
    tvlexit(n, 3000);
  }
  n.depname = stmt->slot(model_slot::dependent).list[0].text;
  n.llsym = engine::cmpsyms(*n.gcmp, "_ll");
  if (n.method == 1) { // as the generated statements name them
    n.meansym = engine::cmpsyms(*n.gcmp, "_arg1");
    n.variancesym = engine::cmpsyms(*n.gcmp, "_arg2");
  }
}

void refuse_character_dependent(NX& n)
{
  const engine::CMPSYM* const symbol = engine::cmpsyms(*n.gcmp, n.depname);
  const host::Column* const column = n.fid->find(n.depname);
  const bool assigned = symbol != nullptr && symbol->assigned;
  const bool character = assigned ? symbol->type == 'c' : column != nullptr && !column->numeric();
  if (!character) return;
  const auto words =
      assigned ? message::dependent_is_character{.name = n.depname} : character_dependent(n.depname, *column);
  n.host->log().xpmlog(words, dependent_place(n));
  tvlexit(n, 3000);
}

void dependent_variable(NX& n)
{
  n.depsym = engine::cmpsyms(*n.gcmp, n.depname);
  const bool computed = n.depsym != nullptr && n.depsym->assigned;
  const bool parameter = n.depsym != nullptr && n.depsym->parameter >= 0;
  if (parameter || (!computed && n.fid->find(n.depname) == nullptr)) {
    const std::string near = parameter ? std::string() : host::nearest_name(n.depname, n.fid->column_names());
    n.host->log().xpmlog(
        message::unknown_dependent_variable{.name = n.depname, .near = near, .statement = parameter ? "PARMS" : ""},
        dependent_place(n));
    tvlexit(n, 3000);
  }
  refuse_character_dependent(n); // a type that only the whole program shows
}

} // namespace torvale::run
