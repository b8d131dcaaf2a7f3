// ESTIMATE and CONTRAST: expressions of the parameters, evaluated after the whole program.

#include "host/text.h"
#include "run/statement_processing.h"

namespace torvale::run {

using model::EstimateStatement;
using model::NX;
using syntax::STMT;

namespace {

void refuse_name(NX& n, const char* statement, int number, const engine::CMPSYM& input, syntax::Position where)
{
  host::MessageArguments arguments = {{"statement", statement}, {"name", input.name}};
  if (input.random_effect < 0) {
    std::vector<std::string> names;
    for (const auto& p : n.parmstr) names.push_back(p.parmname);
    const std::string nearest = host::nearest_name(input.name, names);
    if (!nearest.empty()) arguments.emplace_back("near", nearest);
  }
  n.host->log().xpmlog(503, number, arguments, place_at(n, statement, where));
  tvlexit(n, 3000);
}

// An expression of estimates is a function of the parameters: no random effects (33), no data or unknown names (38).
void check_inputs(NX& n, const char* statement, const engine::CMPSYM* symbol, syntax::Position where)
{
  for (const engine::CMPSYM* input : engine::cmpdeps(*n.gcmp, symbol)) {
    if (input->parameter < 0) refuse_name(n, statement, input->random_effect >= 0 ? 33 : 38, *input, where);
  }
}

EstimateStatement read_statement(NX& n, const STMT& stmt, const char* word)
{
  EstimateStatement e;
  e.where = stmt.where;
  e.alpha = stmt.number_or(5, -1);
  e.df = stmt.number_or(6, -1);
  e.derivatives = stmt.flag(1);
  for (const auto& item : stmt.slot(2).list) {
    engine::CMPSYM* symbol = engine::cmpexpr(*n.gcmp, item.expr);
    if (log_diagnostics(n) > 0) tvlexit(n, 1012);
    check_inputs(n, word, symbol, item.where);
    e.expr.s.push_back(symbol);
  }
  if (stmt.given(4) && !stmt.slot(4).list.empty()) e.label = stmt.slot(4).list[0].text;
  if (e.label.empty() && e.expr.n() > 0) e.label = engine::cmppnam(e.expr.s[0]);
  if (std::string_view(word) == "ESTIMATE" && e.expr.n() != 1) {
    n.host->log().xpmlog(503, 29, {{"label", e.label}}, place_at(n, word, stmt.where));
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

void refuse_unknown_names(NX& n, const char* statement, const engine::CMPSYM* symbol, syntax::Position where)
{
  for (const engine::CMPSYM* input : engine::cmpdeps(*n.gcmp, symbol))
    if (!input->resolved) refuse_name(n, statement, 38, *input, where);
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
