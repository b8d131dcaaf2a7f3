#pragma once
#include "host/storage/scratch_file.h"

namespace torvale::host {

// The heap for arrays with an entry for every row: long ones lie on large pages where the system has them, which it
// hands out many times faster than as many small ones.
RowMemory row_heap();

} // namespace torvale::host
