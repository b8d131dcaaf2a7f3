#include "data/subject_counts.h"

#include "evaluation/program_faults.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/statements.h"

#include <algorithm>
#include <cmath>

namespace torvale::data {

using evaluation::observation_number;
using evaluation::place_of;
using model::BadCause;
using model::NX;

namespace {

bool same_value(double a, double b)
{
  return a == b || (std::isnan(a) && std::isnan(b));
}

// A distribution argument of the level's RANDOM statement differs from the subject's first.
bool argument_changes(NX& n, const PassFindings& pass, std::size_t level, std::int64_t first, std::int64_t row)
{
  const auto& reff = n.reff[level];
  const double* const here = arguments_at(n, pass, level, row);
  if (std::equal(here, here + reff.nd, arguments_at(n, pass, level, first), same_value)) return false;
  std::string variables;
  for (const int dsvarno : reff.rhs)
    variables += (variables.empty() ? "" : ", ") + n.fid->columns()[static_cast<std::size_t>(dsvarno - 1)].name();
  const auto record = place_of(n, row);
  auto place = n.sources->place("RANDOM", reff.stmt->where);
  place.row = record.row;
  place.subject = record.subject;
  n.host->log().xpmlog(
      message::random_argument_changes{.observation = observation_number(n, row), .variables = variables}, place);
  return true;
}

// A data variable behind these arguments does.
bool variable_changes(NX& n, const model::REFFECT& reff, std::int64_t first, std::int64_t row)
{
  for (const int dsvarno : reff.rhs)
    for (const auto& column : n.store->view.columns) {
      if (column.dsvarno != dsvarno) continue;
      if (column.numeric != nullptr ? same_value(column.numeric[row], column.numeric[first])
                                    : column.codes[row] == column.codes[first])
        continue;
      n.host->log().xpmlog(
          message::random_variable_changes{.variable = n.fid->columns()[static_cast<std::size_t>(dsvarno - 1)].name(),
                                           .observation = observation_number(n, row)},
          place_of(n, row));
      return true;
    }
  return false;
}

bool replicate_changes(NX& n, std::int64_t first, std::int64_t row)
{
  if (n.repsym == nullptr) return false;
  const auto& counts = n.store->replicate;
  if (same_value(counts[static_cast<std::size_t>(row)], counts[static_cast<std::size_t>(first)])) return false;
  n.host->log().xpmlog(message::replicate_changes{.variable = n.repname, .observation = observation_number(n, row)},
                       place_of(n, row));
  return true;
}

// Something that must not change within a subject does: said.
bool changes_within(NX& n, const PassFindings& pass, const model::SUBINFO& subject)
{
  const auto level = static_cast<std::size_t>(subject.ranind);
  const std::int64_t first = subject.fvalidobs;
  for (std::int64_t row = first + 1; row < subject.first_row + subject.SubCount; ++row) {
    if (n.store->badobs[static_cast<std::size_t>(row)] != BadCause::none) continue;
    if (argument_changes(n, pass, level, first, row) || variable_changes(n, n.reff[level], first, row) ||
        replicate_changes(n, first, row))
      return true;
  }
  return false;
}

} // namespace

int count_subjects(NX& n, const PassFindings& pass, model::REFFECT& reff)
{
  reff.nsub = 0;
  reff.nrepsub = 0.0;
  reff.ntmax = 0;
  const bool all_used = n.store->nobsu == n.store->nobs;
  const bool may_change = reff.setup_varies || !reff.rhs.empty() || n.repsym != nullptr;
  for (auto& subject : reff.SubInfo) {
    const std::int32_t last = subject.first_row + subject.SubCount;
    subject.used = 0;
    if (all_used) {
      subject.used = subject.SubCount;
      subject.fvalidobs = subject.first_row;
      subject.lvalidobs = last - 1;
    }
    for (std::int32_t row = subject.first_row; row < last && !all_used; ++row) {
      if (n.store->badobs[static_cast<std::size_t>(row)] != BadCause::none) continue;
      if (subject.used++ == 0) subject.fvalidobs = row;
      subject.lvalidobs = row;
    }
    subject.badsub = subject.used == 0;
    if (subject.badsub) continue;
    subject.weight = n.repsym != nullptr ? n.store->replicate[static_cast<std::size_t>(subject.lvalidobs)] : 1.0;
    ++reff.nsub;
    reff.nrepsub += subject.weight;
    reff.ntmax = std::max<long>(reff.ntmax, subject.used);
    if (may_change && changes_within(n, pass, subject)) {
      n.raise(1012);
      return 1;
    }
  }
  return 0;
}

} // namespace torvale::data
