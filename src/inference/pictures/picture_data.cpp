#include "inference/pictures/picture_data.h"

#include "host/values/missing.h"
#include "host/values/text.h"
#include "inference/outputs/response_moments.h"
#include "model/subject_names.h"

#include <algorithm>
#include <cmath>

namespace torvale::inference {

using host::missing;
using model::ModelLists;
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

std::string label_of(const host::Column& column)
{
  return column.label().empty() ? column.name() : column.label();
}

// The values of a column of the input data set, of the records in use: numbers, or codes of texts.
std::vector<double> values_of(const host::Column& column, const FitRecords& records)
{
  std::vector<double> out;
  out.reserve(records.row.size());
  for (const std::int64_t row : records.row) {
    const auto r = static_cast<std::size_t>(row);
    out.push_back(column.numeric() ? column.number(r) : column.codes()[r]);
  }
  return out;
}

// How many distinct values a variable has within a subject, on average; a value counts when it differs from the one
// before.
double changes_within(const std::vector<double>& values, const std::vector<std::int32_t>& subject)
{
  std::vector<std::pair<std::int32_t, double>> pairs;
  for (std::size_t i = 0; i < values.size(); ++i) pairs.emplace_back(subject[i], values[i]);
  std::stable_sort(pairs.begin(), pairs.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  double subjects = 0, changes = 0;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const bool first = i == 0 || pairs[i].first != pairs[i - 1].first;
    subjects += first ? 1 : 0;
    changes += first || pairs[i].second == pairs[i - 1].second ? 0 : 1;
  }
  return changes / std::max(1.0, subjects);
}

// Time, where a variable is called so, is what people look along.
bool names_time(const std::string& name)
{
  const std::string lower = host::wzstrlo(name);
  for (const char* word : {"time", "day", "week", "hour", "month", "year", "age", "visit", "period"})
    if (lower.find(word) != std::string::npos) return true;
  return lower == "t";
}

void record_numbers(PictureData& out)
{
  std::vector<double> count(out.levels.empty() ? 1 : out.levels[0].subjects.size() + 1, 0.0);
  out.axis = out.levels.empty() ? "Record" : "Record of the subject";
  for (const std::int32_t s : out.records.subject) out.axis_value.push_back(++count[static_cast<std::size_t>(s + 1)]);
}

// Per record the place of its subject in the index of a level.
std::vector<std::int32_t> subjects_at(const ModelLists& n, const FitRecords& records, std::size_t level)
{
  std::vector<std::int32_t> out = records.subject;
  for (std::size_t k = 0; k < level; ++k)
    for (std::int32_t& s : out)
      if (s >= 0) s = n.reff[k].SubInfo[static_cast<std::size_t>(s)].parent;
  return out;
}

void add_covariate(const host::Column& column, const std::vector<double>& values,
                   const std::vector<std::int32_t>& subject, EffectLevel& level)
{
  SubjectCovariate covariate{label_of(column), std::vector<double>(level.subjects.size(), missing), {}};
  for (std::size_t i = 0; i < values.size(); ++i) covariate.value[static_cast<std::size_t>(subject[i])] = values[i];
  if (!column.numeric()) covariate.levels = column.dictionary();
  level.covariates.push_back(std::move(covariate));
}

// The axis: a number that changes along a subject's records, called like a time before others, read by the program
// before others. What does not change within subjects and is read by the program is a covariate.
void axis_and_covariates(const NX& n, PictureData& out)
{
  const auto program = engine::cmppdv(*n.gcmp).variables;
  std::vector<std::vector<std::int32_t>> subject = {out.records.subject};
  for (std::size_t k = 1; k < n.reff.size(); ++k) subject.push_back(subjects_at(n, out.records, k));
  const host::Column* axis = nullptr;
  double best = 0.0;
  for (std::size_t k = 0; k < n.fid->columns().size(); ++k) {
    const host::Column& column = n.fid->columns()[k];
    const bool special = host::equal_names(column.name(), n.depname) || host::equal_names(column.name(), n.repname) ||
                         std::any_of(n.reff.begin(), n.reff.end(),
                                     [&](const auto& reff) { return static_cast<int>(k) + 1 == reff.sub_dsvarno; });
    const bool read = std::any_of(program.begin(), program.end(),
                                  [&](const auto* symbol) { return symbol->dsvarno == static_cast<int>(k) + 1; });
    if (special || (!read && !(column.numeric() && names_time(column.name())))) continue;
    const std::vector<double> values = values_of(column, out.records);
    const double changes = changes_within(values, out.records.subject);
    for (std::size_t level = 0; read && level < out.levels.size(); ++level)
      if (changes_within(values, subject[level]) == 0) add_covariate(column, values, subject[level], out.levels[level]);
    const double rank = changes * (names_time(column.name()) ? 1e6 : 1.0);
    if (column.numeric() && changes >= 1.5 && rank > best) {
      best = rank;
      axis = &column;
    }
  }
  if (axis == nullptr) return record_numbers(out);
  out.axis = label_of(*axis);
  out.axis_value = values_of(*axis, out.records);
}

// From at most this many records, since each takes a distribution function at every bin.
constexpr std::size_t most_counted = 3000;

void add_frequencies(int distribution, PictureData& out)
{
  const auto& r = out.records;
  const auto each = static_cast<std::size_t>(response_arguments(distribution));
  out.frequency_step = (r.response.size() + most_counted - 1) / most_counted;
  std::vector<double> response, arguments;
  for (std::size_t i = 0; i < r.response.size(); i += out.frequency_step) {
    response.push_back(r.response[i]);
    for (std::size_t k = 0; k < each; ++k) arguments.push_back(r.arguments[i * each + k]);
  }
  out.frequencies = count_frequencies(distribution, response, arguments);
}

} // namespace

int picture_data(NX& n, PictureData& out)
{
  if (fit_records(n, out.records) != 0) return 1;
  out.kind = kind_of(n.disttype);
  out.normal = n.disttype == 0;
  const auto at = n.fid->xvfind(n.depname);
  out.response = at == host::DataSet::npos ? n.depname : label_of(n.fid->columns()[at]);
  out.replicated = n.repsym != nullptr;
  for (const auto& reff : n.reff) {
    EffectLevel& level = out.levels.emplace_back();
    level.subject_label = reff.subname;
    level.effects = reff.names;
    for (const auto& s : reff.SubInfo) level.subjects.push_back(model::chain_name(n, s));
    level.mode = random_effect_modes(n, reff);
    if (!random_effect_moments(n, reff, level.prior)) return 1;
  }
  axis_and_covariates(n, out);
  if (out.kind == ResponseKind::count) add_frequencies(n.disttype, out);
  return 0;
}

} // namespace torvale::inference
