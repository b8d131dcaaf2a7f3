#include "engine/plain_evaluator.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace torvale::test {

using namespace syntax;

namespace {

const double missing = std::nan("");

std::string lower(std::string_view s)
{
  std::string out(s);
  for (char& c : out) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return out;
}

bool truth(double v)
{
  return v != 0.0 && !std::isnan(v);
}

// Order of values: missing below every number, equal to itself.
int order(double a, double b)
{
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b) ? 0 : std::isnan(a) ? -1 : 1;
  return a < b ? -1 : a > b ? 1 : 0;
}

bool compares(Op op, double a, double b)
{
  const int c = order(a, b);
  switch (op) {
  case Op::less:
    return c < 0;
  case Op::less_equal:
    return c <= 0;
  case Op::greater:
    return c > 0;
  case Op::greater_equal:
    return c >= 0;
  case Op::equal:
    return c == 0;
  default:
    return c != 0;
  }
}

} // namespace

double PlainEvaluator::faulty()
{
  ++faults;
  return missing;
}

double PlainEvaluator::value(const Expr& e)
{
  const auto arg = [&](std::size_t k) { return value(*e.args[k]); };
  switch (e.kind) {
  case ExprKind::number:
    return e.number;
  case ExprKind::variable: {
    const auto it = variables.find(lower(e.name));
    return it == variables.end() ? missing : it->second;
  }
  case ExprKind::element:
    return place(e);
  case ExprKind::unary: {
    const double a = arg(0);
    return e.op == Op::not_ ? static_cast<double>(!truth(a)) : e.op == Op::minus ? -a : a;
  }
  case ExprKind::conditional:
    return truth(arg(0)) ? arg(1) : arg(2);
  case ExprKind::chain:
    for (std::size_t k = 0; k < e.ops.size(); ++k)
      if (!compares(e.ops[k], arg(k), arg(k + 1))) return 0.0;
    return 1.0;
  case ExprKind::in_list:
    for (std::size_t k = 1; k + 1 < e.args.size(); k += 2) {
      const bool hit = e.args[k + 1] == nullptr ? order(arg(0), arg(k)) == 0
                                                : order(arg(k), arg(0)) <= 0 && order(arg(0), arg(k + 1)) <= 0;
      if (hit) return e.op == Op::in ? 1.0 : 0.0;
    }
    return e.op == Op::in ? 0.0 : 1.0;
  case ExprKind::call:
    return call(e);
  case ExprKind::binary:
    break;
  default:
    throw std::logic_error("not a number");
  }
  const double a = arg(0), b = arg(1);
  switch (e.op) {
  case Op::and_:
    return truth(a) && truth(b);
  case Op::or_:
    return truth(a) || truth(b);
  case Op::minimum:
    return order(a, b) <= 0 ? a : b;
  case Op::maximum:
    return order(a, b) < 0 ? b : a;
  default:
    break;
  }
  if (e.op >= Op::less && e.op <= Op::not_equal) return compares(e.op, a, b);
  if (std::isnan(a) || std::isnan(b)) return missing;
  switch (e.op) {
  case Op::add:
    return a + b;
  case Op::subtract:
    return a - b;
  case Op::multiply:
    return a * b;
  case Op::divide:
    return b == 0.0 ? faulty() : a / b;
  case Op::power: {
    const double p = std::pow(a, b);
    return std::isnan(p) || (a == 0.0 && b < 0.0) ? faulty() : p;
  }
  default:
    throw std::logic_error("operator");
  }
}

double PlainEvaluator::call(const Expr& e)
{
  const std::string name = lower(e.name);
  std::vector<double> x;
  for (const Expr* const a : e.args) {
    if (a->kind == ExprKind::whole_array)
      for (const std::string& element : arrays.at(lower(a->name))) x.push_back(variables[element]);
    else
      x.push_back(value(*a));
  }
  std::vector<double> present;
  std::copy_if(x.begin(), x.end(), std::back_inserter(present), [](double v) { return !std::isnan(v); });
  if (name == "n") return static_cast<double>(present.size());
  if (name == "nmiss") return static_cast<double>(x.size() - present.size());
  if (name == "missing") return std::isnan(x[0]);
  if (name == "coalesce") return present.empty() ? missing : present[0];
  if (name == "sum" || name == "mean" || name == "min" || name == "max") {
    if (present.empty()) return missing;
    double sum = 0.0;
    for (const double v : present) sum += v;
    if (name == "sum") return sum;
    if (name == "mean") return sum / static_cast<double>(present.size());
    return name == "min" ? *std::min_element(present.begin(), present.end())
                         : *std::max_element(present.begin(), present.end());
  }
  if (present.size() < x.size()) return missing;
  if (name == "exp") return std::exp(x[0]);
  if (name == "log") return x[0] > 0.0 ? std::log(x[0]) : faulty();
  if (name == "sqrt") return x[0] >= 0.0 ? std::sqrt(x[0]) : faulty();
  if (name == "abs") return std::fabs(x[0]);
  if (name == "sin") return std::sin(x[0]);
  if (name == "tanh") return std::tanh(x[0]);
  if (name == "atan") return std::atan(x[0]);
  if (name == "logistic") return 1.0 / (1.0 + std::exp(-x[0]));
  if (name == "floor") return std::floor(x[0]);
  if (name == "lgamma") return std::lgamma(x[0]);
  throw std::logic_error("function " + name);
}

