#pragma once
// The subject index of a file that lies in the order of its subjects.

#include "data/subject_index.h"

namespace torvale::data {

// index_ordered_rows: as tvlsubj, block by block on all workers, for rows whose subject values only grow within their
// outer subject (with NOSORTSUB: in any order), so that each change of a value starts a subject. Texts grow when they
// are new. Returns false, with nothing in `index`, where a value falls or is missing.
bool index_ordered_rows(const model::NX& n, SubjectIndex& index);

} // namespace torvale::data
