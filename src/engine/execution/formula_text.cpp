#include "engine/execution/formula_text.h"

#include "host/values/text.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::engine {

namespace {

constexpr std::size_t longest_formula = 2000; // characters that are still worth reading
constexpr std::size_t most_parts = 700;       // of a sum or product: more than a formula shows
constexpr int worth_a_name = 5;               // operations of a value that stands in several places
constexpr std::size_t line_width = 100;

// Kernels that the language writes in another way. An open bracket is part of the spelling.
struct Spelling {
  Kernel kernel;
  const char* text;
};
constexpr Spelling spellings[] = {
    {Kernel::absolute, "abs("},
    {Kernel::side, "sign("},
    {Kernel::truncate, "int("},
    {Kernel::modulo, "mod("},
    {Kernel::round_to, "round("},
    {Kernel::least, "min("},
    {Kernel::least_ordered, "min("},
    {Kernel::greatest, "max("},
    {Kernel::log_or_zero, "log("},
    {Kernel::log_or_minus_infinity, "log("},
    {Kernel::log_add_exp, "logsumexp("},
    {Kernel::normal_pdf, "pdf('normal', "},
    {Kernel::normal_cdf, "cdf('normal', "},
    {Kernel::normal_log_cdf, "logcdf('normal', "},
    {Kernel::normal_quantile, "quantile('normal', "},
};

// Kernels that give their operand back where it is a usable number.
bool passes_operand(Kernel k)
{
  switch (k) {
  case Kernel::copy:
  case Kernel::canonical:
  case Kernel::ordinary_missing:
  case Kernel::positive:
  case Kernel::nonnegative:
  case Kernel::probability:
    return true;
  default:
    return false;
  }
}

// The sign of a comparison, of its opposite, and of it with sides exchanged. Missing values take part in the order, so
// the opposite is a comparison too.
struct Comparison {
  const char *text, *opposite, *mirrored, *mirrored_opposite;
};
const Comparison* comparison_of(Kernel k)
{
  static constexpr Comparison less = {"<", ">=", ">", "<="}, less_equal = {"<=", ">", ">=", "<"},
                              greater = {">", "<=", "<", ">="}, greater_equal = {">=", "<", "<=", ">"},
                              equal = {"=", "^=", "=", "^="}, not_equal = {"^=", "=", "^=", "="};
  switch (k) {
  case Kernel::less:
  case Kernel::less_known:
    return &less;
  case Kernel::less_equal:
  case Kernel::less_equal_known:
    return &less_equal;
  case Kernel::greater:
  case Kernel::greater_known:
    return &greater;
  case Kernel::greater_equal:
  case Kernel::greater_equal_known:
    return &greater_equal;
  case Kernel::equal:
  case Kernel::equal_known:
    return &equal;
  case Kernel::not_equal:
  case Kernel::not_equal_known:
    return &not_equal;
  default:
    return nullptr;
  }
}

void add_factor(std::vector<std::pair<NodeId, int>>& factors, NodeId id)
{
  const auto at = std::find_if(factors.begin(), factors.end(), [&](const auto& f) { return f.first == id; });
  if (at != factors.end())
    ++at->second;
  else
    factors.emplace_back(id, 1);
}

} // namespace

FormulaText::FormulaText(const CMPGLOBAL& gcmp) : gcmp_(gcmp)
{
  // A value that several variables have goes by the first one that the user wrote.
  for (const CMPSYM* const s : gcmp.named) {
    const auto at = static_cast<std::size_t>(s->index);
    if (!s->assigned || s->type == 'c' || at >= gcmp.value.size() || gcmp.value[at] == no_node) continue;
    const NodeId id = gcmp.value[at];
    if (node(id).kind != NodeKind::kernel) continue;
    const auto [known, added] = names_.emplace(id, s->name);
    if (!added && known->second[0] == '_' && s->name[0] != '_') known->second = s->name;
  }
}

const std::string* FormulaText::name_of(NodeId id) const
{
  const auto at = names_.find(id);
  return at == names_.end() ? nullptr : &at->second;
}

