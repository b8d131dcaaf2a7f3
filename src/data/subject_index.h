#pragma once
// The subject index: which rows of a BY group belong to which subject, at every level.

#include "model/run_record.h"

#include <cstdint>
#include <vector>

namespace torvale::data {

// SubjectRows: the subjects of one level, in their order: those nested in one subject are consecutive, in order of
// first appearance.
struct SubjectRows {
  std::vector<std::int32_t>
      start; // per subject its first position in SubjectIndex::order; one more entry closes the last
  std::vector<std::int32_t>
      parent; // per subject the one of the next outer level that it is nested in; empty at the outermost
  std::int32_t count() const { return static_cast<std::int32_t>(start.size()) - 1; }
};

// SubjectIndex: rows of one BY group, dealt to subjects. Rows count from 0 within the group.
struct SubjectIndex {
  // Group rows in subject order, outer subjects first, rows of a leaf in file order; empty where that is the file's
  // own.
  std::vector<std::int32_t> order;
  std::vector<SubjectRows> level; // as NX::reff, the deepest first
  long changes = 0;               // changes of the subject values in file order, the first row included
};

// tvlsubj: builds the index of the RANDOM statements for the rows of n.rows (tvl procedure, subj subjects). A subject
// is all rows with the same value of its SUBJECT= variable in the same subject of the next outer level; -0 equals 0,
// texts are compared without trailing blanks. With NOSORTSUB each change of the value in file order starts a subject.
// Returns 0; 2 when a subject value is missing (message 503/28) or there are no rows (503/71).
int tvlsubj(model::NX& n, SubjectIndex& index);

} // namespace torvale::data
