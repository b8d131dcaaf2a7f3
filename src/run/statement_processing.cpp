#include "run/statement_processing.h"

#include "evaluation/likelihood_programs.h"
#include "host/text.h"
#include "inference/fit_outputs.h"
#include "syntax/tree.h"

#include <algorithm>
#include <array>

namespace torvale::run {

using model::NX;
using syntax::STMT;

host::MessagePlace place_at(const NX& n, const char* statement, syntax::Position where)
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
    if (d.where.line > 0) message.text += " (" + n.sources->describe(d.where) + ")";
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
    log.xpmlog(503, 2, {}, place_at(n, "TORVALE", n.proc->statements.front().where));
    tvlexit(n, 3000);
  }
  if (count > 1) {
    log.xpmlog(503, 12, {{"statement", "MODEL"}}, place_at(n, "MODEL", stmt->where));
    tvlexit(n, 3000);
  }
  n.disttype = static_cast<int>(stmt->number_or(4, 0));
  if (stmt->slot(1).list.size() != 1) {
    log.xpmlog(503, 2, {}, place_at(n, "MODEL", stmt->where));
    tvlexit(n, 3000);
  }
  n.depname = stmt->slot(1).list[0].text;
  n.llsym = engine::cmpsyms(*n.gcmp, "_ll");
}

namespace {

// Two statements of a kind that may stand once.
void refuse_second(NX& n, const char* word)
{
  STMT* stmt = nullptr;
  if (syntax::FindStmt(*n.proc, word, &stmt) < 2) return;
  n.host->log().xpmlog(503, 12, {{"statement", word}}, place_at(n, word, stmt->where));
  tvlexit(n, 3000);
}

// The statements and options of this version's language that the run cannot serve end it with a message: never a fit
// without them.
void refuse_unserved(NX& n)
{
  const auto refuse = [&](const char* what, const char* statement, syntax::Position where) {
    n.host->log().xpmlog(503, 9330, {{"what", what}}, place_at(n, statement, where));
    tvlexit(n, 3000);
  };
  const STMT& procedure = n.proc->statements.front();
  for (const auto& stmt : n.proc->statements) {
    if (stmt.name == "MCMC") refuse(stmt.name.c_str(), stmt.name.c_str(), stmt.where);
    if (stmt.name == "RANDOM" && (stmt.given(9) || stmt.given(10))) refuse("OUT= of RANDOM", "RANDOM", stmt.where);
  }
  if (procedure.given(93)) refuse("SUBGRADIENT=", "TORVALE", procedure.slot(93).where);
  if (procedure.given(89)) refuse("OUTQ=", "TORVALE", procedure.slot(89).where);
  if (procedure.given(98)) refuse("OUTR=", "TORVALE", procedure.slot(98).where);
  if (n.method == 1) refuse("METHOD=FIRO", "TORVALE", procedure.slot(5).where);
  if (n.method == 2) refuse("METHOD=HARDY", "TORVALE", procedure.slot(5).where);
}

void dependent_variable(NX& n)
{
  auto& log = n.host->log();
  STMT* stmt = nullptr;
  syntax::FindStmt(*n.proc, "MODEL", &stmt);
  const auto place = place_at(n, "MODEL", stmt->slot(1).list[0].where);
  n.depsym = engine::cmpsyms(*n.gcmp, n.depname);
  const host::Column* column = n.fid->find(n.depname);
  const bool known = column != nullptr || (n.depsym != nullptr && n.depsym->assigned);
  if (!known) {
    host::MessageArguments arguments = {{"name", n.depname}, {"data", n.data_name}};
    if (const std::string nearest = host::nearest_name(n.depname, n.fid->column_names()); !nearest.empty())
      arguments.emplace_back("near", nearest);
    log.xpmlog(503, 5, arguments, place);
    tvlexit(n, 3000);
  }
  if ((n.depsym != nullptr && n.depsym->type == 'c') ||
      (n.depsym != nullptr && !n.depsym->assigned && column != nullptr && !column->numeric())) {
    log.xpmlog(503, 39, {{"name", n.depname}}, place);
    tvlexit(n, 3000);
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
      log.xpmlog(503, 331, {}, place_at(n, "TORVALE", procedure.slot(5).where));
      tvlexit(n, 3000);
    }
    if (n.empirical) {
      log.xpmlog(503, 141, {}, place_at(n, "TORVALE", procedure.where));
      tvlexit(n, 3000);
    }
    n.method = 0;
    n.adaptive = n.adscale = false;
    n.nqp = 1;
    return;
  }
  if (statements.size() > 1) {
    if (n.method != 0)
      log.xpmlog(503, 501, {}, place_at(n, "RANDOM", statements[1]->where));
    else
      log.xpmlog(503, 9330, {{"what", "a second RANDOM statement"}}, place_at(n, "RANDOM", statements[1]->where));
    tvlexit(n, 3000);
  }
  n.reff.resize(1);
  readrandom(n, *statements[0], n.leaf());
  STMT* prediction = nullptr;
  n.wants_effects = n.leaf().outeb != nullptr || syntax::FindStmt(*n.proc, "PREDICT", &prediction) > 0;
  n.leaf().prsym.s = n.prsym.s;
  for (auto* symbol : n.leaf().ransym.s) n.leaf().prsym.s.push_back(symbol);
  if (n.empirical && n.method != 0 && n.method != 3) {
    log.xpmlog(503, 143, {}, place_at(n, "TORVALE", procedure.where));
    tvlexit(n, 3000);
  }
}

