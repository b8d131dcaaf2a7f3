#include "evaluation/program_faults.h"

#include "model/subject_names.h"

#include <algorithm>

namespace torvale::evaluation {

using model::GroupState;
using model::ModelLists;
using model::NX;

namespace {

constexpr std::size_t longest_source = 72; // characters of a line that a message shows

std::string shortened(std::string_view line)
{
  std::string text(host::stripped(line));
  if (text.size() <= longest_source) return text;
  std::size_t end = longest_source - 4;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end; // not inside a character
  return text.substr(0, end) + " ...";
}

} // namespace

host::MessagePlace place_of(const NX& n, std::int64_t row)
{
  host::MessagePlace place;
  place.row = model::file_row(n, row);
  if (n.nreff() > 0) {
    const auto& subjects = n.leaf().SubInfo;
    const auto it = std::upper_bound(subjects.begin(), subjects.end(), row,
                                     [](std::int64_t r, const model::SUBINFO& s) { return r < s.first_row; });
    if (it != subjects.begin()) place.subject = model::chain_name(n, *std::prev(it));
  }
  return place;
}

std::int64_t observation_number(const GroupState& n, std::int64_t row)
{
  return n.store->group_row(row) + 1;
}

FaultWords words_of(const ModelLists& n, const engine::Fault& fault)
{
  const syntax::Position where = n.sources->user_position(fault.where);
  auto place = n.sources->place({}, fault.where);
  place.column = 0; // the statement's line is meant
  return {fault.text, where.line > 0 ? shortened(n.sources->line_text(where)) : "", std::move(place)};
}

} // namespace torvale::evaluation
