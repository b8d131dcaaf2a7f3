#include "integration/failure_report.h"

#include "evaluation/program_faults.h"
#include "evaluation/record_frame.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/statements.h"
#include "host/values/text.h"
#include "integration/objective.h"
#include "model/subject_names.h"

#include <algorithm>
#include <utility>

namespace torvale::integration {

using model::NX;

namespace {

// The iteration in which the failure happened; empty outside the optimizer's run.
std::string iteration_text(const NX& n)
{
  return n.str != nullptr ? host::readable(n.failed_iteration) : std::string();
}

// A fault of the program in one of the rows, at n.parm and random effects of 0. False when there is none.
bool report_program_fault(const NX& n, std::int64_t first, std::int64_t last)
{
  constexpr std::int64_t searched_most = 20000;
  evaluation::RecordFrame records(n, n.parm.data());
  engine::Frame& frame = records.frame;
  for (std::int64_t row = first; row < std::min(last, first + searched_most); ++row) {
    if (n.store->badobs[static_cast<std::size_t>(row)] != model::BadCause::none) continue;
    frame.set_range(row, 1);
    std::vector<engine::Fault> faults;
    int nerror = 0, nmissgen = 0;
    frame.run_checked(*n.programs.value.code, row, 0, faults, nerror, nmissgen);
    if (faults.empty()) continue;
    host::MessagePlace place = evaluation::place_of(n, faults.front().row);
    message::program_failed words{.observation = evaluation::observation_number(n, faults.front().row),
                                  .iteration = iteration_text(n)};
    evaluation::words_of(n, faults.front()).add_to(words, place);
    n.host->log().xpmlog(words, place);
    return true;
  }
  return false;
}

// What is wrong with the probabilities of discrete effects at a subject, at n.parm: one is below 0, or nothing is left
// for the point that is derived from the others. Empty when nothing is.
std::string fault_of_probabilities(const NX& n, const model::SUBINFO& subject)
{
  const model::REFFECT& reff = n.leaf();
  if (reff.distrtype == 0 || engine::sequential(*reff.setup_value.code)) return {};
  evaluation::RecordFrame records(n, n.parm.data());
  engine::Tile one;
  one.lanes = 1;
  one.first = static_cast<std::int32_t>(subject.first_row);
  records.frame.set_range(subject.first_row, 1);
  if (records.frame.run(*reff.setup_value.code, one) > 2) return {};
  double sum = 0.0, least = 0.0;
  for (int k = reff.nr; k < reff.nd; k += reff.nr + 1) {
    const double probability = records.frame.output(k)[0];
    sum += probability;
    least = std::min(least, probability);
  }
  if (least < 0.0) return "a probability of DISCRETE is " + host::readable(least);
  if (sum >= 1.0)
    return "the probabilities of DISCRETE add up to " + host::readable(sum) +
           ", and nothing is left for the last point, which is derived from the others and not written";
  return sum > 0.0 ? "" : "the probabilities of DISCRETE are 0, and the last point takes all";
}

// The message of a subject's status: the number of one of these.
host::NumberedMessage status_message(int status, const host::OptionalMessageValue& subject,
                                     const host::OptionalMessageValue& row, const std::string& iteration,
                                     const std::string& reason)
{
  switch (status) {
  case message::likelihood_not_usable::message_number:
    return message::likelihood_not_usable{
        .subject = subject, .observation = row, .iteration = iteration, .reason = reason};
  case message::random_covariance_not_definite::message_number:
    return message::random_covariance_not_definite{.subject = subject, .iteration = iteration};
  case message::random_covariance_missing::message_number:
    return message::random_covariance_missing{.subject = subject, .iteration = iteration};
  case message::integral_zero::message_number:
    return message::integral_zero{.subject = subject, .iteration = iteration};
  case message::integral_zero_text_subject::message_number:
    return message::integral_zero_text_subject{.subject = subject, .iteration = iteration};
  case message::mode_steps_used_up::message_number:
    return message::mode_steps_used_up{.subject = subject, .iteration = iteration};
  case message::no_shorter_step::message_number:
    return message::no_shorter_step{.subject = subject, .iteration = iteration};
  case message::no_shorter_step_text_subject::message_number:
    return message::no_shorter_step_text_subject{.subject = subject, .iteration = iteration};
  case message::mode_not_found::message_number:
    return message::mode_not_found{.subject = subject, .iteration = iteration};
  case message::mode_not_found_text_subject::message_number:
    return message::mode_not_found_text_subject{.subject = subject, .iteration = iteration};
  default:
    return message::mode_steps_used_up_text_subject{.subject = subject, .iteration = iteration};
  }
}

} // namespace

void report_failure(const NX& n)
{
  if (n.host == nullptr || n.response_told) return; // a response that is impossible everywhere has been told of
  const auto first = std::find_if(n.slot_status.begin(), n.slot_status.end(), [](int status) { return status != 0; });
  if (first == n.slot_status.end()) { // the program ended the run, and nothing was summed
    report_program_fault(n, 0, n.store->nobs);
    return;
  }
  const auto slot = static_cast<std::size_t>(first - n.slot_status.begin());
  const std::int64_t row = n.slot_row[slot];
  host::OptionalMessageValue name, observation;
  std::string reason;
  if (n.nreff() > 0) {
    const model::SUBINFO& subject = n.outer().SubInfo[slot];
    if (report_program_fault(n, subject.first_row, subject.first_row + subject.SubCount)) return;
    name = model::subject_name(n, subject);
    reason = fault_of_probabilities(n, subject);
  } else if (row >= 0) {
    if (report_program_fault(n, row, row + 1)) return;
    observation = evaluation::observation_number(n, row);
  }
  n.host->log().xpmlog(status_message(*first, name, observation, iteration_text(n), reason));
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
