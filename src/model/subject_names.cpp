#include "model/subject_names.h"

#include "host/data/data_set.h"

namespace torvale::model {

std::size_t input_row(const GroupState& n, std::int64_t row)
{
  return n.rows.begin + static_cast<std::size_t>(n.store->group_row(row));
}

std::int64_t file_row(const NX& n, std::int64_t row)
{
  const std::size_t at = input_row(n, row);
  return n.fid != nullptr ? n.fid->file_row(at) : static_cast<std::int64_t>(at) + 1;
}

std::string subject_name(const NX& n, const SUBINFO& subject)
{
  const REFFECT& reff = n.reff[static_cast<std::size_t>(subject.ranind)];
  if (n.fid == nullptr || reff.sub_dsvarno <= 0) return std::to_string(subject.index + 1);
  return n.fid->columns()[static_cast<std::size_t>(reff.sub_dsvarno - 1)].shown(input_row(n, subject.first_row));
}

std::string chain_name(const NX& n, const SUBINFO& subject)
{
  const std::string own = subject_name(n, subject);
  if (subject.parent < 0) return own;
  const REFFECT& parents = n.reff[static_cast<std::size_t>(subject.ranind) + 1];
  return chain_name(n, parents.SubInfo[static_cast<std::size_t>(subject.parent)]) + "-" + own;
}

} // namespace torvale::model
