// Which names are parameters: those of PARMS, those of its data set, and names that the program uses and nobody gives a
// value.

#include "data/starting_values.h"
#include "host/missing.h"
#include "host/text.h"
#include "run/statement_processing.h"

#include <algorithm>
#include <limits>

namespace torvale::run {

using data::NamedValues;
using engine::CMPSYM;
using model::NX;
using syntax::STMT;

namespace {

const STMT* parms_statement_of(NX& n)
{
  const STMT* found = nullptr;
  int count = 0;
  for (const auto& stmt : n.proc->statements) {
    if (!stmt.name.starts_with("PARM") && !stmt.name.starts_with("PARAM")) continue;
    found = &stmt;
    ++count;
  }
  if (count > 1) {
    n.host->log().xpmlog(503, 12, {{"statement", "PARMS"}}, place_at(n, "PARMS", found->where));
    tvlexit(n, 3000);
  }
  return found;
}

bool is_random_effect(const NX& n, std::string_view name)
{
  for (const auto& stmt : n.proc->statements)
    if (stmt.name == "RANDOM")
      for (const auto& item : stmt.slot(1).list)
        if (host::equal_names(item.text, name)) return true;
  return false;
}

bool undefined(const NX& n, const CMPSYM& s)
{
  return s.used && !s.assigned && s.dsvarno == 0 && !s.array_element && s.status != 0 && s.kind != 'e' &&
         s.kind != 'd' && !is_random_effect(n, s.name);
}

void refuse_repeated(NX& n, const std::vector<NamedValues>& named)
{
  for (std::size_t i = 0; i < named.size(); ++i)
    for (std::size_t j = 0; j < i; ++j) {
      if (!host::equal_names(named[i].name, named[j].name)) continue;
      n.host->log().xpmlog(503, 237, {{"name", named[i].name}}, place_at(n, "PARMS", named[i].where));
      tvlexit(n, 1012);
    }
}

void refuse_other_roles(NX& n, const NamedValues& named, const CMPSYM& symbol)
{
  const auto place = place_at(n, "PARMS", named.where);
  int number = 0;
  if (reserved_name(named.name))
    number = 9321;
  else if (is_random_effect(n, named.name))
    number = 9324;
  else if (symbol.assigned)
    number = 9322;
  if (number == 0) return;
  n.host->log().xpmlog(503, number, {{"name", named.name}, {"role", "a parameter"}}, place);
  tvlexit(n, 3000);
}

// Notes 363 to 365: names that became parameters at 1, with the nearest name that might have been meant.
void report_defaulted(NX& n, const std::vector<std::string>& defaulted, bool statement_given)
{
  if (defaulted.empty()) return;
  std::string list = defaulted[0];
  for (std::size_t i = 1; i < defaulted.size(); ++i) {
    if (list.size() + defaulted[i].size() + 2 > 250) {
      list += ", ...";
      break;
    }
    list += ", " + defaulted[i];
  }
  std::vector<std::string> known = n.fid->column_names();
  for (const auto& p : n.parmstr)
    if (!p.defaulted) known.push_back(p.parmname);
  std::string meant;
  for (const auto& name : defaulted) {
    const std::string nearest = host::nearest_name(name, known);
    if (nearest.empty()) continue;
    meant += meant.empty() ? "" : ", ";
    meant += defaulted.size() == 1 ? nearest : nearest + " for " + name;
  }
  host::MessageArguments arguments = {{"names", list}};
  if (!meant.empty()) arguments.emplace_back("near", meant);
  const int number = !statement_given ? 365 : defaulted.size() == 1 ? 363 : 364;
  n.host->log().xpmlog(503, number, arguments);
}

// Some value is ._ or .A to .Z: programs that read the column then compare missing values by kind.
bool has_special_missing(const host::Column& column)
{
  const auto numbers = column.numbers();
  return std::any_of(numbers.begin(), numbers.end(),
                     [](double x) { return std::isnan(x) && host::missing_letter(x) != '.'; });
}

} // namespace

std::vector<engine::DataVariable> data_variables(const NX& n)
{
  std::vector<engine::DataVariable> variables;
  for (const auto& column : n.fid->columns())
    variables.push_back({column.name(), !column.numeric(), static_cast<int>(column.numeric() ? 8 : column.text_width()),
                         has_special_missing(column)});
  return variables;
}

void parameter_setup(NX& n)
{
  auto& log = n.host->log();
  std::vector<NamedValues> named;
  const STMT* parms = parms_statement_of(n);
  n.nbest = 1;
  if (parms != nullptr) {
    n.bestspec = parms->given(4);
    n.nbest = static_cast<int>(parms->number_or(4, 1));
    n.bydata = parms->flag(1);
    if (data::parms_statement(n, *parms, named) != 0) tvlexit(n, 1012);
  }

  const auto is_named = [&](std::string_view name) {
    return std::any_of(named.begin(), named.end(),
                       [&](const NamedValues& v) { return host::equal_names(v.name, name); });
  };
  if (engine::cmprslv(*n.gcmp, data_variables(n)) != 0 || log_diagnostics(n) > 0) tvlexit(n, 1012);
  if (parms != nullptr && parms->given(3) && data::open_parms_data(n, *parms, named) != 0)
    tvlexit(n, n.pdata.data == nullptr ? 1008 : 3000);
  refuse_repeated(n, named);

  std::vector<std::string> defaulted;
  for (const CMPSYM* symbol : engine::cmpsymbols(*n.gcmp)) {
    if (!undefined(n, *symbol) || is_named(symbol->name)) continue;
    if (symbol->type == 'c') {
      log.xpmlog(503, 366, {{"name", symbol->name}}, place_at(n, "", symbol->where));
      tvlexit(n, 1012);
    }
    defaulted.push_back(symbol->name);
  }

  for (const NamedValues& v : named) {
    CMPSYM* symbol = engine::cmpsyms(*n.gcmp, v.name);
    if (symbol == nullptr) symbol = engine::cmpsymd(*n.gcmp, v.name, 'v', 'n');
    refuse_other_roles(n, v, *symbol);
    if (n.fid->find(v.name) != nullptr) {
      log.xpmlog(503, 4, {{"name", v.name}}, place_at(n, "PARMS", v.where));
      n.raise(4);
    }
    model::PARMSTR p;
    p.parmname = v.name;
    p.parmlist = v.values;
    p.sym = symbol;
    n.parmstr.push_back(std::move(p));
  }
  for (const std::string& name : defaulted) {
    model::PARMSTR p;
    p.parmname = name;
    p.parmlist = {1.0};
    p.sym = engine::cmpsyms(*n.gcmp, name);
    p.defaulted = true;
    n.parmstr.push_back(std::move(p));
  }
  n.nparm = static_cast<int>(n.parmstr.size());
  for (int j = 0; j < n.nparm; ++j) {
    CMPSYM* symbol = n.parmstr[static_cast<std::size_t>(j)].sym;
    engine::cmpparm(*n.gcmp, symbol, j);
    n.prsym.s.push_back(symbol);
  }
  report_defaulted(n, defaulted, parms != nullptr);
}

void grid_size(NX& n)
{
  double product = 1.0;
  long longest = 1;
  for (const auto& p : n.parmstr) {
    product *= p.npoint();
    longest = std::max<long>(longest, p.npoint());
  }
  if (!n.noprod && product > 2147483647.0) {
    n.host->log().xpmlog(503, 500, {{"points", product}});
    tvlexit(n, 1012);
  }
  n.npoints = n.noprod ? longest : static_cast<long>(product);
  if (n.nbest > n.npoints) {
    n.host->log().xpmlog(503, 231, {{"best", n.nbest}, {"points", n.npoints}});
    n.nbest = static_cast<int>(n.npoints);
  }
}

} // namespace torvale::run
