#pragma once
// Triangles of effects, packed by rows.

namespace torvale::modes {

// Place of element (i, j) of a symmetric matrix, in either order: matrix::packed_index for the small numbers of
// kernels.
constexpr int packed(int i, int j)
{
  return i < j ? j * (j + 1) / 2 + i : i * (i + 1) / 2 + j;
}

} // namespace torvale::modes
