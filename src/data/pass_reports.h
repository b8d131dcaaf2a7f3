#pragma once
// What the log is told of rows that cannot be used, and of a program that fails or stops in the pass.

#include "data/pass_findings.h"

namespace torvale::data {

// report_stop: one of these rows, or any other, holds a fatal fault: names the row, the line and the cause. A fault met
// while columns were computed may stand in any row. rc: the engine's code. Returns 1.
int report_stop(model::NX& n, engine::Frame& frame, const engine::Program& program, const PassFindings& pass, int rc,
                std::vector<std::int32_t> rows);

// inspect_bad_rows: looks closer at the rows that came out unusable: a program fault ends the group (1); a value that
// went missing without a missing value in the data deserves a warning (0).
int inspect_bad_rows(model::NX& n, engine::Frame& frame, const PassFindings& pass);

// report_impossible: observations that the model calls impossible at the starting values: the fit will fail there, so
// the worst are named now.
void report_impossible(model::NX& n, const PassFindings& pass);

// report_values: rows that a REPLICATE value below SINGVAR= removes, and responses that counts cannot have.
void report_values(model::NX& n, const PassFindings& pass);

// report_nothing_left: no row is left: how many fell to each cause.
void report_nothing_left(model::NX& n);

} // namespace torvale::data
