#include "model/run_record.h"

namespace torvale::model {

bool converged_or_usable(const NX& n)
{
  return n.znlprc > 0;
}

} // namespace torvale::model
