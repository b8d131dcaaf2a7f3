#pragma once
// PictureData: what the pictures of one fit are drawn from: plain numbers and labels, no model.

#include "inference/pictures/count_frequencies.h"
#include "inference/pictures/fit_records.h"

#include <string>
#include <vector>

namespace torvale::inference {

enum class ResponseKind { continuous, count, binary, general };

// A property of subjects that the program reads: a number, or a level by its place in `levels`.
struct SubjectCovariate {
  std::string label;
  std::vector<double> value;       // per subject
  std::vector<std::string> levels; // empty: a number
};

// The random effects of one level and the subjects that have them.
struct EffectLevel {
  std::string subject_label;         // name of the subject variable
  std::vector<std::string> subjects; // value of each subject, behind those of its ancestors
  std::vector<std::string> effects;  // names
  std::vector<double> mode;          // subjects x effects
  EffectMoments prior;               // the same shape
  std::vector<SubjectCovariate> covariates;
};

struct PictureData {
  ResponseKind kind = ResponseKind::general;
  bool normal = false;     // the MODEL distribution is the normal one
  std::string response;    // label of the response
  bool replicated = false; // a REPLICATE variable counts rows more than once
  FitRecords records;
  CountFrequencies frequencies;    // of counts, from every frequency_step-th record; else empty
  std::size_t frequency_step = 1;
  std::string axis;                // label of the variable that records are drawn along; empty: none
  std::vector<double> axis_value;  // per row of records
  std::vector<EffectLevel> levels; // the deepest first; empty without random effects
};

// picture_data: at the estimates of a fit that stands. Returns 0; 1 when the model cannot be evaluated there.
int picture_data(model::NX& n, PictureData& out);

} // namespace torvale::inference
