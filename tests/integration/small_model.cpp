#include "integration/small_model.h"

#include "evaluation/likelihood_programs.h"
#include "integration/objective.h"
#include "integration/quadrature_points.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <stdexcept>

namespace torvale::tests {

using model::NX;
using model::Store;

struct Term::Node {
  syntax::ExprKind kind;
  syntax::Op op = syntax::Op::none;
  double number = 0.0;
  std::string name;
  std::vector<Term> args;
};

Term::Term(double number) : node_(std::make_shared<Node>(Node{syntax::ExprKind::number, syntax::Op::none, number, {}, {}})) {}
Term::Term(const char* name) : node_(std::make_shared<Node>(Node{syntax::ExprKind::variable, syntax::Op::none, 0.0, name, {}})) {}

Term Term::call(const char* function, std::vector<Term> arguments)
{
  Term t(0.0);
  t.node_ = std::make_shared<Node>(Node{syntax::ExprKind::call, syntax::Op::none, 0.0, function, std::move(arguments)});
  return t;
}

Term Term::binary(syntax::Op op, const Term& a, const Term& b)
{
  Term t(0.0);
  t.node_ = std::make_shared<Node>(Node{syntax::ExprKind::binary, op, 0.0, {}, {a, b}});
  return t;
}

syntax::Expr* Term::build(syntax::Arena& arena) const
{
  auto* e = arena.make<syntax::Expr>();
  e->kind = node_->kind;
  e->op = node_->op;
  e->number = node_->number;
  e->name = arena.text(node_->name);
  std::vector<syntax::Expr*> args;
  for (const Term& a : node_->args) args.push_back(a.build(arena));
  const auto copied = arena.copy(args);
  e->args = {copied.data(), copied.size()};
  return e;
}

namespace {

// The tree must outlive the compiler, so it lives beside the record.
struct Run : NX {
  syntax::Arena arena;
  syntax::Program program;
};

std::vector<syntax::Expr*> add_statements(Run& n, const ModelText& text)
{
  for (const auto& [name, value] : text.assignments) {
    auto* s = n.arena.make<syntax::Assignment>();
    s->kind = syntax::StatementKind::assign;
    s->target = Term(name.c_str()).build(n.arena);
    s->value = value.build(n.arena);
    n.program.statements.push_back(s);
  }
  std::vector<syntax::Expr*> arguments;
  for (const Term& t : text.prior) arguments.push_back(t.build(n.arena));
  if (!arguments.empty()) {
    auto* site = n.arena.make<syntax::ExpressionSite>();
    site->kind = syntax::StatementKind::site;
    site->statement = "RANDOM";
    const auto copied = n.arena.copy(arguments);
    site->expressions = {copied.data(), copied.size()};
    n.program.statements.push_back(site);
  }
  return arguments;
}

void name_symbols(Run& n, const ModelText& text, const std::vector<syntax::Expr*>& arguments)
{
  auto& g = *n.gcmp;
  const auto symbol = [&](const std::string& name) {
    auto* s = engine::cmpsyms(g, name);
    return s != nullptr ? s : engine::cmpsymd(g, name, 'v', 'n');
  };
  n.nparm = static_cast<int>(text.parameters.size());
  for (int j = 0; j < n.nparm; ++j) {
    n.prsym.s.push_back(symbol(text.parameters[static_cast<std::size_t>(j)]));
    engine::cmpparm(g, n.prsym.s.back(), j);
  }
  n.llsym = symbol("_ll");
  if (text.effects.empty()) return;
  n.reff.resize(1);
  auto& reff = n.reff[0];
  reff.nr = static_cast<int>(text.effects.size());
  reff.nrs = reff.nr * (reff.nr + 1) / 2;
  reff.nd = reff.nr + reff.nrs;
  reff.npr = reff.nr + n.nparm;
  reff.names = text.effects;
  reff.prsym = n.prsym;
  for (int e = 0; e < reff.nr; ++e) {
    reff.ransym.s.push_back(symbol(reff.names[static_cast<std::size_t>(e)]));
    engine::cmpran(g, reff.ransym.s.back(), e);
    reff.prsym.s.push_back(reff.ransym.s.back());
  }
  for (syntax::Expr* e : arguments) reff.distrsym.s.push_back(engine::cmpsite(g, e));
}

// Rows in subject order, subjects by first appearance.
std::vector<std::size_t> subject_order(const std::vector<double>& subject, std::vector<double>& names)
{
  std::vector<std::size_t> order;
  for (const double s : subject)
    if (std::find(names.begin(), names.end(), s) == names.end()) names.push_back(s);
  for (const double name : names)
    for (std::size_t row = 0; row < subject.size(); ++row)
      if (subject[row] == name) order.push_back(row);
  return order;
}

void fill_store(Run& n, const ModelText& text)
{
  n.store = std::make_unique<Store>();
  Store& store = *n.store;
  store.datapool = host::xmpoolc("test data");
  const std::size_t rows = text.columns.at(0).second.size();
  std::vector<double> subject(rows, 0.0), names;
  for (const auto& [name, values] : text.columns)
    if (name == "subject") subject = values;
  const auto order = subject_order(subject, names);
  store.nobs = store.nobsu = static_cast<std::int64_t>(rows);
  int dsvarno = 0;
  for (const auto& [name, values] : text.columns) {
    if (name == "subject") continue;
    const auto column = store.datapool->doubles(rows);
    for (std::size_t r = 0; r < rows; ++r) column[r] = values[order[r]];
    store.view.columns.push_back({++dsvarno, column.data(), nullptr, nullptr});
  }
  store.badobs.assign(rows, model::BadCause::none);
  for (std::size_t r = 0; r < rows; ++r) {
    const std::size_t row = order[r];
    const bool first = r == 0 || subject[row] != subject[order[r - 1]];
    store.subject_start.push_back(first ? static_cast<std::int32_t>(r) : store.subject_start.back());
    store.file_row.push_back(static_cast<std::int64_t>(row) + 1);
    store.group_row.push_back(static_cast<std::int64_t>(row));
    if (!text.weights.empty()) store.replicate.push_back(text.weights[row]);
    if (n.reff.empty()) continue;
    auto& subjects = n.reff[0].SubInfo;
    if (first) {
      model::SUBINFO s;
      s.index = static_cast<int>(subjects.size());
      s.first_row = s.fvalidobs = static_cast<std::int64_t>(r);
      s.n = subject[row];
      s.prnc = std::to_string(static_cast<int>(subject[row]));
      subjects.push_back(s);
    }
    auto& s = subjects.back();
    s.used = ++s.SubCount;
    s.lvalidobs = static_cast<std::int64_t>(r);
    if (!text.weights.empty()) s.weight = text.weights[row];
  }
  if (n.reff.empty()) std::fill(store.subject_start.begin(), store.subject_start.end(), 0);
  store.view.rows = store.nobs;
  store.view.subject_start = store.subject_start.data();
}

void require(int rc, const char* what)
{
  if (rc != 0) throw std::runtime_error(what);
}

} // namespace

std::shared_ptr<NX> make_run(const ModelText& text, const Rule& rule)
{
  auto n = std::make_shared<Run>();
  n->method = rule.method;
  n->adaptive = rule.adaptive && !text.effects.empty();
  n->adscale = rule.adscale && n->adaptive;
  n->fd = rule.fd;
  n->nqp = rule.points;
  n->seed = 12345;
  n->command_threads = rule.threads;
  n->wants_effects = rule.effects_wanted;

  n->gcmp = engine::cmpinit({});
  const auto arguments = add_statements(*n, text);
  require(engine::cmpprogram(*n->gcmp, n->program), "cmpprogram");
  std::vector<engine::DataVariable> variables;
  for (const auto& [name, values] : text.columns)
    if (name != "subject") variables.push_back({name, false, 8});
  require(engine::cmprslv(*n->gcmp, variables), "cmprslv");
  name_symbols(*n, text, arguments);
  require(evaluation::build_programs(*n), "build_programs");
  require(engine::cmpgen(*n->gcmp), "cmpgen");
  require(evaluation::specialise_programs(*n), "specialise_programs");

  fill_store(*n, text);
  n->bound = engine::cmpbind(*n->gcmp, n->store->view);
  require(parallel::tvltinit(*n), "tvltinit");
  if (!n->reff.empty()) require(integration::tvlqpts(*n), "tvlqpts");
  integration::size_contexts(*n);
  integration::forget_modes(*n);
  return n;
}

double objective(NX& n, const std::vector<double>& theta, bool gradient)
{
  n.parm = theta;
  n.dograd = gradient;
  integration::tvllike(n);
  return n.objfun;
}

} // namespace torvale::tests
