#pragma once
// The subject index: which rows of a BY group belong to which subject.

#include "model/run_record.h"

#include <cstdint>
#include <vector>

namespace torvale::data {

// SubjectRows: rows of one BY group, dealt to subjects. Rows count from 0 within the group.
struct SubjectRows {
  std::vector<std::int32_t> order; // group rows in subject order: subjects by first appearance, rows in file order
  std::vector<std::int32_t> start; // per subject the first position in `order`; one more entry closes the last
  long changes = 0;                // changes of the subject value in file order, the first row included
  std::int32_t count() const { return static_cast<std::int32_t>(start.size()) - 1; }
};

// tvlsubj: builds the index of one RANDOM statement for the rows of n.rows (tvl procedure, subj subjects). A subject is
// all rows with the same value of the SUBJECT= variable; -0 equals 0, texts are compared without trailing blanks. With
// NOSORTSUB each change of the value in file order starts a subject. Returns 0; 2 when a subject value is missing
// (message 503/28) or there are no rows (503/71).
int tvlsubj(model::NX& n, const model::REFFECT& reff, SubjectRows& index);

} // namespace torvale::data
