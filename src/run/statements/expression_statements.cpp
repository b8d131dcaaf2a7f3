// ESTIMATE and CONTRAST: expressions of the parameters, evaluated after the whole program.

#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"

namespace torvale::run {

using model::EstimateStatement;
using model::NX;
using syntax::estimate_flag;
using syntax::estimate_slot;
using syntax::STMT;

namespace {

[[noreturn]] void refuse_name(NX& n, const char* statement, const engine::CMPSYM& input, syntax::Position where)
{
  const auto place = place_at(n, statement, where);
  if (input.random_effect >= 0) {
    n.host->log().xpmlog(message::depends_on_random_effects{.statement = statement, .name = input.name}, place);
  } else {
    std::vector<std::string> names;
    for (const auto& p : n.parmstr) names.push_back(p.parmname);
    n.host->log().xpmlog(message::estimate_of_unknown_name{.statement = statement,
                                                           .name = input.name,
                                                           .near = host::nearest_name(input.name, names)},
                         place);
  }
  tvlexit(n, 3000);
}

EstimateStatement read_statement(NX& n, const STMT& stmt, const char* word)
{
  EstimateStatement e;
  e.where = stmt.where;
  e.alpha = stmt.number_or(estimate_slot::alpha, -1);
  e.df = stmt.number_or(estimate_slot::df, -1);
  e.derivatives = stmt.flag(estimate_flag::der);
  for (const auto& item : stmt.slot(estimate_slot::expressions).list) {
    engine::CMPSYM* symbol = engine::cmpexpr(*n.gcmp, item.expr);
    if (log_diagnostics(n) > 0) tvlexit(n, 1012);
    parameters_only(n, word, symbol, item.where);
    e.expr.s.push_back(symbol);
  }
  if (stmt.given(estimate_slot::label) && !stmt.slot(estimate_slot::label).list.empty())
    e.label = stmt.slot(estimate_slot::label).list[0].text;
  if (e.label.empty() && e.expr.n() > 0) e.label = engine::cmppnam(e.expr.s[0]);
  if (std::string_view(word) == "ESTIMATE" && e.expr.n() != 1) {
    n.host->log().xpmlog(message::estimate_needs_one_expression{.label = e.label}, place_at(n, word, stmt.where));
    tvlexit(n, 1012);
  }
  if (engine::cmpder(e.der, e.expr, n.prsym, *n.gcmp) != 0) {
    log_diagnostics(n);
    tvlexit(n, 1012);
  }
  return e;
}

void specialise(NX& n, EstimateStatement& e)
{
  const auto rows = static_cast<std::size_t>(e.expr.n()), np = static_cast<std::size_t>(n.nparm);
  std::vector<engine::CMPSYM*> outputs(e.expr.s);
  outputs.resize(rows + rows * np, nullptr);
  for (std::size_t k = 0; k < e.der.objindex.size(); ++k)
    outputs[rows + static_cast<std::size_t>(e.der.objindex[k]) * np + static_cast<std::size_t>(e.der.wrtindex[k])] =
        e.der.der.s[k];
  e.program = engine::cmpspec(*n.gcmp, outputs);
}

} // namespace

// An expression of estimates is a function of the parameters: no random effects (33), no data or unknown names (38).
void parameters_only(NX& n, const char* statement, const engine::CMPSYM* symbol, syntax::Position where)
{
  const auto inputs = engine::cmpdeps(*n.gcmp, symbol);
  for (const engine::CMPSYM* input : inputs)
    if (input->random_effect >= 0) refuse_name(n, statement, *input, where);
  for (const engine::CMPSYM* input : inputs)
    if (input->parameter < 0) refuse_name(n, statement, *input, where);
}

void refuse_unknown_names(NX& n, const engine::CMPSYM* symbol, syntax::Position where)
{
  for (const engine::CMPSYM* input : engine::cmpdeps(*n.gcmp, symbol)) {
    if (input->resolved) continue;
    std::vector<std::string> names = n.fid->column_names();
    for (const auto& p : n.parmstr) names.push_back(p.parmname);
    n.host->log().xpmlog(
        message::predict_of_unknown_name{.name = input->name, .near = host::nearest_name(input->name, names)},
        place_at(n, "PREDICT", where));
    tvlexit(n, 3000);
  }
}

void read_expression_statements(NX& n)
{
  for (const auto& stmt : n.proc->statements) {
    if (stmt.name == "CONTRAST") n.contrasts.push_back(read_statement(n, stmt, "CONTRAST"));
    if (stmt.name == "ESTIMATE") n.estimates.push_back(read_statement(n, stmt, "ESTIMATE"));
  }
}

void specialise_expression_statements(NX& n)
{
  for (auto& e : n.contrasts) specialise(n, e);
  for (auto& e : n.estimates) specialise(n, e);
}

} // namespace torvale::run
