// Which names are parameters: those of PARMS, those of its data set, and names that the program uses and nobody gives a
// value.

#include "data/starting_values.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/starting_values.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"
#include "host/values/text.h"
#include "host/values/whole_number.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <cctype>
#include <limits>

namespace torvale::run {

using data::NamedValues;
using engine::CMPSYM;
using model::ModelLists;
using model::NX;
using syntax::parms_flag;
using syntax::parms_slot;
using syntax::random_slot;
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
    n.host->log().xpmlog(message::repeated_statement{.statement = "PARMS"}, place_at(n, "PARMS", found->where));
    tvlexit(n, 3000);
  }
  return found;
}

bool is_random_effect(const ModelLists& n, std::string_view name)
{
  for (const auto& stmt : n.proc->statements)
    if (stmt.name == "RANDOM")
      for (const auto& item : stmt.slot(random_slot::effects).list)
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
      n.host->log().xpmlog(message::parameter_given_twice{.name = named[i].name}, place_at(n, "PARMS", named[i].where));
      tvlexit(n, 1012);
    }
}

void refuse_other_roles(NX& n, const NamedValues& named, const CMPSYM& symbol)
{
  const auto place = place_at(n, "PARMS", named.where);
  const auto refuse = [&](const host::NumberedMessage& problem) {
    n.host->log().xpmlog(problem, place);
    tvlexit(n, 3000);
  };
  if (reserved_name(named.name)) refuse(message::reserved_name{.name = named.name, .role = "a parameter"});
  if (is_random_effect(n, named.name)) refuse(message::parameter_and_random_effect{.name = named.name});
  if (symbol.assigned) refuse(message::role_is_assigned{.name = named.name, .role = "a parameter"});
}

// Is the name a term of a sum somewhere in the program?
bool added_to_another(const std::string& program, const std::string& name)
{
  const auto part_of_name = [](char c) { return c == '_' || std::isalnum(static_cast<unsigned char>(c)) != 0; };
  const std::string text = host::wzstrup(program), word = host::wzstrup(name);
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    const std::size_t end = at + word.size();
    const bool whole = (at == 0 || !part_of_name(text[at - 1])) && (end == text.size() || !part_of_name(text[end]));
    const std::size_t before = text.find_last_not_of(' ', at == 0 ? 0 : at - 1),
                      after = text.find_first_not_of(' ', end);
    const char next = after == std::string::npos ? ' ' : text[after];
    if (whole && next != '*' && next != '/' &&
        ((at > 0 && before != std::string::npos && text[before] == '+') || next == '+'))
      return true;
  }
  return false;
}

// Names that are added to another while there is no RANDOM statement: they look like random effects.
std::string like_effects(const ModelLists& n, const std::vector<std::string>& defaulted)
{
  const bool any_random = std::any_of(n.proc->statements.begin(), n.proc->statements.end(),
                                      [](const STMT& s) { return s.name == "RANDOM"; });
  if (any_random) return {};
  const std::string program = engine::cmppprg(*n.gcmp);
  std::string names;
  for (const std::string& name : defaulted)
    if (added_to_another(program, name)) names += (names.empty() ? "" : ", ") + name;
  return names;
}

// Names that became parameters at 1, with the nearest name that might have been meant.
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
  if (!statement_given)
    n.host->log().xpmlog(message::no_parms_statement{.names = list});
  else if (defaulted.size() == 1)
    n.host->log().xpmlog(message::name_becomes_parameter{.names = list, .near = meant});
  else
    n.host->log().xpmlog(message::names_become_parameters{.names = list, .near = meant});
  const bool strict = n.host->option("STRICT") != nullptr;
  if (!statement_given && !strict) return;
  // With a PARMS statement such a name is a mistake more often than not.
  const std::string effects = like_effects(n, defaulted);
  if (strict) {
    n.host->log().xpmlog(message::name_not_in_parms_refused{.names = list, .near = meant, .effects = effects});
    tvlexit(n, 3000);
  }
  n.host->log().xpmlog(message::name_not_in_parms{.names = list, .near = meant, .effects = effects});
  n.raise(4);
}

// Some value is ._ or .A to .Z: programs that read the column then compare missing values by kind.
bool has_special_missing(const host::Column& column)
{
  const auto numbers = column.numbers();
  return std::any_of(numbers.begin(), numbers.end(),
                     [](double x) { return std::isnan(x) && host::missing_letter(x) != '.'; });
}

} // namespace

std::vector<engine::DataVariable> data_variables(const ModelLists& n)
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
    n.bestspec = parms->given(parms_slot::best);
    n.nbest = host::whole_number(parms->number_or(parms_slot::best, 1));
    n.bydata = parms->flag(parms_flag::bydata);
    if (data::parms_statement(n, *parms, named) != 0) tvlexit(n, 1012);
  }

  const auto is_named = [&](std::string_view name) {
    return std::any_of(named.begin(), named.end(),
                       [&](const NamedValues& v) { return host::equal_names(v.name, name); });
  };
  if (engine::cmprslv(*n.gcmp, data_variables(n)) != 0 || log_diagnostics(n) > 0) tvlexit(n, 1012);
  if (parms != nullptr && parms->given(parms_slot::data) && data::open_parms_data(n, *parms, named) != 0)
    tvlexit(n, n.pdata.data == nullptr || n.pdata.data->rows() == 0 ? 1008 : 3000);
  refuse_repeated(n, named);

  std::vector<std::string> defaulted;
  for (const CMPSYM* symbol : engine::cmpsymbols(*n.gcmp)) {
    if (!undefined(n, *symbol) || is_named(symbol->name) || host::equal_names(symbol->name, n.depname)) continue;
    if (symbol->type == 'c') {
      log.xpmlog(message::undefined_name_is_character{.name = symbol->name}, place_at(n, "", symbol->where));
      tvlexit(n, 1012);
    }
    defaulted.push_back(symbol->name);
  }

  for (const NamedValues& v : named) {
    CMPSYM* symbol = engine::cmpsyms(*n.gcmp, v.name);
    if (symbol == nullptr) symbol = engine::cmpsymd(*n.gcmp, v.name, 'v', 'n');
    refuse_other_roles(n, v, *symbol);
    if (n.fid->find(v.name) != nullptr) {
      log.xpmlog(message::parameter_in_data{.name = v.name}, place_at(n, "PARMS", v.where));
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
    n.host->log().xpmlog(message::grid_too_large{.points = product});
    tvlexit(n, 1012);
  }
  n.npoints = n.noprod ? longest : static_cast<long>(product);
  if (n.nbest > n.npoints) {
    n.host->log().xpmlog(message::best_above_points{.best = n.nbest, .points = n.npoints});
    n.nbest = static_cast<int>(n.npoints);
  }
}

} // namespace torvale::run
