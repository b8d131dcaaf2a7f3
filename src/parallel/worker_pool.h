#pragma once
// The worker pool: a run's threads, and the dealing of work items among them.

#include "model/run_record.h"

#include <memory>

namespace torvale::parallel {

// One item of work on one context. user: what the caller handed to run.
using Kernel = void (*)(void* user, int context, long item);

// WorkerPool: `contexts` executors, the calling thread among them; the other threads sleep between calls. Made once for
// a run. Items are dealt one by one from a counter, so which context gets an item is not fixed: a kernel may write only to its
// context and to what belongs to the item.
class WorkerPool {
public:
  explicit WorkerPool(int contexts); // starts contexts - 1 threads
  ~WorkerPool();                     // ends them
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  int contexts() const { return contexts_; }

  // Runs the kernel for items 0..items-1, lowest first, and returns when all are done. Serial with one context.
  void run(long items, Kernel kernel, void* user);

  // The same for a callable of (int context, long item), borrowed for the call.
  template <class F> void run(long items, F& f)
  {
    run(items, [](void* user, int context, long item) { (*static_cast<F*>(user))(context, item); }, &f);
  }

private:
  struct Threads;
  int contexts_;
  std::unique_ptr<Threads> threads_;
};

// Runs f(context, item) for all items: on the pool's workers, or one after the other where there is no pool.
template <class F> void deal(WorkerPool* pool, long items, F&& f)
{
  if (pool != nullptr && items > 1) return pool->run(items, f);
  for (long item = 0; item < items; ++item) f(0, item);
}

// tvlthrd: how many contexts the run uses: --threads before NTHREADS=, negative all cores (message 656), at least 1.
int tvlthrd(const model::NX& n);

// tvltinit: starts the workers of the run in n.workers; on failure says 654 and goes on with one context. Returns 0.
int tvltinit(model::NX& n);

// KillThreads: ends them.
void KillThreads(model::NX& n);

} // namespace torvale::parallel