bool FormulaText::full() const
{
  return out_.size() > longest_formula;
}

std::string FormulaText::share(std::span<const NodeId> roots)
{
  std::unordered_map<NodeId, int> uses;
  std::vector<NodeId> open(roots.begin(), roots.end()), seen;
  while (!open.empty()) {
    const NodeId id = open.back();
    open.pop_back();
    if (node(id).kind != NodeKind::kernel || ++uses[id] > 1) continue;
    seen.push_back(id);
    if (name_of(id) == nullptr)
      for (int k = 0; k < node(id).operands; ++k) open.push_back(node(id).operand[static_cast<std::size_t>(k)]);
  }
  std::sort(seen.begin(), seen.end()); // operands come before what they are used in
  std::unordered_map<NodeId, int> size;
  std::string lines;
  int number = 0;
  for (const NodeId id : seen) {
    int operations = 1;
    if (name_of(id) == nullptr)
      for (int k = 0; k < node(id).operands; ++k)
        if (const auto at = size.find(node(id).operand[static_cast<std::size_t>(k)]); at != size.end())
          operations += at->second;
    size[id] = std::min(operations, 1000);
    if (name_of(id) != nullptr || uses[id] < 2 || operations < worth_a_name) continue;
    const std::string name = "#" + std::to_string(++number);
    for (const std::string& line : host::wrapped(name + " = " + (*this)(id), line_width, 6)) lines += line + "\n";
    names_[id] = name;
    size[id] = 1;
  }
  return lines;
}

std::string FormulaText::operator()(NodeId id)
{
  out_.clear();
  write(id, choice);
  return full() ? out_.substr(0, longest_formula) + " ..." : out_;
}

void FormulaText::write(NodeId id, Strength around)
{
  if (full()) return;
  const Node& n = node(id);
  if (const std::string* name = name_of(id)) {
    out_ += *name;
    return;
  }
  switch (n.kind) {
  case NodeKind::constant: {
    const std::string text = text_from_number(n.value, {});
    const bool brackets = n.value < 0.0 && around > sum;
    out_ += brackets ? "(" + text + ")" : text;
    return;
  }
  case NodeKind::symbol:
    out_ += gcmp_.at(n.index).name;
    return;
  case NodeKind::row:
    out_ += "record";
    return;
  case NodeKind::carry:
    out_ += "kept" + std::to_string(n.index);
    return;
  case NodeKind::result:
    out_ += "loop" + std::to_string(n.index);
    return;
  case NodeKind::text:
    out_ += "text" + std::to_string(n.index);
    return;
  case NodeKind::kernel:
    return write_kernel(id, around);
  }
}

void FormulaText::write_kernel(NodeId id, Strength around)
{
  const Node& n = node(id);
  if (passes_operand(n.kernel)) return write(n.operand[0], around);
  if (comparison_of(n.kernel) != nullptr) return write_comparison(id, false, around);
  switch (n.kernel) {
  case Kernel::add:
  case Kernel::subtract:
  case Kernel::negate:
  case Kernel::multiply:
  case Kernel::divide:
  case Kernel::divide_unchecked:
  case Kernel::reciprocal:
  case Kernel::reciprocal_or_zero:
  case Kernel::square:
  case Kernel::cube:
    return write_sum(id, around);
  case Kernel::truth:
  case Kernel::and_:
  case Kernel::or_:
  case Kernel::not_:
  case Kernel::and_not:
  case Kernel::is_missing:
  case Kernel::is_present:
    return write_truth(id, false, around);
  case Kernel::select:
  case Kernel::select_or_zero:
    return write_choice(id, around);
  case Kernel::power:
  case Kernel::power_or_zero: {
    const bool brackets = around > power;
    if (brackets) out_ += "(";
    write(n.operand[0], primary);
    out_ += "**";
    write(n.operand[1], power);
    if (brackets) out_ += ")";
    return;
  }
  case Kernel::positive_part:
    out_ += "max(";
    write(n.operand[0], choice);
    out_ += ", 0)";
    return;
  case Kernel::zero_if_missing:
    out_ += "coalesce(";
    write(n.operand[0], choice);
    out_ += ", 0)";
    return;
  default:
    return write_call(id);
  }
}

