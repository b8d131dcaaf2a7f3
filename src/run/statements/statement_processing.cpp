#include "run/statements/statement_processing.h"

#include "evaluation/likelihood_programs.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "inference/outputs/fit_outputs.h"
#include "inference/outputs/method_outputs.h"
#include "model/unused_parameters.h"
#include "run/statements/idle_options.h"
#include "syntax/statement_names.h"
#include "syntax/tree.h"
#include "syntax/walk.h"

#include <algorithm>
#include <array>

namespace torvale::run {

using model::ModelLists;
using model::NX;
using syntax::STMT;
using syntax::torvale_slot;

host::MessagePlace place_at(const ModelLists& n, const char* statement, syntax::Position where)
{
  return n.sources->place(statement, where);
}

int log_diagnostics(NX& n)
{
  int errors = 0;
  for (const auto& d : engine::cmpdiagnostics(*n.gcmp)) {
    host::Message message;
    message.group = 200;
    message.number = d.number;
    message.severity = d.severity == engine::Diagnostic::Severity::note      ? host::Severity::note
                       : d.severity == engine::Diagnostic::Severity::warning ? host::Severity::warning
                                                                             : host::Severity::error;
    message.text = d.text;
    // The place stands below warnings and errors; a note has it in its words, as a statement not of the user's has.
    if (d.where.line > 0 && (message.severity == host::Severity::note || n.sources->source(d.where.source).generated))
      message.text += " (" + n.sources->describe(d.where) + ")";
    const auto place = n.sources->place({}, d.where);
    message.file = place.program;
    message.line = place.line;
    message.column = place.column;
    message.source = place.source;
    if (message.severity == host::Severity::error) ++errors;
    if (message.severity == host::Severity::warning) n.raise(4);
    n.host->log().post(std::move(message));
  }
  return errors;
}

bool reserved_name(std::string_view name)
{
  static constexpr std::array reserved = {"_ll", "_resid", "_var", "_df", "_df2",    "_lc", "_r",    "_m",    "_p",
                                          "_x",  "_n",     "_a",   "_b",  "_lambda", "_y",  "_arg1", "_arg2", "_arg3"};
  return std::any_of(reserved.begin(), reserved.end(), [&](const char* r) { return host::equal_names(r, name); });
}

void tvlexit(NX& n, int return_code)
{
  n.raise(return_code);
  host::xexit(return_code, 0);
}

namespace {

// SUBGRADIENT= and OUTQ=.
void method_outputs(NX& n, const STMT& procedure)
{
  if (const auto& out = procedure.slot(torvale_slot::outq).list; !out.empty()) n.outq = &out[0];
  if (const auto& out = procedure.slot(torvale_slot::subgradient).list; !out.empty()) n.outsg = &out[0];
  if (n.outsg == nullptr || n.method == 0 || n.method == 3) return;
  n.host->log().xpmlog(message::subgradient_needs_quadrature,
                       place_at(n, "TORVALE", procedure.slot(torvale_slot::subgradient).where));
  tvlexit(n, 3000);
}

// BY variables are read from the data set.
void by_variables(NX& n)
{
  for (const host::ByVariable& variable : n.bylist) {
    if (n.fid->find(variable.name) != nullptr) continue;
    n.host->log().xpmlog(
        message::role_variable_not_in_data{
            .role = "BY", .name = variable.name, .near = host::nearest_name(variable.name, n.fid->column_names())},
        place_at(n, "BY", n.proc->statements.front().slot(torvale_slot::by).where));
    tvlexit(n, 3000);
  }
}

// Data variables that the distribution arguments depend on: they must not change within a subject.
void distribution_data(ModelLists& n)
{
  for (auto& reff : n.reff)
    for (const auto* argument : reff.distrsym.s)
      for (const auto* input : engine::cmpdeps(*n.gcmp, argument))
        if (input->dsvarno > 0 && std::find(reff.rhs.begin(), reff.rhs.end(), input->dsvarno) == reff.rhs.end())
          reff.rhs.push_back(input->dsvarno);
}

// A PARMS name that nothing uses is the other half of a typing mistake.
void warn_unused_parameters(NX& n)
{
  for (const auto& p : n.parmstr) {
    if (!model::unused(n, p)) continue;
    n.host->log().xpmlog(message::parameter_unused{.name = p.parmname});
    n.raise(4);
  }
}

// Texts of the data have the length that they have.
void warn_of_lengths(NX& n)
{
  for (const auto* const s : n.proc->program.statements) {
    if (s->kind != syntax::StatementKind::attributes) continue;
    const auto& declared = *static_cast<const syntax::AttributeDeclaration*>(s);
    if (!declared.has_length) continue;
    for (const std::string_view name : declared.names) {
      const auto* const symbol = engine::cmpsyms(*n.gcmp, name);
      if (n.fid->xvfind(name) == host::DataSet::npos || (symbol != nullptr && symbol->assigned)) continue;
      n.host->log().xpmlog(message::length_of_data_variable{.name = name}, place_at(n, "LENGTH", s->where));
      n.raise(4);
    }
  }
}

// What PREDICT, ESTIMATE and the like, and ID, read of the program is used, though their expressions are compiled
// later.
void note_later_uses(NX& n)
{
  const auto use = [&](std::string_view name) {
    if (auto* const symbol = engine::cmpsyms(*n.gcmp, name); symbol != nullptr && symbol->assigned) symbol->used = true;
  };
  for (const auto& stmt : n.proc->statements)
    for (const auto& list : stmt.fld)
      for (const auto& item : list.list) {
        if (stmt.name == "TORVALE" && !item.text.empty()) use(item.text);
        if (item.expr == nullptr) continue;
        syntax::each_expression(item.expr, [&](const syntax::Expr& e) {
          if (e.kind == syntax::ExprKind::variable) use(e.name);
        });
      }
}

void end_on_errors(NX& n, int return_code)
{
  if (log_diagnostics(n) > 0) tvlexit(n, return_code);
}

} // namespace

void tvlinit(NX& n)
{
  const STMT& procedure = n.proc->statements.front();
  procedure_options(n, procedure);
  note_idle_options(n, procedure);

  n.gcmp = engine::cmpinit({n.sources, static_cast<std::uint64_t>(n.seed)});
  engine::cmpprogram(*n.gcmp, n.proc->program);
  end_on_errors(n, 1012);

  by_variables(n);
  model_statement(n);
  refuse_character_dependent(n);
  parameter_setup(n);
  sampling_statement(n);
  random_statements(n, procedure);
  method_outputs(n, procedure);
  replicate_statement(n);
  optimizer_setup(n, procedure);
  grid_size(n);
  sampling_needs(n);
  dependent_variable(n);
  if (n.llsym == nullptr) tvlexit(n, 3000);
  if (const auto at = n.fid->xvfind(n.depname); !(n.depsym != nullptr && n.depsym->assigned))
    n.depsym = engine::cmpsymg(*n.gcmp, n.depname, static_cast<int>(at) + 1, 'n');

  note_later_uses(n);
  int undefined = 0, unused = 0, faults = 0;
  engine::cmpchck(*n.gcmp, undefined, unused, faults);
  const int errors = log_diagnostics(n);
  if (undefined > 0 || faults > 0 || errors > 0) tvlexit(n, 1012);

  if (const int rc = evaluation::build_programs(n); rc != 0) {
    log_diagnostics(n);
    tvlexit(n, rc);
  }
  read_expression_statements(n);
  read_prediction_statements(n);
  read_sampling_statements(n);
  distribution_data(n);
  refuse_modelled_replicate(n);
  warn_unused_parameters(n);
  warn_of_lengths(n);
  n.nlag = engine::cmppdv(*n.gcmp).nlag;
  if (engine::cmpgen(*n.gcmp) != 0) {
    log_diagnostics(n);
    tvlexit(n, 1012);
  }
  if (const int rc = evaluation::specialise_programs(n); rc != 0) tvlexit(n, rc);
  specialise_expression_statements(n);
  specialise_prediction_statements(n);
  specialise_sampling_statements(n);
  end_on_errors(n, 1012);
  listings(n);
  if (const int rc = inference::open_fit_outputs(n); rc != 0) tvlexit(n, rc);
  if (const int rc = inference::open_method_outputs(n); rc != 0) tvlexit(n, rc);
  if (n.host->libraries().check_outputs(n.host->log()) != 0) tvlexit(n, 3000);
}

} // namespace torvale::run
