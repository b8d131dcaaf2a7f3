#pragma once
// Records one by one, outside of evaluations.

#include "model/run_record.h"

#include <vector>

namespace torvale::evaluation {

// A frame at given parameters (n.nparm of them) where all random effects are 0: one point.
struct RecordFrame {
  RecordFrame(const model::NX& n, const double* parameters) : frame(*n.gcmp, n.bound)
  {
    std::size_t effects = 1;
    for (const auto& level : n.reff) effects += static_cast<std::size_t>(level.nr);
    zero.assign(effects, 0.0);
    frame.set_parameters(parameters);
    frame.set_points(zero.data(), 1, 1);
  }
  RecordFrame(const RecordFrame&) = delete;
  RecordFrame& operator=(const RecordFrame&) = delete;

  engine::Frame frame;
  std::vector<double> zero; // borrowed by the frame
};

} // namespace torvale::evaluation
