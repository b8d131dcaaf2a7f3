#include "host/results/stage_clock.h"

#include <fmt/format.h>

namespace torvale::host {

std::string stage_times_text(const StageTimes& times)
{
  static constexpr const char* names[stage_count] = {
      "load", "parse", "compile", "read", "data pass", "starting values", "optimizer", "covariance", "report"};
  std::string text;
  StageTime all;
  const auto line = [&](const char* name, const StageTime& t) {
    text += fmt::format("{:<16}{:>12.6f} s", name, t.seconds);
    if (t.evaluations > 0) text += fmt::format("{:>8} evaluation{}", t.evaluations, t.evaluations == 1 ? "" : "s");
    text += '\n';
  };
  for (std::size_t k = 0; k < stage_count; ++k) {
    line(names[k], times[k]);
    all.seconds += times[k].seconds;
    all.evaluations += times[k].evaluations;
  }
  line("all", all);
  return text;
}

void StageClock::enter(Stage stage)
{
  const auto now = std::chrono::steady_clock::now();
  times_[index(stage_)].seconds += std::chrono::duration<double>(now - since_).count();
  since_ = now;
  stage_ = stage;
}

const StageTimes& StageClock::times()
{
  enter(stage_);
  return times_;
}

} // namespace torvale::host
