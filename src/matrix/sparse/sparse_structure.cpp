#include <algorithm>
#include <numeric>
#include <utility>

#include "matrix/sparse/sparse_cholesky.h"

namespace torvale::matrix {

void lsort2(int n, int* keys, double* values)
{
  for (int i = 1; i < n; ++i) {
    const int key = keys[i];
    const double value = values[i];
    int* const to = std::upper_bound(keys, keys + i, key);
    double* const value_to = values + (to - keys);
    std::move_backward(to, keys + i, keys + i + 1);
    std::move_backward(value_to, values + i, values + i + 1);
    *to = key;
    *value_to = value;
  }
}

int zslltco(int job, int n, int count, const int* ir, const int* ic, const double* s, int* ja, double* a)
{
  for (int t = 0; t < count; ++t)
    if (std::min(ir[t], ic[t]) < 0 || std::max(ir[t], ic[t]) >= n) return -1 - t;

  // Row lengths, then starts; while a row fills, ja[row] is its next free place.
  std::fill_n(ja, n + 1, 0);
  for (int t = 0; t < count; ++t) ++ja[std::max(ir[t], ic[t])];
  int start = 0;
  for (int i = 0; i <= n; ++i) start += std::exchange(ja[i], start);
  int* const columns = ja + n + 1;
  for (int t = 0; t < count; ++t) {
    const int at = ja[std::max(ir[t], ic[t])]++;
    columns[at] = std::min(ir[t], ic[t]);
    a[at] = s[t];
  }
  // ja[i] is now the end of row i. Sort each row and close up over repeated columns.
  int kept = 0;
  int first = 0;
  for (int i = 0; i < n; ++i) {
    const int end = ja[i];
    ja[i] = kept;
    lsort2(end - first, columns + first, a + first);
    for (int t = first; t < end; ++t) {
      if (kept > ja[i] && columns[kept - 1] == columns[t]) {
        a[kept - 1] = job == 0 ? a[t] : a[kept - 1] + a[t];
        continue;
      }
      columns[kept] = columns[t];
      a[kept] = a[t];
      ++kept;
    }
    first = end;
  }
  ja[n] = kept;
  return kept;
}

namespace {

// The matrix entries by their later turn of elimination: a linked list of earlier turns for each turn.
struct Neighbours {
  int* head; // n: first entry of the list, -1 for none
  int* next; // entries

  void build(int n, const int* ja, const int* perm)
  {
    std::fill_n(head, n, -1);
    for (int i = 0; i < n; ++i)
      for (int t = ja[i]; t < ja[i + 1]; ++t) {
        const int late = std::max(perm[n + i], perm[n + ja[n + 1 + t]]);
        next[t] = head[late];
        head[late] = t;
      }
  }
};

} // namespace

// Row k of the factor is non-zero at the turns met on the way from each neighbour up the elimination tree
// to k (Liu, The role of elimination trees in sparse factorization, SIAM J. Matrix Anal. Appl. 11, 1990). The
// first pass grows the tree and counts, the second one writes.
int zslltsf(int n, const int* ja, int* perm, int* ju, int* maxju, int* iwork)
{
  for (int k = 0; k < n; ++k) perm[n + perm[k]] = k;
  int* const parent = iwork;
  int* const mark = iwork + n;
  Neighbours neighbours = {iwork + 2 * n, iwork + 3 * n};
  neighbours.build(n, ja, perm);

  // The row of entry t and its column are found by the turns of both: the list gives t, its column is known,
  // its row is perm[late] or the column itself.
  const auto early_turn = [&](int t, int late) {
    const int column_turn = perm[n + ja[n + 1 + t]];
    if (column_turn != late) return column_turn;
    const int row = static_cast<int>(std::upper_bound(ja, ja + n + 1, t) - ja) - 1;
    return perm[n + row];
  };
  const auto visit_row = [&](int k, auto&& each) {
    mark[k] = k;
    for (int t = neighbours.head[k]; t >= 0; t = neighbours.next[t])
      for (int j = early_turn(t, k); mark[j] != k; j = parent[j]) {
        mark[j] = k;
        if (parent[j] < 0) parent[j] = k;
        each(j);
      }
  };

  std::fill_n(parent, n, -1);
  std::fill_n(mark, n, -1);
  int entries = 0;
  for (int k = 0; k < n; ++k) {
    visit_row(k, [&](int) { ++entries; });
    ++entries;
  }
  const int available = *maxju;
  *maxju = n + 1 + entries;
  if (available < *maxju) return 1;

  std::fill_n(mark, n, -1);
  int* const columns = ju + n + 1;
  int at = 0;
  for (int k = 0; k < n; ++k) {
    ju[k] = at;
    visit_row(k, [&](int j) { columns[at++] = j; });
    std::sort(columns + ju[k], columns + at);
    columns[at++] = k;
  }
  ju[n] = at;
  return 0;
}

int zslltiu(int n, const int* ja, const int* perm, const int* ju, int* jasl, int* jusl)
{
  const int* const columns = ju + n + 1;
  for (int i = 0; i < n; ++i)
    for (int t = ja[i]; t < ja[i + 1]; ++t) {
      const int turn = perm[n + i];
      const int other = perm[n + ja[n + 1 + t]];
      const int row = std::max(turn, other);
      const int column = std::min(turn, other);
      const int* const end = columns + ju[row + 1];
      const int* const found = std::lower_bound(columns + ju[row], end, column);
      if (found == end || *found != column) return structure_fault;
      jasl[t] = static_cast<int>(found - columns);
    }

  // Columns: lengths, starts, then the entries row by row, so that rows ascend in each column.
  std::fill_n(jusl, n + 1, 0);
  for (int k = 0; k < n; ++k)
    for (int t = ju[k]; t < ju[k + 1] - 1; ++t) ++jusl[columns[t]];
  int start = 0;
  for (int c = 0; c <= n; ++c) start += std::exchange(jusl[c], start);
  int* const list = jusl + n + 1;
  for (int k = 0; k < n; ++k)
    for (int t = ju[k]; t < ju[k + 1] - 1; ++t) {
      const int m = jusl[columns[t]]++;
      list[2 * m] = t;
      list[2 * m + 1] = k;
    }
  for (int c = n; c > 0; --c) jusl[c] = jusl[c - 1];
  jusl[0] = 0;
  return 0;
}

} // namespace torvale::matrix
