#include "data/starting_values.h"

#include "host/messages/names/fit.h"
#include "host/messages/names/starting_values.h"
#include "host/messages/names/statements.h"
#include "host/values/missing.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <cmath>

namespace torvale::data {

using model::ModelLists;
using model::NX;
using syntax::parms_slot;

namespace {

host::MessagePlace place_of(const ModelLists& n, syntax::Position where)
{
  return n.sources->place("PARMS", where);
}

// first TO last BY step: the count is fixed at the start, so that rounding does not lose the end point.
void expand(const syntax::StItem& item, std::vector<double>& values)
{
  const double steps = std::floor((item.to - item.number) / item.by + 1e-9);
  for (double k = 0; k <= steps; k += 1) values.push_back(item.number + k * item.by);
}

bool mentioned(const ModelLists& n, std::string_view name)
{
  return engine::cmpsyms(*n.gcmp, name) != nullptr;
}

int long_form(NX& n, const host::DataSet& data, const host::ByGroup& rows, std::vector<NamedValues>& found)
{
  const host::Column& names = *data.find("Parameter");
  const host::Column& estimates = *data.find("Estimate");
  bool read_missing = false;
  for (std::size_t row = rows.begin; row < rows.end; ++row) {
    const std::string name(host::stripped(names.text(row)));
    auto it =
        std::find_if(found.begin(), found.end(), [&](const NamedValues& v) { return host::equal_names(v.name, name); });
    if (it == found.end()) it = found.insert(found.end(), {name, {}, {}});
    const double value = estimates.number(row);
    read_missing = read_missing || std::isnan(value);
    it->values.push_back(std::isnan(value) ? 1.0 : value);
  }
  if (read_missing) n.host->log().xpmlog(message::missing_start_read_as_one{.data = data.name});
  return 0;
}

int wide_form(NX& n, const host::DataSet& data, const host::ByGroup& rows, std::vector<NamedValues>& found)
{
  bool read_missing = false;
  for (const host::Column& column : data.columns()) {
    const bool is_by = std::any_of(n.bylist.begin(), n.bylist.end(),
                                   [&](const host::ByVariable& v) { return host::equal_names(v.name, column.name()); });
    if (is_by) continue;
    if (!mentioned(n, column.name())) {
      n.host->log().xpmlog(message::starting_variable_unused{.variable = column.name(), .data = data.name});
      continue;
    }
    if (!column.numeric()) {
      n.host->log().xpmlog(message::starting_variable_not_numeric{.variable = column.name(), .data = data.name});
      return 1;
    }
    NamedValues values{column.name(), {}, {}};
    for (std::size_t row = rows.begin; row < rows.end; ++row) {
      read_missing = read_missing || std::isnan(column.number(row));
      values.values.push_back(std::isnan(column.number(row)) ? 1.0 : column.number(row));
    }
    found.push_back(std::move(values));
  }
  if (read_missing) n.host->log().xpmlog(message::missing_start_read_as_one{.data = data.name});
  return 0;
}

int read_rows(NX& n, const host::ByGroup& rows, std::vector<NamedValues>& found)
{
  const host::DataSet& data = *n.pdata.data;
  return n.pdata.wide ? wide_form(n, data, rows, found) : long_form(n, data, rows, found);
}

} // namespace

int parms_statement(NX& n, const syntax::STMT& parms, std::vector<NamedValues>& found)
{
  std::size_t waiting = 0; // names from here on have no values yet
  bool in_values = false;
  std::vector<double> values;
  const auto close = [&] {
    for (std::size_t i = waiting; i < found.size(); ++i) found[i].values = values;
    waiting = found.size();
    values.clear();
  };
  for (const syntax::StItem& item : parms.slot(parms_slot::values).list) {
    if (item.kind == syntax::StItem::Kind::name) {
      if (in_values) close();
      in_values = false;
      found.push_back({item.text, {}, item.where});
    } else if (item.kind == syntax::StItem::Kind::range) {
      in_values = true;
      expand(item, values);
    } else {
      in_values = true;
      values.push_back(item.number);
    }
  }
  if (in_values) close();
  if (waiting < found.size()) {
    n.host->log().xpmlog(message::no_starting_value{.name = found[waiting].name}, place_of(n, found[waiting].where));
    return 1;
  }
  return 0;
}

int open_parms_data(NX& n, const syntax::STMT& parms, std::vector<NamedValues>& found)
{
  auto& log = n.host->log();
  const syntax::StItem& item = parms.slot(parms_slot::data).list.at(0);
  const auto place = place_of(n, item.where);
  host::DataSetReference reference{item.text, item.quoted, {}};
  if (!item.options.empty()) {
    auto options = host::parse_data_set_options(item.options, log, place);
    if (!options) return 1;
    reference.options = std::move(*options);
  }
  auto data = n.host->libraries().xoopen(reference, log, place);
  if (!data) return 1;
  n.pdata.data = std::make_shared<const host::DataSet>(std::move(*data));
  const host::DataSet& d = *n.pdata.data;

  const host::Column* names = d.find("Parameter");
  const host::Column* estimates = d.find("Estimate");
  n.pdata.wide = names == nullptr || names->numeric();
  if (!n.pdata.wide && estimates == nullptr) {
    log.xpmlog(message::no_estimate_variable{.data = d.name}, place);
    return 1;
  }
  if (!n.pdata.wide && !estimates->numeric()) {
    log.xpmlog(message::starting_variable_not_numeric{.variable = "Estimate", .data = d.name}, place);
    return 1;
  }

  if (d.rows() == 0) {
    log.xpmlog(message::parms_data_without_rows{.data = d.name}, place);
    return 1;
  }

  host::ByGroup rows{0, d.rows()};
  if (n.bydata && !n.bylist.empty()) {
    const int match = host::ByGroups::xbylist(*n.fid, d, n.bylist);
    if (match == 1) {
      log.xpmlog(message::starting_by_variable_mismatch{.data = d.name}, place);
      return 1;
    }
    if (match == 2) {
      log.xpmlog(message::bydata_without_effect{.data = d.name}, place);
    } else {
      n.pdata.by = true;
      if (n.pdata.groups.build(d, n.bylist, true, log) != 0) return 1;
      if (n.pdata.groups.count() > 0) rows = n.pdata.groups.group(0);
    }
  } else if (n.bydata) {
    log.xpmlog(message::bydata_without_effect{.data = d.name}, place);
  }
  std::vector<NamedValues> read;
  if (read_rows(n, rows, read) != 0) return 1;
  for (NamedValues& v : read) {
    v.where = item.where;
    n.pdata.names.push_back(v.name);
    found.push_back(std::move(v)); // a name that stands in the statement too is refused, not joined
  }
  n.noprod = true;
  return 0;
}

int load_group_values(NX& n)
{
  if (!n.pdata.by) return 0;
  // The group with the same BY values, wherever it stands in the PARMS data set.
  const auto match = n.pdata.groups.xbysync(*n.by_groups, static_cast<std::size_t>(n.group));
  if (!match) {
    n.host->log().xpmlog(message::no_starting_rows_for_group{.data = n.pdata.data->name});
    n.raise(1012);
    return 1;
  }
  std::vector<NamedValues> values;
  if (read_rows(n, n.pdata.groups.group(*match), values) != 0) return 1;
  n.npoints = 1;
  for (auto& p : n.parmstr) {
    const auto it = std::find_if(values.begin(), values.end(),
                                 [&](const NamedValues& v) { return host::equal_names(v.name, p.parmname); });
    if (it != values.end()) p.parmlist = it->values;
    n.npoints = std::max<long>(n.npoints, p.npoint());
  }
  return 0;
}

bool grid_point(const ModelLists& n, long p, double* theta)
{
  bool good = true;
  long k = p;
  for (std::size_t i = 0; i < n.parmstr.size(); ++i) {
    const auto& parameter = n.parmstr[i];
    const long count = parameter.npoint();
    long index = 0;
    if (n.noprod) {
      index = count == 1 ? 0 : p; // one value holds for all rows
      if (index >= count) {
        good = false;
        index = count - 1;
      }
    } else {
      index = k % count;
      k /= count;
    }
    const double value = parameter.held() ? parameter.lowbound : parameter.parmlist[static_cast<std::size_t>(index)];
    theta[i] = value;
    const bool inside =
        !(parameter.applyh && value > parameter.highbound) && !(parameter.applyl && value < parameter.lowbound);
    good = good && !std::isnan(value) && inside;
  }
  return good;
}

} // namespace torvale::data
