// The subject index of 500,000 to 5,000,000 records of 200,000 subjects in random order: nanoseconds a record, and how
// much more a record costs than at the smallest size. Beside it a plain loop that numbers the same subjects with a hash
// table and deals their rows, which is what memory alone demands.

#include "data/subject_index.h"
#include "host/host.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <unordered_map>

namespace {

using namespace torvale;

constexpr int subjects = 200000;
constexpr std::size_t sizes[] = {500000, 1600000, 5000000};

host::DataSet records(std::size_t rows)
{
  std::mt19937 random(7);
  std::uniform_int_distribution<int> any(1, subjects);
  host::Column id("id", host::ColumnKind::numeric);
  for (std::size_t i = 0; i < rows; ++i) id.append(static_cast<double>(any(random)));
  host::DataSet data;
  data.add(std::move(id));
  return data;
}

double seconds(const auto& work)
{
  double best = 1e9;
  for (int k = 0; k < 5; ++k) {
    const auto start = std::chrono::steady_clock::now();
    work();
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

void index_of(const host::DataSet& data, host::Host& host)
{
  model::NX n;
  n.host = &host;
  n.fid = &data;
  n.rows.begin = 0;
  n.rows.end = data.rows();
  n.reff.resize(1);
  n.reff[0].sub_dsvarno = 1;
  data::SubjectIndex index;
  if (data::tvlsubj(n, index) != 0) std::abort();
  benchmark::DoNotOptimize(index.order.data());
}

void plain_loop(const host::DataSet& data)
{
  const host::Column& id = data.columns()[0];
  std::unordered_map<double, int> known;
  std::vector<int> subject(data.rows()), start, order(data.rows());
  for (std::size_t i = 0; i < data.rows(); ++i)
    subject[i] = known.try_emplace(id.number(i), static_cast<int>(known.size())).first->second;
  start.assign(known.size() + 1, 0);
  for (const int s : subject) ++start[static_cast<std::size_t>(s) + 1];
  for (std::size_t s = 1; s < start.size(); ++s) start[s] += start[s - 1];
  for (std::size_t i = 0; i < subject.size(); ++i)
    order[static_cast<std::size_t>(start[static_cast<std::size_t>(subject[i])]++)] = static_cast<int>(i);
  benchmark::DoNotOptimize(order.data());
}

void subjects_in_random_order(benchmark::State& state)
{
  const auto host = host::make_host({});
  for (auto _ : state) {
    double first = 0.0, first_plain = 0.0;
    for (const std::size_t rows : sizes) {
      const host::DataSet data = records(rows);
      const double scale = 1e9 / static_cast<double>(rows);
      const double index = scale * seconds([&] { index_of(data, *host); });
      const double plain = scale * seconds([&] { plain_loop(data); });
      if (first == 0.0) {
        first = index;
        first_plain = plain;
      }
      const std::string size = std::to_string(rows / 1000) + "k";
      state.counters[size + "_ns"] = index;
      state.counters[size + "_plain_ns"] = plain;
      state.counters[size + "_growth"] = index / first;
      state.counters[size + "_plain_growth"] = plain / first_plain;
    }
  }
}
BENCHMARK(subjects_in_random_order)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace
