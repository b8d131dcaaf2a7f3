#pragma once
// RecordLoop: a program at every record of the BY group, with the random effects of the record's subject; in lanes, on
// all threads. What a record yields depends on nothing else.

#include "model/run_record.h"
#include "parallel/worker_pool.h"

#include <algorithm>
#include <atomic>

namespace torvale::inference {

// A chunk of whole subjects of the deepest level (of records, without random effects).
struct RecordChunk {
  std::int64_t first = 0, last = 0; // rows of the store
  std::size_t first_subject = 0, last_subject = 0;
};

std::vector<RecordChunk> deal_records(const model::NX& n);

// Per context: what a chunk runs with.
struct RecordWork {
  std::vector<double> effects; // nr rows: of the chunk's subjects
  std::vector<std::int32_t> rows, points, state;
};

// Fills the work of a chunk and gives it to the frame; effects are `effects`, nr per subject.
void take_records(const model::NX& n, const RecordChunk& c, const double* effects, std::size_t nr, RecordWork& w,
                  engine::Frame& frame);

// True when values that the program keeps from record to record start anew at a row.
bool starts_anew(const model::NX& n, std::int64_t row);

// Calls visit(context, frame, lane, row of the store, subject of the deepest level) for every record, from many
// threads. visit may read the outputs of the program in that lane. Parameters are n.parm.
template <class Visit> class RecordLoop {
public:
  RecordLoop(model::NX& n, const engine::Program& program, const std::vector<double>& effects, std::size_t nr,
             Visit visit)
      : n_(n), program_(program), effects_(effects), nr_(nr), visit_(std::move(visit)), chunks_(deal_records(n)),
        keeps_(engine::sequential(program)), work_(n.ctx.size())
  {
    for (auto& ctx : n.ctx) ctx->frame->set_parameters(n.parm.data());
  }

  // Returns 0 or the engine's code above 2.
  int run()
  {
    const auto items = static_cast<long>(chunks_.size());
    if (n_.workers != nullptr && !(keeps_ && n_.nreff() == 0))
      n_.workers->run(items, *this);
    else
      for (long item = 0; item < items; ++item) (*this)(0, item);
    return ended_.load();
  }

  void operator()(int context, long item)
  {
    if (ended_.load(std::memory_order_relaxed) != 0) return;
    if (const int rc = chunk(context, chunks_[static_cast<std::size_t>(item)]); rc > 2)
      ended_.store(rc, std::memory_order_relaxed);
  }

private:
  int chunk(int context, const RecordChunk& c)
  {
    RecordWork& w = work_[static_cast<std::size_t>(context)];
    engine::Frame& frame = *n_.ctx[static_cast<std::size_t>(context)]->frame;
    take_records(n_, c, effects_.data(), nr_, w, frame);
    const auto count = static_cast<int>(c.last - c.first);
    const int step = keeps_ ? 1 : engine::max_lanes;
    for (int at = 0; at < count; at += step) {
      const int lanes = std::min(step, count - at);
      if (keeps_ && starts_anew(n_, c.first + at)) frame.reset_state(program_, 1);
      const std::int32_t* const state = keeps_ ? w.state.data() : nullptr;
      const int rc = frame.run(program_, {lanes, w.rows.data() + at, w.points.data() + at, state});
      if (rc > 2) return rc;
      for (int j = 0; j < lanes; ++j)
        visit_(context, frame, j, c.first + at + j,
               c.first_subject + static_cast<std::size_t>(w.points[static_cast<std::size_t>(at + j)]));
    }
    return 0;
  }

  model::NX& n_;
  const engine::Program& program_;
  const std::vector<double>& effects_;
  const std::size_t nr_;
  Visit visit_;
  const std::vector<RecordChunk> chunks_;
  const bool keeps_;
  std::vector<RecordWork> work_; // per context
  std::atomic<int> ended_{0};
};

} // namespace torvale::inference
