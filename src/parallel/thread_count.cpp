#include "host/messages/names/optimization.h"
#include "parallel/worker_pool.h"

#include <algorithm>

namespace torvale::parallel {

namespace {

constexpr int most_workers = 1024; // more than any machine's cores; results do not depend on the number

} // namespace

int tvlthrd(const model::NX& n)
{
  int wanted = n.command_threads != 0 ? n.command_threads : n.runThreads ? n.nthreads : 1;
  if (wanted < 0) {
    wanted = n.host != nullptr ? n.host->cores() : 1;
    if (n.host != nullptr && n.command_threads == 0) n.host->log().xpmlog(message::threads_used{.count = wanted});
  }
  return std::clamp(wanted, 1, most_workers);
}

int tvltinit(model::NX& n)
{
  const int wanted = tvlthrd(n);
  n.workers = std::make_shared<WorkerPool>(wanted);
  if (n.workers->contexts() < wanted && n.host != nullptr) {
    n.host->log().xpmlog(message::threads_not_started);
    n.raise(4);
  }
  return 0;
}

void KillThreads(model::NX& n)
{
  n.workers.reset();
}

} // namespace torvale::parallel
