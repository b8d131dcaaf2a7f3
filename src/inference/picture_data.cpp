#include "inference/picture_data.h"

#include "host/missing.h"
#include "host/text.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

using host::missing;
using model::BadCause;
using model::NX;

namespace {

ResponseKind kind_of(int distribution)
{
  switch (distribution) {
  case 0:
  case 1:
  case 7:
    return ResponseKind::continuous;
  case 2:
    return ResponseKind::binary;
  case 3:
  case 4:
  case 6:
    return ResponseKind::count;
  default:
    return ResponseKind::general;
  }
}

std::string label_of(const NX& n, int dsvarno)
{
  const host::Column& column = n.fid->columns()[static_cast<std::size_t>(dsvarno - 1)];
  return column.label().empty() ? column.name() : column.label();
}

// Rows of the store in use, by subject: where each subject's rows begin. One subject without random effects.
std::vector<std::int64_t> subject_starts(const NX& n)
{
  std::vector<std::int64_t> starts;
  if (n.nreff() > 0)
    for (const auto& s : n.reff[0].SubInfo) starts.push_back(s.first_row);
  else
    starts.push_back(0);
  starts.push_back(n.store->nobs);
  return starts;
}

// How often a variable changes from one record of a subject to the next.
std::int64_t changes_within(const NX& n, const engine::DataColumn& column, const std::vector<std::int64_t>& starts)
{
  const auto value = [&](std::int64_t r) { return column.numeric != nullptr ? column.numeric[r] : column.codes[r]; };
  std::int64_t changes = 0;
  for (std::size_t s = 0; s + 1 < starts.size(); ++s)
    for (std::int64_t r = starts[s] + 1; r < starts[s + 1]; ++r)
      if (n.store->badobs[static_cast<std::size_t>(r)] == BadCause::none && value(r) != value(r - 1)) ++changes;
  return changes;
}

// Time, where a variable is called so, is what people look along; otherwise what changes most.
bool names_time(const std::string& name)
{
  const std::string lower = host::wzstrlo(name);
  for (const char* word : {"time", "day", "days", "week", "hour", "month", "year", "age", "visit"})
    if (lower.find(word) != std::string::npos) return true;
  return lower == "t";
}

void axis_and_covariates(const NX& n, PictureData& out)
{
  const auto starts = subject_starts(n);
  const engine::DataColumn* axis = nullptr;
  double best = 0.0;
  for (const engine::CMPSYM* symbol : engine::cmppdv(*n.gcmp).variables) {
    const bool special =
        symbol == n.depsym || symbol == n.repsym || (n.nreff() > 0 && symbol->dsvarno == n.reff[0].sub_dsvarno);
    if (special) continue;
    const auto& columns = n.store->view.columns;
    const auto at =
        std::find_if(columns.begin(), columns.end(), [&](const auto& c) { return c.dsvarno == symbol->dsvarno; });
    if (at == columns.end()) continue;
    const std::int64_t changes = changes_within(n, *at, starts);
    if (changes == 0 && n.nreff() > 0) {
      SubjectCovariate covariate{label_of(n, at->dsvarno), {}, {}};
      for (const auto& s : n.reff[0].SubInfo)
        covariate.value.push_back(at->numeric != nullptr ? at->numeric[s.first_row] : at->codes[s.first_row]);
      if (at->dictionary != nullptr) covariate.levels = *at->dictionary;
      out.covariates.push_back(std::move(covariate));
    }
    const double rank = static_cast<double>(changes) * (names_time(symbol->name) ? 1e9 : 1.0);
    if (at->numeric != nullptr && rank > best) {
      best = rank;
      axis = &*at;
    }
  }
  if (axis == nullptr) return;
  out.axis = label_of(n, axis->dsvarno);
  for (const std::int64_t row : out.records.row) {
    const auto group_row = static_cast<std::size_t>(row) - n.rows.begin;
    out.axis_value.push_back(axis->numeric[n.store->row_of_group[group_row]]);
  }
}

} // namespace

int picture_data(NX& n, PictureData& out)
{
  if (fit_records(n, false, out.records) != 0) return 1;
  out.kind = kind_of(n.disttype);
  out.normal = n.disttype == 0;
  const auto at = n.fid->xvfind(n.depname);
  out.response = at == host::DataSet::npos ? n.depname : label_of(n, static_cast<int>(at) + 1);
  if (n.nreff() > 0) {
    const auto& reff = n.reff[0];
    out.subject_label = reff.subname;
    out.effects = reff.names;
    for (const auto& s : reff.SubInfo) out.subjects.push_back(s.prnc);
    const auto nr = static_cast<std::size_t>(reff.nr);
    out.mode.assign(reff.SubInfo.size() * nr, missing);
    for (std::size_t s = 0; s < reff.SubInfo.size() && s < n.ebes_known.size(); ++s)
      if (n.ebes_known[s] != 0 && !reff.SubInfo[s].badsub)
        std::copy_n(n.ebes.begin() + static_cast<long>(s * nr), nr, out.mode.begin() + static_cast<long>(s * nr));
    if (!random_effect_moments(n, out.prior)) return 1;
  }
  axis_and_covariates(n, out);
  return 0;
}

} // namespace torvale::inference
