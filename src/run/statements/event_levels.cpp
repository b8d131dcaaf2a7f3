// Event records and the subjects that they belong to.

#include "compartment/event_data.h"
#include "host/data/by_groups.h"
#include "host/messages/names/compartments.h"
#include "run/statements/statement_processing.h"

#include <algorithm>
#include <map>

namespace torvale::run {

using model::NX;

namespace {

// Does a BY variable change at this row?
bool begins_group(const NX& n, std::size_t row)
{
  return std::any_of(n.bylist.begin(), n.bylist.end(), [&](const host::ByVariable& by) {
    const host::Column& column = *n.fid->find(by.name);
    return column.shown(row) != column.shown(row - 1);
  });
}

std::vector<compartment::Variable> numeric_variables(const NX& n)
{
  std::vector<compartment::Variable> data;
  for (const auto& column : n.fid->columns())
    if (column.numeric()) data.push_back({column.name(), false, column.numbers()});
  return data;
}

// Numbers the subjects of the rows: rows are of the same one when they are of the same BY group and the variables of
// the levels from `first` on have the same values there.
std::vector<std::size_t> subjects_of_rows(const NX& n, std::size_t first)
{
  std::map<std::vector<std::string>, std::size_t> numbers;
  std::vector<std::size_t> subject(n.fid->rows());
  std::size_t group = 0;
  for (std::size_t row = 0; row < subject.size(); ++row) {
    if (row > 0 && begins_group(n, row)) ++group;
    std::vector<std::string> key = {std::to_string(group)};
    for (std::size_t k = first; k < n.reff.size(); ++k)
      key.push_back(n.fid->columns()[static_cast<std::size_t>(n.reff[k].sub_dsvarno - 1)].shown(row));
    subject[row] = numbers.try_emplace(std::move(key), numbers.size()).first->second;
  }
  return subject;
}

} // namespace

void refuse_doses_across_levels(NX& n)
{
  const auto data = numeric_variables(n);
  std::vector<std::size_t> outer, inner;
  for (const auto& statement : n.proc->statements) {
    if (statement.name != "CMPTMODEL") continue;
    if (outer.empty()) {
      outer = subjects_of_rows(n, n.reff.size() - 1);
      inner = subjects_of_rows(n, 0);
    }
    const auto crossing = compartment::dose_across_subjects(statement, data, outer, inner);
    if (!crossing) continue;
    host::MessagePlace place = place_at(n, "CMPTMODEL", statement.where);
    place.row = n.fid->file_row(crossing->record);
    const auto outermost = static_cast<std::size_t>(n.reff.back().sub_dsvarno - 1);
    place.subject = n.fid->columns()[outermost].shown(crossing->record);
    n.host->log().xpmlog(message::dose_across_subjects{.dose = static_cast<long>(crossing->dose + 1),
                                                       .record = static_cast<long>(crossing->record + 1),
                                                       .level = n.reff.front().subname},
                         place);
    tvlexit(n, 3000);
  }
}

void refuse_events_without_subjects(NX& n)
{
  std::vector<std::size_t> group;
  for (const auto& statement : n.proc->statements) {
    if (statement.name != "CMPTMODEL") continue;
    if (group.empty()) group = subjects_of_rows(n, 0);
    const auto row = compartment::falling_time(statement, numeric_variables(n), group);
    if (!row) continue;
    host::MessagePlace place = place_at(n, "CMPTMODEL", statement.where);
    place.row = n.fid->file_row(*row);
    n.host->log().xpmlog(message::events_without_subjects{.record = static_cast<long>(*row + 1)}, place);
    tvlexit(n, 3000);
  }
}

} // namespace torvale::run
