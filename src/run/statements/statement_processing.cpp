#include "run/statements/statement_processing.h"

#include "evaluation/likelihood_programs.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "inference/outputs/fit_outputs.h"
#include "inference/outputs/method_outputs.h"
#include "run/statements/idle_options.h"
#include "syntax/statement_names.h"
#include "syntax/tree.h"

#include <algorithm>
#include <array>

namespace torvale::run {

using model::ModelLists;
using model::NX;
using syntax::model_slot;
using syntax::replicate_slot;
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

namespace {

// Two statements of a kind that may stand once.
void refuse_second(NX& n, const char* word)
{
  STMT* stmt = nullptr;
  if (syntax::FindStmt(*n.proc, word, &stmt) < 2) return;
  n.host->log().xpmlog(message::repeated_statement{.statement = word}, place_at(n, word, stmt->where));
  tvlexit(n, 3000);
}

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

host::MessagePlace dependent_place(const NX& n)
{
  STMT* stmt = nullptr;
  syntax::FindStmt(*n.proc, "MODEL", &stmt);
  return place_at(n, "MODEL", stmt->slot(model_slot::dependent).list[0].where);
}

// The first text of the column that is no number; where no text is one, how a number is made of them.
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
  if (!numbers) out.test = name + " = '" + column.text(first) + "'";
  return out;
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
    if (p.sym->used) continue;
    bool used = false;
    for (const auto* list : {&n.estimates, &n.contrasts})
      for (const auto& e : *list)
        for (const auto* symbol : e.expr.s) used = used || engine::cmpcdep(*n.gcmp, symbol, p.sym);
    for (const auto& r : n.reff)
      for (const auto* symbol : r.distrsym.s) used = used || engine::cmpcdep(*n.gcmp, symbol, p.sym);
    if (used || engine::cmpcdep(*n.gcmp, n.llsym, p.sym)) continue;
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

void list_derivatives(NX& n)
{
  const auto show = [&](const std::string& title, std::initializer_list<const engine::CMPDER*> requests) {
    std::string text;
    for (const auto* der : requests) text += engine::cmppder(*n.gcmp, *der);
    if (!text.empty()) n.host->list_program(title, std::move(text));
  };
  if (n.nreff() == 0) show("Derivatives of the Log Likelihood", {&n.gradstr});
  for (const auto& r : n.reff) {
    const std::string level = n.nreff() > 1 ? ", " + r.subname : "";
    show("Derivatives of the Log Likelihood" + level, {&r.gradstr});
    show("Second Derivatives of the Log Likelihood" + level, {&r.hessustr});
    show("Third Derivatives of the Log Likelihood" + level, {&r.triustr});
    show("Derivatives of the Random-Effects Distribution" + level, {&r.gradrstr});
  }
  for (const auto& e : n.estimates) show("Derivatives of ESTIMATE '" + e.label + "'", {&e.der});
  for (const auto& c : n.contrasts) show("Derivatives of CONTRAST '" + c.label + "'", {&c.der});
  for (const auto& p : n.predictions) show("Derivatives of PREDICT " + p.value->name, {&p.der});
}

void listings(NX& n)
{
  if (n.list) n.host->list_program("Program Statements", engine::cmppprg(*n.gcmp));
  if (n.xref) n.host->list_program("Cross-Reference", engine::cmpxref(*n.gcmp));
  if (n.listcode) n.host->list_program("Code Listing", engine::cmppsts(*n.gcmp));
  if (n.listdep) n.host->list_program("Dependencies", engine::cmppdep(*n.gcmp));
  if (n.listder) list_derivatives(n);
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
  if (inference::open_fit_outputs(n) != 0 || inference::open_method_outputs(n) != 0) tvlexit(n, 1016);
}

} // namespace torvale::run