void FormulaText::write_call(NodeId id)
{
  const Node& n = node(id);
  const auto* const special =
      std::find_if(std::begin(spellings), std::end(spellings), [&](const Spelling& s) { return s.kernel == n.kernel; });
  out_ += special != std::end(spellings) ? special->text : std::string(kernel_info(n.kernel).name) + "(";
  for (int k = 0; k < n.operands; ++k) {
    if (k > 0) out_ += ", ";
    write(n.operand[static_cast<std::size_t>(k)], choice);
  }
  out_ += ")";
}

void FormulaText::write_choice(NodeId id, Strength around)
{
  const Node& n = node(id);
  const bool brackets = around > choice;
  out_ += brackets ? "(IF " : "IF ";
  write_truth(n.operand[0], false, either);
  out_ += " THEN ";
  write(n.operand[1], either); // a choice inside needs brackets, lest ELSE be taken for its own
  out_ += " ELSE ";
  if (n.kernel == Kernel::select)
    write(n.operand[2], choice);
  else
    out_ += "0";
  if (brackets) out_ += ")";
}

void FormulaText::write_truth(NodeId id, bool negated, Strength around)
{
  if (full()) return;
  const Node& n = node(id);
  if (name_of(id) == nullptr && n.kind == NodeKind::kernel) {
    if (comparison_of(n.kernel) != nullptr) return write_comparison(id, negated, around);
    switch (n.kernel) {
    case Kernel::truth:
      return write_truth(n.operand[0], negated, around);
    case Kernel::not_:
      return write_truth(n.operand[0], !negated, around);
    case Kernel::and_:
    case Kernel::and_not:
    case Kernel::or_: {
      const bool all = (n.kernel != Kernel::or_) != negated;
      const Strength own = all ? both : either;
      if (around > own) out_ += "(";
      write_truth(n.operand[0], negated, own);
      out_ += all ? " AND " : " OR ";
      write_truth(n.operand[1], negated != (n.kernel == Kernel::and_not), own);
      if (around > own) out_ += ")";
      return;
    }
    case Kernel::is_missing:
    case Kernel::is_present:
      out_ += negated != (n.kernel == Kernel::is_present) ? "NOT MISSING(" : "MISSING(";
      write(n.operand[0], choice);
      out_ += ")";
      return;
    default:
      break;
    }
  }
  if (negated) out_ += "NOT ";
  write(id, negated ? primary : around);
}

void FormulaText::write_comparison(NodeId id, bool negated, Strength around)
{
  const Node& n = node(id);
  const Comparison& c = *comparison_of(n.kernel);
  const bool mirrored = gcmp_.graph.is_constant(n.operand[0]);
  const bool brackets = around > comparison;
  if (brackets) out_ += "(";
  write(n.operand[mirrored ? 1 : 0], sum);
  out_ += std::string(" ") +
          (mirrored ? (negated ? c.mirrored_opposite : c.mirrored) : (negated ? c.opposite : c.text)) + " ";
  write(n.operand[mirrored ? 0 : 1], sum);
  if (brackets) out_ += ")";
}

std::vector<FormulaText::Term> FormulaText::terms_of(NodeId id) const
{
  std::vector<Term> terms;
  std::vector<std::pair<NodeId, bool>> open = {{id, false}};
  while (!open.empty() && terms.size() < most_parts) {
    const auto [at, minus] = open.back();
    open.pop_back();
    const Node& n = node(at);
    if (name_of(at) == nullptr && n.kind == NodeKind::kernel) {
      if (n.kernel == Kernel::add || n.kernel == Kernel::subtract) {
        open.emplace_back(n.operand[1], minus != (n.kernel == Kernel::subtract));
        open.emplace_back(n.operand[0], minus);
        continue;
      }
      if (n.kernel == Kernel::negate) {
        open.emplace_back(n.operand[0], !minus);
        continue;
      }
    }
    Term term;
    term.minus = minus;
    term.product = product_of(at, term.minus);
    terms.push_back(std::move(term));
  }
  // A sum begins with what is added.
  const auto first = std::find_if(terms.begin(), terms.end(), [](const Term& t) { return !t.minus; });
  if (first != terms.end()) std::rotate(terms.begin(), first, first + 1);
  return terms;
}

