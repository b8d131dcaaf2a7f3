#include "engine/form_chains.h"

#include <algorithm>
#include <unordered_map>

namespace torvale::engine {

namespace {

constexpr std::int32_t longest_chain = 48; // links; longer ones keep too many operands waiting in registers

// The link that does what kernel `k` does when operand number `handed` is the accumulator. False: there is none.
bool link_of(Kernel k, const std::array<std::int32_t, 6>& in, int handed, Link& link)
{
  const auto unary = [&](ChainOp op) {
    link = {op, -1, -1};
    return true;
  };
  const auto binary = [&](ChainOp first, ChainOp second) {
    link = handed == 0 ? Link{first, in[1], -1} : Link{second, in[0], -1};
    return true;
  };
  const auto with_product = [&](ChainOp as_factor, ChainOp as_term) { // a * b and c
    if (handed == 2)
      link = {as_term, in[0], in[1]};
    else
      link = {as_factor, in[handed == 0 ? 1 : 0], in[2]};
    return true;
  };
  switch (k) {
  case Kernel::add:
    return binary(ChainOp::add, ChainOp::add);
  case Kernel::subtract:
    return binary(ChainOp::subtract, ChainOp::subtract_from);
  case Kernel::multiply:
    return binary(ChainOp::multiply, ChainOp::multiply);
  case Kernel::divide:
    return binary(ChainOp::divide, ChainOp::divide_into);
  case Kernel::divide_unchecked:
    link = {ChainOp::divide_unchecked, in[1], -1};
    return handed == 0;
  case Kernel::multiply_add:
    return with_product(ChainOp::multiply_add, ChainOp::add_product);
  case Kernel::multiply_subtract:
    return with_product(ChainOp::multiply_subtract, ChainOp::product_minus);
  case Kernel::subtract_product:
    return with_product(ChainOp::multiply_take, ChainOp::subtract_product);
  case Kernel::negate:
    return unary(ChainOp::negate);
  case Kernel::square:
    return unary(ChainOp::square);
  case Kernel::cube:
    return unary(ChainOp::cube);
  case Kernel::reciprocal:
    return unary(ChainOp::reciprocal);
  case Kernel::absolute:
    return unary(ChainOp::absolute);
  case Kernel::less:
    return binary(ChainOp::less, ChainOp::greater);
  case Kernel::less_equal:
    return binary(ChainOp::less_equal, ChainOp::greater_equal);
  case Kernel::less_known:
    return binary(ChainOp::less_known, ChainOp::greater_known);
  case Kernel::less_equal_known:
    return binary(ChainOp::less_equal_known, ChainOp::greater_equal_known);
  case Kernel::and_:
    return binary(ChainOp::and_, ChainOp::and_);
  case Kernel::or_:
    return binary(ChainOp::or_, ChainOp::or_);
  case Kernel::not_:
    return unary(ChainOp::not_);
  case Kernel::and_not:
    return binary(ChainOp::and_not, ChainOp::not_and);
  case Kernel::is_missing:
    return unary(ChainOp::is_missing);
  case Kernel::select:
    if (handed == 0)
      link = {ChainOp::choose_by, in[1], in[2]};
    else if (handed == 1)
      link = {ChainOp::choose, in[0], in[2]};
    else
      link = {ChainOp::choose_other, in[0], in[1]};
    return true;
  case Kernel::select_or_zero:
    return binary(ChainOp::zero_unless, ChainOp::keep_or_zero);
  default:
    return false;
  }
}

} // namespace

void form_chains(StageCode& code)
{
  std::unordered_map<std::int32_t, int> uses, made_by;
  for (std::size_t k = 0; k < code.steps.size(); ++k) {
    const Step& s = code.steps[k];
    if (s.kind == Step::Kind::loop_begin) return;
    for (int j = 0; j < s.operands; ++j) ++uses[s.in[static_cast<std::size_t>(j)]];
    if (s.kind == Step::Kind::kernel) made_by[s.out] = static_cast<int>(k);
  }
  // The links so far of the chain that ends in a step, and the value it starts from. Outputs are chains already.
  struct Chain {
    std::int32_t start = -1;
    std::vector<Link> links;
  };
  std::vector<Chain> chain(code.steps.size());
  std::vector<bool> swallowed(code.steps.size());
  for (std::size_t k = 0; k < code.steps.size(); ++k) {
    const Step& s = code.steps[k];
    if (s.kind != Step::Kind::kernel && s.kind != Step::Kind::chain) continue;
    const auto link_by = [&](int handed, Link& link) {
      if (s.kind == Step::Kind::kernel) return link_of(s.kernel, s.in, handed, link);
      link = code.links[static_cast<std::size_t>(s.index)];
      return true;
    };
    int best = -1; // operand to hand on: the one with the longest chain behind it
    std::size_t length = 0;
    Link link;
    for (int j = 0; j < s.operands; ++j) {
      const std::int32_t in = s.in[static_cast<std::size_t>(j)];
      const auto maker = made_by.find(in);
      if (maker == made_by.end() || uses[in] != 1) continue;
      const std::size_t behind = chain[static_cast<std::size_t>(maker->second)].links.size();
      if (behind == 0 || behind >= longest_chain || behind <= length || !link_by(j, link)) continue;
      best = j;
      length = behind;
    }
    Chain& own = chain[k];
    if (best >= 0) {
      const auto maker = static_cast<std::size_t>(made_by.at(s.in[static_cast<std::size_t>(best)]));
      own = std::move(chain[maker]);
      swallowed[maker] = true;
    } else {
      best = 0;
      own.start = s.in[0];
    }
    if (link_by(best, link))
      own.links.push_back(link);
    else
      own = {};
  }
  std::vector<Step> steps;
  std::vector<Link> links;
  for (std::size_t k = 0; k < code.steps.size(); ++k) {
    if (swallowed[k]) continue;
    Step s = code.steps[k];
    if (chain[k].links.size() >= 2 || s.kind == Step::Kind::chain) {
      s.kind = Step::Kind::chain;
      s.operands = 1;
      s.in[0] = chain[k].start;
      s.index = static_cast<std::int32_t>(links.size());
      s.links = static_cast<std::int32_t>(chain[k].links.size());
      links.insert(links.end(), chain[k].links.begin(), chain[k].links.end());
    }
    steps.push_back(s);
  }
  code.steps = std::move(steps);
  code.links = std::move(links);
}

} // namespace torvale::engine
