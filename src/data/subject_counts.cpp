#include "data/subject_counts.h"

#include "evaluation/program_faults.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/statements.h"
#include "parallel/worker_pool.h"

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

// The used rows of a subject.
void find_used(const model::Store& store, model::SUBINFO& subject)
{
  const std::int32_t last = subject.first_row + subject.SubCount;
  subject.used = 0;
  if (store.nobsu == store.nobs) {
    subject.used = subject.SubCount;
    subject.fvalidobs = subject.first_row;
    subject.lvalidobs = last - 1;
  } else {
    for (std::int32_t row = subject.first_row; row < last; ++row) {
      if (store.badobs[static_cast<std::size_t>(row)] != BadCause::none) continue;
      if (subject.used++ == 0) subject.fvalidobs = row;
      subject.lvalidobs = row;
    }
  }
  subject.badsub = subject.used == 0;
  subject.weight =
      !subject.badsub && !store.replicate.empty() ? store.replicate[static_cast<std::size_t>(subject.lvalidobs)] : 1.0;
}

struct Totals {
  long usable = 0, most_used = 0;
};

Totals find_used_rows(const NX& n, model::REFFECT& reff)
{
  constexpr std::size_t block_subjects = 4096;
  auto& subjects = reff.SubInfo;
  std::vector<Totals> of_block((subjects.size() + block_subjects - 1) / block_subjects);
  parallel::deal(n.workers.get(), static_cast<long>(of_block.size()), [&](int, long block) {
    Totals totals;
    const std::size_t first = static_cast<std::size_t>(block) * block_subjects;
    for (std::size_t s = first; s < std::min(first + block_subjects, subjects.size()); ++s) {
      find_used(*n.store, subjects[s]);
      totals.usable += subjects[s].badsub ? 0 : 1;
      totals.most_used = std::max<long>(totals.most_used, subjects[s].used);
    }
    of_block[static_cast<std::size_t>(block)] = totals;
  });
  Totals sum;
  for (const Totals& totals : of_block) {
    sum.usable += totals.usable;
    sum.most_used = std::max(sum.most_used, totals.most_used);
  }
  return sum;
}

} // namespace

int count_subjects(NX& n, const PassFindings& pass, model::REFFECT& reff)
{
  const Totals totals = find_used_rows(n, reff);
  reff.nsub = totals.usable;
  reff.ntmax = totals.most_used;
  reff.nrepsub = static_cast<double>(totals.usable);
  if (n.repsym != nullptr) {
    reff.nrepsub = 0.0;
    for (const auto& subject : reff.SubInfo) reff.nrepsub += subject.badsub ? 0.0 : subject.weight;
  }
  if (!reff.setup_varies && reff.rhs.empty() && n.repsym == nullptr) return 0; // nothing may change
  for (const auto& subject : reff.SubInfo) {
    if (subject.badsub || !changes_within(n, pass, subject)) continue;
    n.raise(1012);
    return 1;
  }
  return 0;
}

} // namespace torvale::data
