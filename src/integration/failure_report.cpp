#include "integration/failure_report.h"

#include <algorithm>

namespace torvale::integration {

using model::NX;

void report_failure(const NX& n)
{
  const auto first = std::find_if(n.slot_status.begin(), n.slot_status.end(), [](int status) { return status != 0; });
  if (first == n.slot_status.end() || n.host == nullptr) return;
  const auto slot = static_cast<std::size_t>(first - n.slot_status.begin());
  host::MessageArguments arguments;
  if (n.nreff() > 0) arguments.emplace_back("subject", n.reff[0].SubInfo[slot].prnc);
  const std::int64_t row = n.slot_row[slot];
  if (row >= 0 && n.nreff() == 0) arguments.emplace_back("observation", n.store->group_row[static_cast<std::size_t>(row)] + 1);
  if (n.str != nullptr) arguments.emplace_back("iteration", n.str->piter + 1.0);
  n.host->log().xpmlog(503, *first, arguments);
}

} // namespace torvale::integration
