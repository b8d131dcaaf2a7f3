#include "engine/plain_evaluator.h"

#include "host/values/missing.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace torvale::test {

using namespace syntax;

namespace {

const double missing = host::missing;

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

// Order of values: missing values by kind, below every number; texts padded with blanks.
int order(const PlainValue& a, const PlainValue& b)
{
  if (!a.is_text) return host::compare_values(a, b);
  std::string x = a.text, y = b.text;
  x.resize(std::max(x.size(), y.size()), ' ');
  y.resize(x.size(), ' ');
  return x < y ? -1 : x > y ? 1 : 0;
}

bool compares(Op op, const PlainValue& a, const PlainValue& b)
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

PlainValue PlainEvaluator::value(const Expr& e)
{
  const auto arg = [&](std::size_t k) { return value(*e.args[k]); };
  switch (e.kind) {
  case ExprKind::number:
    return e.number;
  case ExprKind::text:
    return std::string(e.name);
  case ExprKind::variable:
  case ExprKind::element:
    return place(e);
  case ExprKind::unary: {
    const double a = arg(0);
    if (e.op == Op::not_) return static_cast<double>(!truth(a));
    return std::isnan(a) ? missing : e.op == Op::minus ? -a : a;
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
  const PlainValue left = arg(0), right = arg(1);
  if (e.op == Op::concatenate) return left.text + right.text;
  if (e.op >= Op::less && e.op <= Op::not_equal) return static_cast<double>(compares(e.op, left, right));
  const double a = left, b = right;
  switch (e.op) {
  case Op::and_:
    return static_cast<double>(truth(a) && truth(b));
  case Op::or_:
    return static_cast<double>(truth(a) || truth(b));
  case Op::minimum:
    return order(a, b) <= 0 ? a : b;
  case Op::maximum:
    return order(a, b) < 0 ? b : a;
  default:
    break;
  }
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

PlainValue PlainEvaluator::call(const Expr& e)
{
  const std::string name = lower(e.name);
  if (const auto it = subprograms_.find(name); it != subprograms_.end()) return subprogram(*it->second, e.args);
  if (name.rfind("lag", 0) == 0 || name.rfind("dif", 0) == 0) return lag(e, name);
  std::vector<PlainValue> given;
  for (const Expr* const a : e.args) {
    if (a->kind == ExprKind::whole_array)
      for (const std::string& element : arrays_.at(lower(a->name)).elements) given.push_back(named(element));
    else
      given.push_back(value(*a));
  }
  bool found = true;
  if (const PlainValue v = text_function(name, given, found); found) return v;
  const std::vector<double> x(given.begin(), given.end());
  std::vector<double> present;
  std::copy_if(x.begin(), x.end(), std::back_inserter(present), [](double v) { return !std::isnan(v); });
  if (name == "n") return static_cast<double>(present.size());
  if (name == "nmiss") return static_cast<double>(x.size() - present.size());
  if (name == "missing") return static_cast<double>(std::isnan(x[0]));
  if (name == "coalesce") return present.empty() ? x.back() : present[0];
  if (name == "min" || name == "max") {
    const auto& all = present.empty() ? x : present; // of missing values alone the order of their kinds decides
    const auto less = [](double a, double b) { return order(a, b) < 0; };
    return name == "min" ? *std::min_element(all.begin(), all.end(), less)
                         : *std::max_element(all.begin(), all.end(), less);
  }
  if (name == "sum" || name == "mean") {
    if (present.empty()) return missing;
    double sum = 0.0;
    for (const double v : present) sum += v;
    return name == "sum" ? sum : sum / static_cast<double>(present.size());
  }
  if (present.size() < x.size()) return missing;
  if (name == "mod") return x[1] == 0.0 ? faulty() : std::fmod(x[0], x[1]);
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

PlainValue PlainEvaluator::text_function(const std::string& name, const std::vector<PlainValue>& x, bool& found)
{
  const auto trimmed = [](std::string s) { return s.substr(0, s.find_last_not_of(' ') + 1); };
  if (name == "trim") return trimmed(x[0].text);
  if (name == "length") return std::max(1.0, static_cast<double>(trimmed(x[0].text).size()));
  if (name == "rank") return x[0].text.empty() ? 0.0 : static_cast<double>(static_cast<unsigned char>(x[0].text[0]));
  if (name == "index") {
    const std::size_t at = x[1].text.empty() ? std::string::npos : x[0].text.find(x[1].text);
    return at == std::string::npos ? 0.0 : static_cast<double>(at) + 1.0;
  }
  if (name == "reverse") return std::string(x[0].text.rbegin(), x[0].text.rend());
  if (name == "upcase") {
    std::string s = x[0].text;
    for (char& c : s) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    return s;
  }
  if (name == "substr") {
    const double from = x[1], count = x.size() > 2 ? x[2].number : 1e9;
    if (!(from >= 1.0) || from > static_cast<double>(x[0].text.size()) || !(count >= 1.0)) return std::string();
    return x[0].text.substr(static_cast<std::size_t>(from) - 1, static_cast<std::size_t>(std::min(count, 1e6)));
  }
  found = false;
  return {};
}

PlainValue PlainEvaluator::lag(const Expr& e, const std::string& name)
{
  const std::size_t n = name.size() > 3 ? std::stoul(name.substr(3)) : 1;
  const PlainValue now = value(*e.args[0]);
  std::vector<PlainValue>& before = lagged_[&e];
  const PlainValue then = before.size() >= n ? before[before.size() - n]
                          : now.is_text      ? PlainValue(std::string())
                                             : PlainValue(missing);
  before.push_back(now);
  if (name[0] == 'l') return then;
  return std::isnan(now) || std::isnan(then) ? missing : now.number - then.number;
}

// Values in, values of the outputs back; its own variables, of which the kept ones outlive the call.
PlainValue PlainEvaluator::subprogram(const SubprogramDefinition& d, std::span<Expr* const> arguments)
{
  Variables own;
  for (std::size_t k = 0; k < arguments.size(); ++k) own[lower(d.parameters[k].name)] = value(*arguments[k]);
  const SubprogramDefinition* const outside = std::exchange(inside_, &d);
  std::swap(own, variables);
  result_ = missing;
  block(d.body);
  std::swap(own, variables);
  inside_ = outside;
  for (std::size_t k = 0; k < arguments.size(); ++k)
    if (d.parameters[k].output) store(*arguments[k], own.at(lower(d.parameters[k].name)));
  return result_;
}

PlainValue& PlainEvaluator::named(const std::string& name)
{
  if (const auto it = kept_.find({inside_, name}); it != kept_.end()) return it->second;
  const auto length = lengths_.find(name);
  const PlainValue empty =
      length == lengths_.end() ? PlainValue(missing) : PlainValue(std::string(length->second, ' '));
  return variables.try_emplace(name, empty).first->second;
}

PlainValue& PlainEvaluator::place(const Expr& target)
{
  if (target.kind == ExprKind::variable) return named(lower(target.name));
  const Array& a = arrays_.at(lower(target.name));
  std::size_t at = 0;
  for (std::size_t d = 0; d < a.low.size(); ++d)
    at = at * static_cast<std::size_t>(a.high[d] - a.low[d] + 1) +
         static_cast<std::size_t>(value(*target.args[d]).number - a.low[d]);
  return named(a.elements.at(at));
}

void PlainEvaluator::store(const Expr& target, PlainValue v)
{
  if (const auto it = lengths_.find(lower(target.name)); it != lengths_.end()) v.text.resize(it->second, ' ');
  place(target) = std::move(v);
}

// Declarations count before the first record; those of subprograms when they are executed.
void PlainEvaluator::declare(Block b)
{
  for (const Statement* const s : b) {
    if (s->kind == StatementKind::subprogram) {
      const auto& d = static_cast<const SubprogramDefinition&>(*s);
      subprograms_[lower(d.name)] = &d;
    }
    if (s->kind == StatementKind::attributes) {
      const auto& x = static_cast<const AttributeDeclaration&>(*s);
      for (const std::string_view name : x.names) lengths_[lower(name)] = static_cast<std::size_t>(x.length);
    }
    if (s->kind == StatementKind::array) {
      const auto& x = static_cast<const ArrayDeclaration&>(*s);
      Array& a = arrays_[lower(x.name)];
      a.low.assign(x.low.begin(), x.low.end());
      a.high.assign(x.high.begin(), x.high.end());
      a.elements.clear();
      for (std::size_t k = 0; k < std::max(x.elements.size(), x.initial.size()); ++k) {
        const std::string name = lower(k < x.elements.size() ? std::string(x.elements[k])
                                                             : std::string(x.name) + "[" + std::to_string(k + 1) + "]");
        a.elements.push_back(name);
        if (k < x.initial.size()) first_[{nullptr, name}] = value(*x.initial[k]);
      }
    }
    if (s->kind == StatementKind::retain) {
      const auto& x = static_cast<const RetainDeclaration&>(*s);
      for (std::size_t k = 0; k < x.names.size(); ++k) {
        const std::string name = lower(x.names[k]);
        PlainValue v = x.initial[k] != nullptr    ? value(*x.initial[k])
                       : lengths_.count(name) > 0 ? PlainValue(std::string())
                                                  : PlainValue(missing);
        if (v.is_text) v.text.resize(lengths_.at(name), ' ');
        first_[{nullptr, name}] = std::move(v);
      }
    }
  }
}

void PlainEvaluator::begin_subject()
{
  kept_ = first_;
  lagged_.clear();
}

void PlainEvaluator::begin_record(const Variables& data)
{
  variables = data;
}

void PlainEvaluator::run(const syntax::Program& program)
{
  const Block all(program.statements.data(), program.statements.size());
  if (program_ != &program) {
    program_ = &program;
    declare(all);
    begin_subject();
  }
  block(all);
}

PlainEvaluator::Flow PlainEvaluator::block(Block b, std::size_t from)
{
  for (std::size_t k = from; k < b.size(); ++k) {
    const Flow f = statement(b[k]);
    if (f == Flow::on) continue;
    if (f != Flow::jump) return f;
    const auto label = std::find_if(b.begin(), b.end(), [&](const Statement* s) { return same_name(s->label, jump_); });
    if (label == b.end()) return f;
    k = static_cast<std::size_t>(label - b.begin()) - 1;
  }
  return Flow::on;
}

PlainEvaluator::Flow PlainEvaluator::link(const JumpStatement& j)
{
  const Block all(program_->statements.data(), program_->statements.size());
  for (std::size_t k = 0; k < all.size(); ++k)
    if (same_name(all[k]->label, j.target)) {
      block(all, k);
      return Flow::on;
    }
  throw std::logic_error("label");
}

PlainEvaluator::Flow PlainEvaluator::assign(const Assignment& a)
{
  const PlainValue v = value(*a.value);
  if (a.form == Assignment::Form::plain) {
    store(*a.target, v);
    return Flow::on;
  }
  if (a.target->kind == ExprKind::variable) kept_.try_emplace({inside_, lower(a.target->name)}, 0.0);
  const double before = place(*a.target);
  store(*a.target, (std::isnan(before) ? 0.0 : before) + (std::isnan(v) ? 0.0 : v.number));
  return Flow::on;
}

PlainEvaluator::Flow PlainEvaluator::statement(const Statement* s)
{
  if (s == nullptr) return Flow::on;
  switch (s->kind) {
  case StatementKind::assign:
    return assign(static_cast<const Assignment&>(*s));
  case StatementKind::if_: {
    const auto& x = static_cast<const IfStatement&>(*s);
    return statement(truth(value(*x.condition)) ? x.then_branch : x.else_branch);
  }
  case StatementKind::do_:
    return loop(static_cast<const DoStatement&>(*s));
  case StatementKind::select: {
    const auto& x = static_cast<const SelectStatement&>(*s);
    const PlainValue selector = x.selector != nullptr ? value(*x.selector) : PlainValue();
    for (const WhenClause& w : x.whens)
      for (const Expr* const v : w.values)
        if (x.selector != nullptr ? order(selector, value(*v)) == 0 : truth(value(*v))) return statement(w.body);
    return statement(x.otherwise);
  }
  case StatementKind::call: {
    const auto& x = static_cast<const CallStatement&>(*s);
    (void)subprogram(*subprograms_.at(lower(x.name)), x.args);
    return Flow::on;
  }
  case StatementKind::go_to:
    jump_ = std::string(static_cast<const JumpStatement&>(*s).target);
    return Flow::jump;
  case StatementKind::link:
    return link(static_cast<const JumpStatement&>(*s));
  case StatementKind::leave:
    return Flow::leave;
  case StatementKind::continue_:
    return Flow::next;
  case StatementKind::return_:
    if (const Expr* const v = static_cast<const ReturnStatement&>(*s).value) result_ = value(*v);
    return Flow::stop;
  case StatementKind::retain: {
    if (inside_ == nullptr) return Flow::on;
    const auto& x = static_cast<const RetainDeclaration&>(*s);
    for (std::size_t k = 0; k < x.names.size(); ++k)
      kept_.try_emplace({inside_, lower(x.names[k])},
                        x.initial[k] != nullptr ? value(*x.initial[k]) : PlainValue(missing));
    return Flow::on;
  }
  default:
    return Flow::on;
  }
}

PlainEvaluator::Flow PlainEvaluator::loop(const DoStatement& d)
{
  if (d.index == nullptr && d.while_ == nullptr && d.until == nullptr) return block(d.body);
  if (d.index != nullptr) {
    for (const LoopRange& r : d.ranges)
      if (const Flow f = range(d, r); f != Flow::on) return f == Flow::leave ? Flow::on : f;
    return Flow::on;
  }
  while (d.while_ == nullptr || truth(value(*d.while_))) {
    const Flow f = block(d.body);
    if (f == Flow::leave) return Flow::on;
    if (f == Flow::stop || f == Flow::jump) return f;
    if (d.until != nullptr && truth(value(*d.until))) return Flow::on;
  }
  return Flow::on;
}

// One range of a loop: WHILE and UNTIL end it alone, LEAVE the whole loop.
PlainEvaluator::Flow PlainEvaluator::range(const DoStatement& d, const LoopRange& r)
{
  const double start = value(*r.start), step = r.step != nullptr ? value(*r.step).number : 1.0;
  const double stop = r.stop != nullptr ? value(*r.stop).number : start;
  const double passes = std::floor((stop - start) / step + 1e-9) + 1.0;
  double k = 0.0;
  for (; k < passes; k += 1.0) {
    store(*d.index, start + k * step);
    if (r.while_ != nullptr && !truth(value(*r.while_))) return Flow::on;
    const Flow f = block(d.body);
    if (f != Flow::on && f != Flow::next) return f;
    if (r.until != nullptr && truth(value(*r.until))) return Flow::on;
  }
  if (r.stop != nullptr) store(*d.index, start + k * step);
  return Flow::on;
}

} // namespace torvale::test
