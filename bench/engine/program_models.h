#pragma once
// The models of the program benchmark: their statements, and the sets of outputs that a fit asks for.

#include "engine/engine.h"
#include "language/parser.h"

#include <memory>
#include <string>
#include <vector>

namespace torvale::bench {

enum class Wanted { value, gradient, mode };

struct ModelText {
  const char* name;
  const char* statements; // compute `ll` from `time`, `dv`, parameters and random effects
  std::vector<const char*> parameters;
  std::vector<const char*> effects;
  std::vector<double> theta;
};

const std::vector<ModelText>& models();

// One model compiled for one set of outputs, with 512 records bound.
class CompiledModel {
public:
  CompiledModel(const ModelText& text, Wanted wanted);
  // Runs one tile of `lanes` records at one point.
  void run(int lanes);
  const engine::Program& program() const { return *program_; }
  std::string listing() const { return engine::cmppsts(*compiler_); }
  int outputs() const { return outputs_; }
  double output(int k, int lane) const { return frame_->output(k)[lane]; }
  // Output k: which derivative it is, as (first, second) index into parameters then effects; -1: none.
  const std::vector<std::pair<int, int>>& meaning() const { return meaning_; }

private:
  syntax::SourceMap sources_;
  syntax::Arena arena_;
  language::ParseResult step_;
  std::shared_ptr<engine::CMPGLOBAL> compiler_;
  const engine::Program* program_ = nullptr;
  int outputs_ = 0;
  std::vector<std::pair<int, int>> meaning_;
  std::unique_ptr<engine::Frame> frame_;
};

// Records of the benchmark: time and observation.
const std::vector<double>& record_times();
const std::vector<double>& record_values();
// Random effects at the benchmark's point.
inline constexpr double effect_values[4] = {0.1, -0.2, 0.15, -0.05};

} // namespace torvale::bench
