#include "parallel/worker_pool.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace torvale::parallel {

// A job is announced by raising `round`; each thread takes part once per round and reports by lowering `busy`.
struct WorkerPool::Threads {
  std::mutex mutex;
  std::condition_variable start, done;
  std::vector<std::thread> threads;
  long round = 0;     // jobs announced so far
  int busy = 0;       // threads that have not finished the present round
  bool ending = false;

  // The present job.
  Kernel kernel = nullptr;
  void* user = nullptr;
  long items = 0;
  std::atomic<long> next{0};

  void work(int context)
  {
    for (long item = next.fetch_add(1); item < items; item = next.fetch_add(1)) kernel(user, context, item);
  }

  void thread_main(int context)
  {
    long seen = 0;
    std::unique_lock lock(mutex);
    for (;;) {
      start.wait(lock, [&] { return ending || round != seen; });
      if (ending) return;
      seen = round;
      lock.unlock();
      work(context);
      lock.lock();
      if (--busy == 0) done.notify_one();
    }
  }
};

WorkerPool::WorkerPool(int contexts) : contexts_(contexts < 1 ? 1 : contexts)
{
  if (contexts_ == 1) return;
  threads_ = std::make_unique<Threads>();
  try {
    for (int c = 1; c < contexts_; ++c) threads_->threads.emplace_back([t = threads_.get(), c] { t->thread_main(c); });
  } catch (const std::system_error&) {
    // The system gives no more threads: go on with those that started.
    contexts_ = static_cast<int>(threads_->threads.size()) + 1;
  }
}

WorkerPool::~WorkerPool()
{
  if (!threads_) return;
  {
    const std::lock_guard lock(threads_->mutex);
    threads_->ending = true;
  }
  threads_->start.notify_all();
  for (auto& t : threads_->threads) t.join();
}

void WorkerPool::run(long items, Kernel kernel, void* user)
{
  if (contexts_ == 1 || items < 2) {
    for (long item = 0; item < items; ++item) kernel(user, 0, item);
    return;
  }
  Threads& t = *threads_;
  {
    const std::lock_guard lock(t.mutex);
    t.kernel = kernel;
    t.user = user;
    t.items = items;
    t.next.store(0);
    t.busy = contexts_ - 1;
    ++t.round;
  }
  t.start.notify_all();
  t.work(0);
  std::unique_lock lock(t.mutex);
  t.done.wait(lock, [&] { return t.busy == 0; });
}

} // namespace torvale::parallel
