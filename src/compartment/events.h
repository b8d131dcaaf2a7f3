#pragma once
// Event records: doses, observations and resets as records of their own, in the order of time.
//
// The amounts are kept from record to record (RETAIN) and carried over each interval with the parameters of the record
// that ends it. A dose that acts later than its record (a lag, an infusion, additional doses) waits in one of a few
// places, which every record looks through: what a record costs does not depend on how many there are.

#include "compartment/statement_text.h"

namespace torvale::compartment {

void write_events(StatementText& text, const Model& model);

} // namespace torvale::compartment
