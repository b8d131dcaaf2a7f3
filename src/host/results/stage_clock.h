#pragma once
// Where the time of a run goes: one stage is in hand at a time, and all time belongs to some stage.

#include <array>
#include <chrono>
#include <cstddef>
#include <string>

namespace torvale::host {

enum class Stage { load, parse, compile, read, data_pass, starting_values, optimizer, covariance, report };
inline constexpr std::size_t stage_count = 9;

struct StageTime {
  double seconds = 0.0;
  long evaluations = 0; // of the objective over all data
};
using StageTimes = std::array<StageTime, stage_count>;

// One line a stage and one for all: name, seconds and, where there are any, evaluations.
std::string stage_times_text(const StageTimes& times);

// Main thread only. Never for results.
class StageClock {
public:
  void enter(Stage stage); // ends the one in hand
  Stage stage() const { return stage_; }
  void count_evaluation() { ++times_[index(stage_)].evaluations; }
  const StageTimes& times(); // up to now

private:
  static std::size_t index(Stage stage) { return static_cast<std::size_t>(stage); }

  StageTimes times_{};
  Stage stage_ = Stage::load;
  std::chrono::steady_clock::time_point since_ = std::chrono::steady_clock::now();
};

// A stage for the length of a scope; then the one before goes on.
class StageScope {
public:
  StageScope(StageClock& clock, Stage stage) : clock_(clock), before_(clock.stage()) { clock.enter(stage); }
  ~StageScope() { clock_.enter(before_); }
  StageScope(const StageScope&) = delete;
  StageScope& operator=(const StageScope&) = delete;

private:
  StageClock& clock_;
  Stage before_;
};

} // namespace torvale::host