void replicate_statement(NX& n)
{
  refuse_second(n, "REPLICATE");
  STMT* stmt = nullptr;
  if (syntax::FindStmt(*n.proc, "REPLICATE", &stmt) == 0) return;
  if (stmt->slot(1).list.size() != 1) tvlexit(n, 3000);
  const auto& item = stmt->slot(1).list[0];
  n.repname = item.text;
  n.repsym = engine::cmpsyms(*n.gcmp, item.text);
  const auto at = n.fid->xvfind(item.text);
  const bool computed = n.repsym != nullptr && n.repsym->assigned;
  const bool usable = computed || (at != host::DataSet::npos && n.fid->columns()[at].numeric());
  if (!usable) {
    n.host->log().xpmlog(503, 22, {{"name", item.text}, {"data", n.data_name}}, place_at(n, "REPLICATE", item.where));
    tvlexit(n, 3000);
  }
  if (!computed) n.repsym = engine::cmpsymg(*n.gcmp, item.text, static_cast<int>(at) + 1, 'n');
  n.repsym->used = true; // the data pass reads it, whether the program does or not
}

// Data variables that the distribution arguments depend on: they must not change within a subject.
void distribution_data(NX& n)
{
  for (const auto& reff : n.reff)
    for (const auto* argument : reff.distrsym.s)
      for (const auto* input : engine::cmpdeps(*n.gcmp, argument))
        if (input->dsvarno > 0 && std::find(n.rhs.begin(), n.rhs.end(), input->dsvarno) == n.rhs.end())
          n.rhs.push_back(input->dsvarno);
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
    n.host->log().xpmlog(503, 9331, {{"name", p.parmname}});
    n.raise(4);
  }
}

void listings(NX& n)
{
  const auto show = [&](const std::string& text) {
    std::size_t from = 0;
    while (from < text.size()) {
      const std::size_t end = std::min(text.find('\n', from), text.size());
      n.host->xpsout(std::string_view(text).substr(from, end - from));
      from = end + 1;
    }
  };
  if (n.list) show(engine::cmppprg(*n.gcmp));
  if (n.xref) show(engine::cmpxref(*n.gcmp));
  if (n.listcode) {
    show("Code Listing");
    show(engine::cmppsts(*n.gcmp));
  }
  if (n.listdep) show(engine::cmppdep(*n.gcmp));
  if (!n.listder) return;
  if (n.nreff() == 0) show(engine::cmppder(*n.gcmp, n.gradstr));
  for (const auto& r : n.reff)
    for (const auto* der : {&r.gradstr, &r.gradrstr, &r.hessustr, &r.triustr}) show(engine::cmppder(*n.gcmp, *der));
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

  n.gcmp = engine::cmpinit({n.sources, static_cast<std::uint64_t>(n.seed)});
  engine::cmpprogram(*n.gcmp, n.proc->program);
  end_on_errors(n, 1012);

  refuse_unserved(n);
  model_statement(n);
  parameter_setup(n);
  random_statements(n, procedure);
  replicate_statement(n);
  optimizer_setup(n, procedure);
  grid_size(n);
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
  distribution_data(n);
  warn_unused_parameters(n);
  n.nlag = engine::cmppdv(*n.gcmp).nlag;
  if (engine::cmpgen(*n.gcmp) != 0) {
    log_diagnostics(n);
    tvlexit(n, 1012);
  }
  if (const int rc = evaluation::specialise_programs(n); rc != 0) tvlexit(n, rc);
  specialise_expression_statements(n);
  specialise_prediction_statements(n);
  end_on_errors(n, 1012);
  listings(n);
  if (inference::open_fit_outputs(n) != 0) tvlexit(n, 1016);
}

} // namespace torvale::run
