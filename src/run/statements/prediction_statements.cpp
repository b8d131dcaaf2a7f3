// PREDICT: an expression of parameters, random effects and data, evaluated at every record after the fit.

#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "inference/outputs/response_moments.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"

namespace torvale::run {

using model::ModelLists;
using model::NX;
using model::PredictStatement;
using syntax::predict_flag;
using syntax::predict_slot;
using syntax::STMT;

namespace {

engine::CMPLIST parameters_and_effects(const ModelLists& n)
{
  engine::CMPLIST variables = n.prsym;
  for (std::size_t level = n.reff.size(); level > 0; --level)
    for (auto* effect : n.reff[level - 1].ransym.s) variables.s.push_back(effect);
  return variables;
}

// OUTFIT=: the arguments of the MODEL distribution, by the names that the MODEL statement gives them.
void read_fitted_request(NX& n)
{
  if (n.fitted.out == nullptr) return;
  for (int k = 1; k <= inference::response_arguments(n.disttype); ++k)
    n.fitted.arguments.s.push_back(engine::cmpsyms(*n.gcmp, "_arg" + std::to_string(k)));
  if (engine::cmpder(n.fitted.der, n.fitted.arguments, parameters_and_effects(n), *n.gcmp) != 0) {
    log_diagnostics(n);
    tvlexit(n, 1012);
  }
}

PredictStatement read_statement(NX& n, const STMT& stmt)
{
  PredictStatement p;
  p.where = stmt.where;
  const auto& expressions = stmt.slot(predict_slot::expression).list;
  if (expressions.size() != 1) {
    n.host->log().xpmlog(message::predict_needs_one_expression, place_at(n, "PREDICT", stmt.where));
    tvlexit(n, 1012);
  }
  p.value = engine::cmpexpr(*n.gcmp, expressions[0].expr);
  // Variables that nothing else uses are bound here.
  if (engine::cmprslv(*n.gcmp, data_variables(n)) != 0 || log_diagnostics(n) > 0) tvlexit(n, 1012);
  refuse_unknown_names(n, p.value, stmt.where);
  p.alpha = stmt.number_or(predict_slot::alpha, -1);
  p.df = stmt.number_or(predict_slot::df, -1);
  p.derivatives = stmt.flag(predict_flag::der);
  if (const auto& out = stmt.slot(predict_slot::out).list; !out.empty()) p.out = &out[0];
  if (engine::cmpder(p.der, engine::CMPLIST{{p.value}}, parameters_and_effects(n), *n.gcmp) != 0) {
    log_diagnostics(n);
    tvlexit(n, 1012);
  }
  return p;
}

// ID: a variable of the input is in every prediction anyway; one of the program is added.
void read_id_variables(NX& n)
{
  for (const auto& item : n.proc->statements.front().slot(syntax::torvale_slot::id).list) {
    if (n.fid->find(item.text) != nullptr) continue;
    engine::CMPSYM* const symbol = engine::cmpsyms(*n.gcmp, item.text);
    const auto place = place_at(n, "ID", item.where);
    if (symbol == nullptr) {
      n.host->log().xpmlog(
          message::role_variable_not_in_data{
              .role = "ID", .name = item.text, .near = host::nearest_name(item.text, n.fid->column_names())},
          place);
      tvlexit(n, 3000);
    }
    if (symbol->type == 'c') {
      n.host->log().xpmlog(message::id_is_character{.name = item.text}, place);
      tvlexit(n, 3000);
    }
    n.idsym.s.push_back(symbol);
  }
}

} // namespace

void read_prediction_statements(NX& n)
{
  read_id_variables(n);
  read_fitted_request(n);
  for (const auto& stmt : n.proc->statements)
    if (stmt.name == "PREDICT") n.predictions.push_back(read_statement(n, stmt));
}

void specialise_prediction_statements(ModelLists& n)
{
  if (n.fitted.out != nullptr) {
    std::vector<engine::CMPSYM*> outputs = {n.depsym};
    outputs.insert(outputs.end(), n.fitted.arguments.s.begin(), n.fitted.arguments.s.end());
    outputs.insert(outputs.end(), n.fitted.der.der.s.begin(), n.fitted.der.der.s.end());
    n.fitted.program = engine::cmpspec(*n.gcmp, outputs);
  }
  for (PredictStatement& p : n.predictions) {
    std::vector<engine::CMPSYM*> outputs = {p.value};
    for (std::size_t k = 0; k < p.der.der.s.size(); ++k) {
      outputs.push_back(p.der.der.s[k]);
      p.list.push_back(p.der.wrtindex[k]);
    }
    outputs.insert(outputs.end(), n.idsym.s.begin(), n.idsym.s.end());
    p.program = engine::cmpspec(*n.gcmp, outputs);
  }
}

} // namespace torvale::run
