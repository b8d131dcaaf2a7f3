#pragma once
// Triangles of effects, packed by rows.

namespace torvale::modes {

// Place of element (i, j) of a symmetric matrix, in either order: matrix::packed_index for the small numbers of
// kernels.
constexpr int packed(int i, int j)
{
  return i < j ? j * (j + 1) / 2 + i : i * (i + 1) / 2 + j;
}

// Place of element (i, j, k), i >= j >= k, of a symmetric array of three dimensions, and how many there are.
constexpr int packed(int i, int j, int k)
{
  return i * (i + 1) * (i + 2) / 6 + packed(j, k);
}
constexpr int tetrahedron(int order)
{
  return packed(order, 0, 0);
}

} // namespace torvale::modes
