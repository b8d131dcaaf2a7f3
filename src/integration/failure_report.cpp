#include "integration/failure_report.h"

#include "evaluation/program_faults.h"
#include "integration/objective.h"

#include <algorithm>
#include <utility>

namespace torvale::integration {

using model::NX;

namespace {

// A fault of the program in one of the rows, at n.parm and random effects of 0: message 72. False when there is none.
bool report_program_fault(const NX& n, std::int64_t first, std::int64_t last, host::MessageArguments arguments)
{
  constexpr std::int64_t searched_most = 20000;
  engine::Frame frame(*n.gcmp, n.bound);
  frame.set_parameters(n.parm.data());
  std::size_t effects = 1;
  for (const auto& r : n.reff) effects += static_cast<std::size_t>(r.nr);
  const std::vector<double> zero(effects, 0.0);
  frame.set_points(zero.data(), 1, 1);
  for (std::int64_t row = first; row < std::min(last, first + searched_most); ++row) {
    if (n.store->badobs[static_cast<std::size_t>(row)] != model::BadCause::none) continue;
    frame.set_range(row, 1);
    std::vector<engine::Fault> faults;
    int nerror = 0, nmissgen = 0;
    frame.run_checked(*n.programs.value.code, row, 0, faults, nerror, nmissgen);
    if (faults.empty()) continue;
    host::MessagePlace place = evaluation::place_of(n, faults.front().row);
    arguments.emplace_back("observation", evaluation::observation_number(n, faults.front().row));
    evaluation::words_of(n, faults.front()).add_to(arguments, place);
    n.host->log().xpmlog(503, 72, arguments, place);
    return true;
  }
  return false;
}

} // namespace

void report_failure(const NX& n)
{
  if (n.host == nullptr) return;
  host::MessageArguments arguments;
  if (n.str != nullptr) arguments.emplace_back("iteration", n.failed_iteration);
  const auto first = std::find_if(n.slot_status.begin(), n.slot_status.end(), [](int status) { return status != 0; });
  if (first == n.slot_status.end()) { // the program ended the run, and nothing was summed
    report_program_fault(n, 0, n.store->nobs, arguments);
    return;
  }
  const auto slot = static_cast<std::size_t>(first - n.slot_status.begin());
  const std::int64_t row = n.slot_row[slot];
  if (n.nreff() > 0) {
    const model::SUBINFO& subject = n.outer().SubInfo[slot];
    if (report_program_fault(n, subject.first_row, subject.first_row + subject.SubCount, arguments)) return;
    arguments.emplace_back("subject", subject.prnc);
  } else if (row >= 0) {
    if (report_program_fault(n, row, row + 1, arguments)) return;
    arguments.emplace_back("observation", evaluation::observation_number(n, row));
  }
  n.host->log().xpmlog(503, *first, arguments);
}

void explain_failure(NX& n, const std::vector<double>& parm)
{
  const bool details = std::exchange(n.itdetails, true);
  const bool gradient = std::exchange(n.dograd, false);
  const std::vector<double> before = std::exchange(n.parm, parm);
  const double iteration = n.failed_iteration;
  tvllike(n);
  n.failed_iteration = iteration;
  n.parm = before;
  n.dograd = gradient;
  n.itdetails = details;
}

} // namespace torvale::integration
