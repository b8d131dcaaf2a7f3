// The subject index against plain loops: files in the order of their subjects, which go block by block, and others.

#include "data/subject_index.h"
#include "host/host.h"
#include "parallel/worker_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

namespace {

using namespace torvale;

struct File {
  host::DataSet data;
  std::vector<std::vector<double>> keys; // by level, the deepest first; of texts their numbers
};

File file_of(std::vector<std::vector<double>> keys, bool texts)
{
  File file{{}, std::move(keys)};
  for (std::size_t k = 0; k < file.keys.size(); ++k) {
    const bool text = texts && k == 0;
    host::Column column("level" + std::to_string(k), text ? host::ColumnKind::character : host::ColumnKind::numeric);
    for (const double key : file.keys[k])
      if (text)
        column.append(std::to_string(key));
      else
        column.append(key);
    file.data.add(std::move(column));
  }
  return file;
}

// Rows of subjects nested in each other: values that start small within each outer subject, some rows each.
std::vector<std::vector<double>> nested_keys(std::mt19937& random, std::size_t levels, std::size_t rows, double from)
{
  std::vector<std::vector<double>> keys(levels);
  std::vector<double> now(levels, from);
  std::uniform_int_distribution<int> any(0, 9);
  for (std::size_t i = 0; i < rows; ++i) {
    for (std::size_t k = levels; k-- > 0;) {
      if (any(random) > static_cast<int>(k) + 1) continue;
      now[k] += 1.0;
      std::fill_n(now.begin(), k, from);
    }
    for (std::size_t k = 0; k < levels; ++k) keys[k].push_back(now[k]);
  }
  return keys;
}

// Per level and row the first row of its subject; split: each change starts one.
std::vector<std::vector<std::size_t>> first_rows(const File& file, bool split)
{
  const std::size_t levels = file.keys.size(), rows = file.keys[0].size();
  std::vector<std::vector<std::size_t>> first(levels, std::vector<std::size_t>(rows));
  for (std::size_t k = levels; k-- > 0;) {
    std::map<std::pair<std::size_t, double>, std::size_t> known;
    for (std::size_t i = 0; i < rows; ++i) {
      const std::size_t outer = k + 1 < levels ? first[k + 1][i] : 0;
      const bool same = i > 0 && file.keys[k][i] == file.keys[k][i - 1] &&
                        (k + 1 == levels || first[k + 1][i] == first[k + 1][i - 1]);
      first[k][i] =
          split ? (same ? first[k][i - 1] : i) : known.try_emplace({outer, file.keys[k][i] + 0.0}, i).first->second;
    }
  }
  return first;
}

void expect_index(const File& file, bool split, int workers, const std::string& what)
{
  SCOPED_TRACE(what);
  const auto host = host::make_host({});
  model::NX n;
  n.host = host.get();
  n.fid = &file.data;
  n.rows.end = file.data.rows();
  n.nosort = split;
  n.workers = std::make_shared<parallel::WorkerPool>(workers);
  n.reff.resize(file.keys.size());
  for (std::size_t k = 0; k < n.reff.size(); ++k) n.reff[k].sub_dsvarno = static_cast<int>(k) + 1;
  data::SubjectIndex index;
  ASSERT_EQ(data::tvlsubj(n, index), 0);

  const auto first = first_rows(file, split);
  std::vector<std::int32_t> order(file.data.rows());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = static_cast<std::int32_t>(i);
  const auto rank = [&](std::int32_t row) {
    std::vector<std::size_t> places;
    for (std::size_t k = first.size(); k-- > 0;) places.push_back(first[k][static_cast<std::size_t>(row)]);
    return places;
  };
  std::stable_sort(order.begin(), order.end(), [&](std::int32_t a, std::int32_t b) { return rank(a) < rank(b); });
  if (std::is_sorted(order.begin(), order.end()))
    EXPECT_TRUE(index.order.empty());
  else
    EXPECT_EQ(index.order, order);
  std::vector<std::int32_t> outer(order.size(), -1); // per place its subject of the next outer level
  for (std::size_t k = first.size(); k-- > 0;) {
    std::vector<std::int32_t> start, parent;
    for (std::size_t i = 0; i < order.size(); ++i) {
      const auto row = static_cast<std::size_t>(order[i]);
      if (i == 0 || first[k][row] != first[k][static_cast<std::size_t>(order[i - 1])]) {
        start.push_back(static_cast<std::int32_t>(i));
        if (k + 1 < first.size()) parent.push_back(outer[i]);
      }
      outer[i] = static_cast<std::int32_t>(start.size()) - 1;
    }
    start.push_back(static_cast<std::int32_t>(order.size()));
    EXPECT_EQ(index.level[k].start, start) << "level " << k;
    EXPECT_EQ(index.level[k].parent, parent) << "level " << k;
  }
}

TEST(SubjectIndex, AgreesWithPlainLoops)
{
  std::mt19937 random(11);
  for (const std::size_t levels : {1U, 2U, 3U})
    for (const bool texts : {false, true})
      for (const int workers : {1, 3}) {
        const std::string what =
            std::to_string(levels) + " levels, " + std::to_string(workers) + " workers" + (texts ? ", texts" : "");
        auto keys = nested_keys(random, levels, 10000, -3.0);
        expect_index(file_of(keys, texts), false, workers, what);
        expect_index(file_of(keys, texts), true, workers, what + ", split");
        for (std::size_t k = 0; k < levels; ++k) std::swap(keys[k][8192], keys[k][17]); // before a block's first row
        expect_index(file_of(keys, texts), false, workers, what + ", two rows out of order");
        expect_index(file_of(keys, texts), true, workers, what + ", two rows out of order, split");
        std::vector<std::size_t> mixed(keys[0].size());
        for (std::size_t i = 0; i < mixed.size(); ++i) mixed[i] = i;
        std::shuffle(mixed.begin(), mixed.end(), random);
        auto shuffled = keys;
        for (std::size_t k = 0; k < levels; ++k)
          for (std::size_t i = 0; i < mixed.size(); ++i) shuffled[k][i] = keys[k][mixed[i]];
        expect_index(file_of(shuffled, texts), false, workers, what + ", shuffled");
      }
  expect_index(file_of({{-0.0, 0.0, 0.0, 2.0}}, false), false, 1, "both zeros are one subject");
}

TEST(SubjectIndex, MissingSubjectsEndTheGroup)
{
  for (const std::size_t at : {std::size_t{0}, std::size_t{8191}, std::size_t{8192}, std::size_t{9999}}) {
    std::vector<double> keys(10000);
    for (std::size_t i = 0; i < keys.size(); ++i) keys[i] = static_cast<double>(i / 4);
    keys[at] = host::missing;
    host::Column text("text", host::ColumnKind::character);
    for (const double key : keys) text.append(key == key ? std::to_string(key) : std::string());
    File numbers = file_of({keys}, false);
    numbers.data.add(std::move(text));
    const auto host = host::make_host({});
    for (const int column : {1, 2}) {
      model::NX n;
      n.host = host.get();
      n.fid = &numbers.data;
      n.rows.end = keys.size();
      n.reff.resize(1);
      n.reff[0].sub_dsvarno = column;
      data::SubjectIndex index;
      EXPECT_EQ(data::tvlsubj(n, index), 2) << "row " << at << ", column " << column;
    }
  }
}

} // namespace
