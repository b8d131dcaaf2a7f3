#pragma once
// What the subject index has found, for people: tables "REParameters" and "REObsInfo" (REOBSINFO).

#include "model/run_record.h"

namespace torvale::data {

// tvlmisc: writes both tables for the BY group in hand.
void tvlmisc(const model::NX& n);

} // namespace torvale::data
