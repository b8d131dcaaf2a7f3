#include "integration/small_model.h"

#include "evaluation/likelihood_programs.h"
#include "integration/objective.h"
#include "integration/rules/quadrature_points.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <map>
#include <numeric>
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

Term::Term(double number)
    : node_(std::make_shared<Node>(Node{syntax::ExprKind::number, syntax::Op::none, number, {}, {}}))
{
}
Term::Term(const char* name)
    : node_(std::make_shared<Node>(Node{syntax::ExprKind::variable, syntax::Op::none, 0.0, name, {}}))
{
}

Term Term::call(const char* function, std::vector<Term> arguments)
{
  Term t(0.0);
  t.node_ = std::make_shared<Node>(Node{syntax::ExprKind::call, syntax::Op::none, 0.0, function, std::move(arguments)});
  return t;
}

Term Term::choose(const Term& condition, const Term& yes, const Term& no)
{
  Term t(0.0);
  t.node_ = std::make_shared<Node>(Node{syntax::ExprKind::conditional, syntax::Op::none, 0.0, {}, {condition, yes, no}});
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
  for (const Level& level : text.all_levels())
    for (const Term& t : level.prior) arguments.push_back(t.build(n.arena));
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
  if (n.method == 1) {
    n.depsym = symbol("y");
    n.meansym = symbol("eta");
    n.variancesym = symbol("var");
  }
  const auto levels = text.all_levels();
  n.reff.resize(levels.size());
  auto argument = arguments.begin();
  int effects = 0;
  for (std::size_t k = 0; k < levels.size(); ++k) {
    auto& reff = n.reff[levels.size() - 1 - k];
    reff.names = levels[k].effects;
    reff.nr = static_cast<int>(reff.names.size());
    reff.nrs = reff.nr * (reff.nr + 1) / 2;
    reff.distrtype = n.method == 4 ? 8 : 0;
    reff.nd = n.method == 4 ? static_cast<int>(levels[k].prior.size()) : reff.nr + reff.nrs;
    reff.npr = reff.nr + n.nparm;
    reff.prsym = n.prsym;
    for (const std::string& name : reff.names) {
      reff.ransym.s.push_back(symbol(name));
      engine::cmpran(g, reff.ransym.s.back(), effects++);
      reff.prsym.s.push_back(reff.ransym.s.back());
    }
    for (int a = 0; a < reff.nd; ++a) reff.distrsym.s.push_back(engine::cmpsite(g, *argument++));
  }
}

bool names_subjects(const ModelText& text, const std::string& column)
{
  const auto levels = text.all_levels();
  return column == "subject" ||
         std::any_of(levels.begin(), levels.end(), [&](const Level& l) { return l.subject == column; });
}

// Per row its subject's number at every level, the outermost first: those within one parent by first appearance.
std::vector<std::vector<int>> subject_numbers(const ModelText& text, std::size_t rows)
{
  std::vector<std::vector<int>> chain(rows);
  for (const Level& level : text.all_levels()) {
    const auto column =
        std::find_if(text.columns.begin(), text.columns.end(), [&](const auto& c) { return c.first == level.subject; });
    std::map<std::vector<int>, std::vector<double>> known; // values within each chain of parents
    for (std::size_t row = 0; row < rows; ++row) {
      auto& values = known[chain[row]];
      const auto at = std::find(values.begin(), values.end(), column->second[row]);
      chain[row].push_back(static_cast<int>(at - values.begin()));
      if (at == values.end()) values.push_back(column->second[row]);
    }
  }
  return chain;
}

// Row r of the store belongs to the subject with this chain: a new subject at the levels where it differs from the one
// before.
void add_to_subjects(Run& n, const std::vector<int>& chain, const std::vector<int>& before, std::size_t r,
                     const ModelText& text, std::size_t row)
{
  bool fresh = r == 0;
  for (std::size_t k = n.reff.size(); k-- > 0;) {
    auto& subjects = n.reff[k].SubInfo;
    const std::size_t depth = n.reff.size() - 1 - k;
    fresh = fresh || chain[depth] != before[depth];
    if (fresh) {
      model::SUBINFO s;
      s.ranind = static_cast<std::int16_t>(k);
      s.index = static_cast<int>(subjects.size());
      s.first_row = s.fvalidobs = static_cast<std::int32_t>(r);
      if (k + 1 < n.reff.size()) {
        s.parent = static_cast<int>(n.reff[k + 1].SubInfo.size()) - 1;
        auto& parent = n.reff[k + 1].SubInfo.back();
        if (parent.last_child == 0) parent.first_child = s.index;
        parent.last_child = s.index + 1;
      }
      subjects.push_back(s);
    }
    auto& s = subjects.back();
    s.used = ++s.SubCount;
    s.lvalidobs = static_cast<std::int32_t>(r);
    if (!text.weights.empty()) s.weight = text.weights[row];
  }
}

void fill_store(Run& n, const ModelText& text)
{
  n.store = std::make_unique<Store>();
  Store& store = *n.store;
  store.datapool = host::xmpoolc("test data");
  const std::size_t rows = text.columns.at(0).second.size();
  const auto chain = subject_numbers(text, rows);
  std::vector<std::size_t> order(rows);
  std::iota(order.begin(), order.end(), 0U);
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return chain[a] < chain[b]; });
  store.nobs = store.nobsu = static_cast<std::int64_t>(rows);
  int dsvarno = 0;
  for (const auto& [name, values] : text.columns) {
    if (names_subjects(text, name)) continue;
    const auto column = store.datapool->doubles(rows);
    for (std::size_t r = 0; r < rows; ++r) column[r] = values[order[r]];
    store.view.columns.push_back({++dsvarno, column.data(), nullptr, nullptr});
  }
  store.badobs.assign(rows, model::BadCause::none);
  for (std::size_t r = 0; r < rows; ++r) {
    const std::size_t row = order[r];
    const auto& before = chain[order[r == 0 ? 0 : r - 1]];
    const bool first = r == 0 || chain[row] != before;
    store.subject_start.push_back(first ? static_cast<std::int32_t>(r) : store.subject_start.back());
    store.group_order.push_back(static_cast<std::int32_t>(row));
    if (!text.weights.empty()) store.replicate.push_back(text.weights[row]);
    add_to_subjects(n, chain[row], before, r, text, row);
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
  n->adaptive = rule.adaptive && rule.method != 4 && !text.all_levels().empty();
  n->adscale = rule.adscale && n->adaptive;
  n->fd = rule.fd;
  n->nqp = rule.points;
  n->seed = 12345;
  n->command_threads = rule.threads;
  n->wants_effects = rule.effects_wanted;
  n->ebiter = rule.take_turns;
  n->lb = rule.method == 1 && rule.adaptive;

  n->gcmp = engine::cmpinit({});
  const auto arguments = add_statements(*n, text);
  require(engine::cmpprogram(*n->gcmp, n->program), "cmpprogram");
  std::vector<engine::DataVariable> variables;
  for (const auto& [name, values] : text.columns)
    if (!names_subjects(text, name)) variables.push_back({name, false, 8});
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

int evaluate_anew(NX& n)
{
  integration::forget_evaluation(n);
  return integration::tvllike(n);
}

double objective(NX& n, const std::vector<double>& theta, bool gradient)
{
  n.parm = theta;
  n.dograd = gradient;
  evaluate_anew(n);
  return n.objfun;
}

} // namespace torvale::tests