FormulaText::Product FormulaText::product_of(NodeId id, bool& minus) const
{
  Product p;
  std::vector<std::pair<NodeId, bool>> open = {{id, false}}; // and whether it divides
  while (!open.empty()) {
    const auto [at, divides] = open.back();
    open.pop_back();
    const Node& n = node(at);
    const bool inner =
        name_of(at) == nullptr && n.kind == NodeKind::kernel && p.above.size() + p.below.size() < most_parts;
    const auto push = [&](int operand, bool below) {
      open.emplace_back(n.operand[static_cast<std::size_t>(operand)], below);
    };
    if (gcmp_.graph.is_constant(at) && std::isfinite(n.value) && n.value != 0.0) {
      (divides ? p.denominator : p.numerator) *= std::fabs(n.value);
      minus = minus != (n.value < 0.0);
    } else if (inner && n.kernel == Kernel::multiply) {
      push(1, divides);
      push(0, divides);
    } else if (inner && (n.kernel == Kernel::divide || n.kernel == Kernel::divide_unchecked)) {
      push(1, !divides);
      push(0, divides);
    } else if (inner && (n.kernel == Kernel::reciprocal || n.kernel == Kernel::reciprocal_or_zero)) {
      push(0, !divides);
    } else if (inner && (n.kernel == Kernel::square || n.kernel == Kernel::cube)) {
      for (int k = n.kernel == Kernel::square ? 2 : 3; k > 0; --k) push(0, divides);
    } else if (inner && n.kernel == Kernel::negate) {
      minus = !minus;
      push(0, divides);
    } else {
      add_factor(divides ? p.below : p.above, at);
    }
  }
  // What stands above and, more often, below is cut.
  for (auto& [factor, times] : p.below) {
    const auto same =
        std::find_if(p.above.begin(), p.above.end(), [id = factor](const auto& f) { return f.first == id; });
    if (same == p.above.end() || same->second >= times) continue;
    times -= same->second;
    p.above.erase(same);
  }
  return p;
}

void FormulaText::write_sum(NodeId id, Strength around)
{
  const std::vector<Term> terms = terms_of(id);
  const Product& only = terms.front().product;
  const std::size_t parts = only.above.size() + only.below.size() + (only.numerator != 1.0) + (only.denominator != 1.0);
  Strength own = sum;
  if (terms.size() == 1 && !terms.front().minus)
    own = parts > 1 || only.above.empty() ? product : only.above.front().second > 1 ? power : primary;
  const bool brackets = around > own && own != primary;
  if (brackets) out_ += "(";
  for (const Term& t : terms) {
    if (&t != &terms.front())
      out_ += t.minus ? " - " : " + ";
    else if (t.minus)
      out_ += "-";
    write_product(t.product);
    if (full()) return;
  }
  if (brackets) out_ += ")";
}

void FormulaText::write_factors(const std::vector<std::pair<NodeId, int>>& factors)
{
  for (const auto& [id, times] : factors) {
    if (full()) return;
    if (&id != &factors.front().first) out_ += "*";
    write(id, times > 1 ? primary : power);
    if (times > 1) out_ += "**" + std::to_string(times);
  }
}

void FormulaText::write_product(const Product& p)
{
  if (p.numerator != 1.0 || p.above.empty()) out_ += text_from_number(p.numerator, {}) + (p.above.empty() ? "" : "*");
  write_factors(p.above);
  if (p.denominator == 1.0 && p.below.empty()) return;
  const bool several = p.below.size() + (p.denominator != 1.0) > 1;
  out_ += several ? "/(" : "/";
  if (p.denominator != 1.0) out_ += text_from_number(p.denominator, {}) + (p.below.empty() ? "" : "*");
  write_factors(p.below);
  if (several) out_ += ")";
}

} // namespace torvale::engine
