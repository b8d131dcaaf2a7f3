#include "model/run_record.h"

#include <algorithm>

namespace torvale::model {

void NX::raise(int code)
{
  tvlrc = std::max(tvlrc, code);
}

} // namespace torvale::model
