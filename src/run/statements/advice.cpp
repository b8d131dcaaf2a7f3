#include "run/statements/advice.h"

#include "evaluation/machine_builds.h"
#include "host/messages/names/fit.h"
#include "host/values/text.h"
#include "parallel/worker_pool.h"
#include "run/statements/statement_processing.h"
#include "syntax/walk.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <set>

namespace torvale::run {

using model::ModelLists;
using model::NX;
using syntax::Expr;
using syntax::ExprKind;
using syntax::Op;

namespace {

bool equality(Op op)
{
  return op == Op::equal || op == Op::not_equal || op == Op::in || op == Op::not_in;
}

// The character column that an expression names; null for anything else.
const host::Column* text_column(const ModelLists& n, const Expr& e)
{
  if (e.kind != ExprKind::variable) return nullptr;
  const host::Column* column = n.fid->find(e.name);
  const engine::CMPSYM* symbol = engine::cmpsyms(*n.gcmp, e.name);
  return column != nullptr && !column->numeric() && (symbol == nullptr || !symbol->assigned) ? column : nullptr;
}

void compare(NX& n, const host::Column& column, const Expr& constant, std::set<std::string>& said)
{
  const std::string value(host::stripped(constant.name));
  const auto& levels = column.dictionary();
  const auto same = [&](const std::string& level) { return host::stripped(level) == value; };
  if (value.empty() || std::any_of(levels.begin(), levels.end(), same)) return;
  if (!said.insert(column.name() + "\n" + value).second) return;
  std::string near = host::nearest_name(value, levels);
  if (near.empty() && levels.size() <= 6)
    for (const auto& level : levels) near += (near.empty() ? "" : ", ") + level;
  n.host->log().xpmlog(message::text_never_occurs{.value = value, .name = column.name(), .near = near},
                       n.sources->place({}, constant.where));
  n.raise(4);
}

void compared_texts(NX& n, const Expr& e, std::set<std::string>& said)
{
  const bool wanted = (e.kind == ExprKind::binary && equality(e.op)) || e.kind == ExprKind::in_list ||
                      (e.kind == ExprKind::chain && std::any_of(e.ops.begin(), e.ops.end(), equality));
  if (!wanted || e.truncated) return;
  for (const Expr* a : e.args) {
    const host::Column* column = a != nullptr ? text_column(n, *a) : nullptr;
    if (column == nullptr) continue;
    for (const Expr* b : e.args)
      if (b != nullptr && b->kind == ExprKind::text) compare(n, *column, *b, said);
  }
}

// A date of the data beside a text that spells a moment of another kind: days and seconds are numbers of different
// size.
void compared_moments(NX& n, const Expr& e, std::set<std::string>& said)
{
  const auto comparison = [](Op op) { return op >= Op::less && op <= Op::not_equal; };
  const bool wanted = (e.kind == ExprKind::binary && comparison(e.op)) || e.kind == ExprKind::chain;
  if (!wanted) return;
  for (const Expr* a : e.args) {
    if (a == nullptr || a->kind != ExprKind::variable) continue;
    const host::Column* column = n.fid->find(a->name);
    const engine::CMPSYM* symbol = engine::cmpsyms(*n.gcmp, a->name);
    if (column == nullptr || !column->numeric() || (symbol != nullptr && symbol->assigned)) continue;
    for (const Expr* b : e.args) {
      if (b == nullptr || b->kind != ExprKind::text) continue;
      const host::Moment own = column->moment(), spelled = host::iso_moment(b->name);
      if (own == host::Moment::none || spelled == host::Moment::none || own == spelled) continue;
      if (!said.insert(column->name() + "\n" + std::string(b->name)).second) continue;
      n.host->log().xpmlog(message::moments_of_two_kinds{.name = column->name(), .value = b->name},
                           n.sources->place({}, b->where));
      n.raise(4);
    }
  }
}

// PARMS b=0,5: two starting values, where a decimal comma was likely meant.
void decimal_commas(NX& n)
{
  for (const auto& statement : n.proc->statements) {
    if (statement.name != "PARMS") continue;
    const auto place = n.sources->place("PARMS", statement.where);
    const std::string_view line = place.source,
                           source =
                               line.substr(0, line.find(';', static_cast<std::size_t>(std::max(0, place.column - 1))));
    for (auto i = static_cast<std::size_t>(std::max(1, place.column)); i + 1 < source.size(); ++i) {
      const auto digit = [&](std::size_t k) { return k < source.size() && source[k] >= '0' && source[k] <= '9'; };
      const bool lone_zero = source[i - 1] == '0' && (i < 2 || !digit(i - 2));
      if (source[i] != ',' || !lone_zero || !digit(i + 1)) continue;
      auto here = place;
      here.column = static_cast<int>(i) + 1;
      std::size_t end = i + 1;
      while (digit(end)) ++end;
      n.host->log().xpmlog(message::decimal_comma{.found = source.substr(i - 1, end - i + 1),
                                                  .meant = "0." + std::string(source.substr(i + 1, end - i - 1))},
                           here);
      n.raise(4);
      return;
    }
  }
}

struct Support {
  double low, high;
  bool open;         // low itself is outside
  const char* words; // values that the distribution takes
};

bool support_of(int distribution, Support& out)
{
  switch (distribution) {
  case 2:
    out = {0, 1, false, "BINARY takes 0 and 1"};
    return true;
  case 3:
    out = {0, INFINITY, false, "BINOMIAL takes counts from 0 to its number of trials"};
    return true;
  case 4:
    out = {0, INFINITY, false, "POISSON takes counts from 0"};
    return true;
  case 6:
    out = {0, INFINITY, false, "NEGBIN takes counts from 0"};
    return true;
  case 7:
    out = {0, INFINITY, true, "GAMMA takes values above 0"};
    return true;
  default:
    return false;
  }
}

// True where no response is outside what the distribution takes. Nearly always: found out in vectors.
bool all_fit(const Support& support, const double* y, std::size_t rows)
{
  const double low = support.low, high = support.high, not_this = support.open ? support.low : NAN;
  std::uint64_t unfit = 0; // as wide as the responses
  for (std::size_t i = 0; i < rows; ++i)
    unfit |= ((y[i] >= low) & (y[i] <= high) & (y[i] != not_this)) | (y[i] != y[i]) ? 0U : 1U;
  return unfit == 0;
}

TORVALE_AVX2_BUILD bool all_fit_avx2(const Support& support, const double* y, std::size_t rows)
{
  return all_fit(support, y, rows);
}

bool all_responses_fit(const NX& n, const Support& support, std::span<const double> responses)
{
  static const auto build = evaluation::build_for_machine(all_fit, all_fit_avx2);
  constexpr std::size_t block_rows = 1 << 16;
  std::atomic<bool> fit = true;
  const auto blocks = static_cast<long>((responses.size() + block_rows - 1) / block_rows);
  parallel::deal(n.workers.get(), blocks, [&](int, long block) {
    const std::size_t first = static_cast<std::size_t>(block) * block_rows;
    if (!build(support, responses.data() + first, std::min(block_rows, responses.size() - first)))
      fit.store(false, std::memory_order_relaxed);
  });
  return fit;
}

bool looks_missing(double y)
{
  return y == -9 || y == -99 || y == -999 || y == 999 || y == 9999;
}

} // namespace

void advise_on_program(NX& n)
{
  std::set<std::string> said;
  syntax::each_expression(n.proc->program, [&](const Expr& e) {
    compared_texts(n, e, said);
    compared_moments(n, e, said);
    if (e.kind == ExprKind::binary && e.op == Op::or_ && e.args[0]->kind == ExprKind::number &&
        e.args[1]->kind == ExprKind::variable && said.insert("|").second) {
      n.host->log().xpmlog(message::bar_is_or{.name = e.args[1]->name}, n.sources->place({}, e.where));
      n.raise(4);
    }
  });
  decimal_commas(n);
}

void advise_on_response(NX& n)
{
  n.response_told = false;
  Support support{};
  if (!support_of(n.disttype, support) || n.depsym == nullptr || n.depsym->assigned) return;
  const host::Column* column = n.fid->find(n.depname);
  if (column == nullptr || !column->numeric()) return;
  const auto fits = [&](double y) {
    return (y >= support.low) & (y <= support.high) & !(support.open & (y == support.low));
  };
  if (all_responses_fit(n, support, column->numbers().subspan(n.rows.begin, n.rows.rows()))) return;
  std::set<double> values; // distinct ones that are no codes of missing values, at most three
  std::size_t outside = 0, first = 0;
  double code = host::missing; // of missing values, by its look
  for (std::size_t row = n.rows.begin; row < n.rows.end; ++row) {
    const double y = column->number(row);
    if (std::isnan(y)) continue;
    if (looks_missing(y))
      code = y;
    else if (values.size() < 3)
      values.insert(y);
    if (fits(y)) continue;
    if (outside++ == 0) first = row;
  }
  message::response_outside_support words{.name = n.depname, .value = column->number(first), .support = support.words};
  if (outside > 1) words.count = outside;
  if (n.disttype == 2 && values == std::set<double>{1, 2})
    words.advice = "it is coded 1 and 2: compute event = (" + n.depname + " = 2); and name event in MODEL";
  else if (!std::isnan(code) && !(code >= support.low && code <= support.high))
    words.advice = "that looks like a code for missing values: read the data with WHERE=(" + n.depname +
                   " ^= " + host::shortest(code) + ")";
  host::MessagePlace place;
  place.row = n.fid->file_row(first);
  n.host->log().xpmlog(words, place);
  n.raise(4);
  n.response_told = true;
}

} // namespace torvale::run