double& PlainEvaluator::place(const Expr& target)
{
  if (target.kind == ExprKind::variable) return variables.try_emplace(lower(target.name), missing).first->second;
  const std::vector<std::string>& elements = arrays.at(lower(target.name));
  const double subscript = value(*target.args[0]);
  return variables.try_emplace(elements.at(static_cast<std::size_t>(subscript) - 1), missing).first->second;
}

void PlainEvaluator::run(const Program& program)
{
  block(Block(program.statements.data(), program.statements.size()));
}

PlainEvaluator::Flow PlainEvaluator::block(Block b)
{
  for (const Statement* const s : b)
    if (const Flow f = statement(s); f != Flow::on) return f;
  return Flow::on;
}

PlainEvaluator::Flow PlainEvaluator::statement(const Statement* s)
{
  if (s == nullptr) return Flow::on;
  switch (s->kind) {
  case StatementKind::assign: {
    const auto& a = static_cast<const Assignment&>(*s);
    const double v = value(*a.value);
    double& to = place(*a.target);
    if (a.form == Assignment::Form::plain)
      to = v;
    else
      to = (std::isnan(to) ? 0.0 : to) + (std::isnan(v) ? 0.0 : v);
    return Flow::on;
  }
  case StatementKind::if_: {
    const auto& x = static_cast<const IfStatement&>(*s);
    return statement(truth(value(*x.condition)) ? x.then_branch : x.else_branch);
  }
  case StatementKind::do_:
    return loop(static_cast<const DoStatement&>(*s));
  case StatementKind::select: {
    const auto& x = static_cast<const SelectStatement&>(*s);
    const double selector = x.selector != nullptr ? value(*x.selector) : 0.0;
    for (const WhenClause& w : x.whens)
      for (const Expr* const v : w.values)
        if (x.selector != nullptr ? order(selector, value(*v)) == 0 : truth(value(*v))) return statement(w.body);
    return statement(x.otherwise);
  }
  case StatementKind::leave:
    return Flow::leave;
  case StatementKind::continue_:
    return Flow::next;
  case StatementKind::return_:
    return Flow::stop;
  case StatementKind::array: {
    const auto& a = static_cast<const ArrayDeclaration&>(*s);
    for (const std::string_view element : a.elements) arrays[lower(a.name)].push_back(lower(element));
    return Flow::on;
  }
  default:
    return Flow::on;
  }
}

PlainEvaluator::Flow PlainEvaluator::loop(const DoStatement& d)
{
  if (d.index == nullptr && d.while_ == nullptr && d.until == nullptr) return block(d.body);
  const auto pass = [&](const Expr* until) { // true: the loop goes on; *out: what ends it
    const Flow f = block(d.body);
    if (f == Flow::leave || f == Flow::stop) return f;
    return until != nullptr && truth(value(*until)) ? Flow::leave : Flow::on;
  };
  if (d.index == nullptr) {
    while (d.while_ == nullptr || truth(value(*d.while_)))
      if (const Flow f = pass(d.until); f != Flow::on) return f == Flow::stop ? f : Flow::on;
    return Flow::on;
  }
  const LoopRange& r = d.ranges[0];
  const double start = value(*r.start), stop = value(*r.stop);
  const double passes = std::floor(stop - start + 1e-9) + 1.0;
  double k = 0.0;
  for (; k < passes; k += 1.0) {
    place(*d.index) = start + k;
    if (r.while_ != nullptr && !truth(value(*r.while_))) return Flow::on;
    if (const Flow f = pass(r.until); f != Flow::on) return f == Flow::stop ? f : Flow::on;
  }
  place(*d.index) = start + std::max(k, 0.0);
  return Flow::on;
}

} // namespace torvale::test
