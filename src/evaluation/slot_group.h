#pragma once
// Small matrices of several slots at once: what is done for a subject with doubles is done for four with vectors of
// them. Every element is computed alone, so that a slot's numbers are the same beside whomever it stands. Files that
// use it are compiled with -Wno-psabi: such vectors cross no call between files.

#include "evaluation/machine_builds.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace torvale::evaluation {

using Four = double __attribute__((vector_size(32)));
using FourFloats = float __attribute__((vector_size(16)));
using FourBits = std::uint64_t __attribute__((vector_size(32)));

// SlotGroup: the slots whose numbers stand side by side in a T, which is a double or Four. Where there are not enough
// of them the places behind the last hold anything.
template <class T> struct SlotGroup {
  static constexpr int width = sizeof(T) / sizeof(double);
  int slot[width] = {};
  int used = width;
  bool adjacent = width == 1; // each slot is the one after that before it

  static SlotGroup of_list(const int* list, int left)
  {
    SlotGroup g;
    if (width == 1 || left >= width) { // there is always one
      std::memcpy(g.slot, list, sizeof g.slot);
    } else {
      g.used = left;
      for (int i = 0; i < width; ++i) g.slot[i] = list[i < left ? i : left - 1];
    }
    g.compare();
    return g;
  }

  // What the table has for each of them, such as their columns.
  SlotGroup through(const int* table) const
  {
    SlotGroup g;
    g.take(*this, table);
    return g;
  }
  void take(const SlotGroup& from, const int* table)
  {
    used = from.used;
    for (int i = 0; i < width; ++i) slot[i] = table[from.slot[i]];
    compare();
  }

  // Numbers that stand side by side.
  static T load(const double* from)
  {
    T t;
    std::memcpy(&t, from, sizeof t);
    return t;
  }
  static FourFloats load_floats(const float* from)
  {
    FourFloats v;
    std::memcpy(&v, from, sizeof v);
    return v;
  }
  static void store(T t, double* to) { std::memcpy(to, &t, sizeof t); }
  // The number of the i-th.
  static double of(const T& t, int i) { return reinterpret_cast<const double*>(&t)[i]; }
  // from[slot of each times `stride`].
  template <class Number> T gather(const Number* from, long stride) const
  {
    if constexpr (width == 1) return from[slot[0] * stride];
    if constexpr (std::is_same_v<Number, double>)
      if (stride == 1 && adjacent) return load(from + slot[0]);
    if constexpr (width > 1 && std::is_same_v<Number, float>) {
      if (stride == 1 && adjacent) return __builtin_convertvector(load_floats(from + slot[0]), T);
      const FourFloats floats = {from[slot[0] * stride], from[slot[1] * stride], from[slot[2] * stride],
                                 from[slot[3] * stride]};
      return __builtin_convertvector(floats, T);
    } else if constexpr (width > 1)
      return T{from[slot[0] * stride], from[slot[1] * stride], from[slot[2] * stride], from[slot[3] * stride]};
  }
  // The same of a table with a row for each slot (`own`), or with one row for all of them.
  T gather_or_share(bool own, const double* from, long stride) const
  {
    return own ? gather(from, stride) : T{} + *from;
  }
  // From a row with a number for each slot.
  T from_row(const double* row) const { return adjacent ? load(row + slot[0]) : gather(row, 1); }
  T from_row_or_share(bool own, const double* row) const { return own ? from_row(row) : T{} + *row; }
  void into_row(T t, double* row) const
  {
    if (adjacent)
      store(t, row + slot[0]);
    else
      scatter(t, row, 1);
  }
  // Onto to[slot of each times `stride`], one after the other: several may have one place.
  void add_in_order(T t, double* to, long stride) const
  {
    double v[width];
    store(t, v);
    double* at = to + slot[0] * stride;
    double sum = *at;
    for (int i = 0; i < used; ++i) {
      double* const next = to + slot[i] * stride;
      if (next != at) {
        *at = sum;
        at = next;
        sum = *at;
      }
      sum += v[i];
    }
    *at = sum;
  }
  static T root(T t)
  {
    double v[width];
    std::memcpy(v, &t, sizeof t);
    for (double& x : v) x = std::sqrt(x);
    return load(v);
  }
  // Into to[slot of each times `stride`].
  template <class Number> void scatter(T t, Number* to, long stride) const
  {
    if constexpr (std::is_same_v<Number, double>)
      if (stride == 1 && adjacent && used == width) return store(t, to + slot[0]);
    Number v[width];
    if constexpr (width > 1 && std::is_same_v<Number, float>) {
      const auto rounded = __builtin_convertvector(t, FourFloats);
      if (stride == 1 && adjacent && used == width) {
        std::memcpy(to + slot[0], &rounded, sizeof rounded);
        return;
      }
      std::memcpy(v, &rounded, sizeof v);
    } else if constexpr (std::is_same_v<Number, double>) {
      std::memcpy(v, &t, sizeof t);
    } else {
      v[0] = static_cast<Number>(t);
    }
    for (int i = 0; i < used; ++i) to[slot[i] * stride] = v[i];
  }

  // `count` columns, 4 at most, of a table with a row of `stride` doubles for each slot.
  static constexpr int block = 4;
  void scatter_columns(const T* t, int count, double* to, long stride) const
  {
    if constexpr (width == block)
      if (count == block) return scatter_rows(t, to, stride);
    for (int k = 0; k < count; ++k) scatter(t[k], to + k, stride);
  }

  // log(x), within 1 ulp. x = 2^k (1 + f), 1 + f within sqrt(2) of 1; with s = f / (2 + f), log(1 + f) = 2 artanh s, by
  // a polynomial in s^2 that is off by 2^-58 at most (Cody and Waite, Software manual for the elementary functions,
  // 1980). What is not positive, finite and normal goes to the library.
  static T logarithm(T x)
  {
    using Bits = std::conditional_t<width == 1, std::uint64_t, FourBits>;
    constexpr std::uint64_t half_root = 0x3fe6a09e00000000, one = 0x3ff0000000000000, fraction = 0x000fffffffffffff;
    constexpr double ln2_high = 6.93147180369123816490e-01, ln2_low = 1.90821492927058770002e-10;
    constexpr double two52 = 4503599627370496.0, bias = 1023.0;
    constexpr std::uint64_t two52_bits = 0x4330000000000000;
    const Bits shifted = std::bit_cast<Bits>(x) + (one - half_root);
    const T k = std::bit_cast<T>((shifted >> 52) | two52_bits) - (two52 + bias);
    const T f = std::bit_cast<T>((shifted & fraction) + half_root) - 1.0;
    const T s = f / (2.0 + f), z = s * s, w = z * z;
    const T odd = w * (3.999999999940941908e-01 + w * (2.222219843214978396e-01 + w * 1.531383769920937332e-01));
    const T even = z * (6.666666666666735130e-01 +
                        w * (2.857142874366239149e-01 + w * (1.818357216161805012e-01 + w * 1.479819860511658591e-01)));
    const T square = 0.5 * f * f;
    T result = k * ln2_high - ((square - (s * (square + (even + odd)) + k * ln2_low)) - f);
    constexpr std::uint64_t smallest = std::bit_cast<std::uint64_t>(std::numeric_limits<double>::min());
    constexpr std::uint64_t normal = std::bit_cast<std::uint64_t>(std::numeric_limits<double>::max()) - smallest;
    const auto strange = std::bit_cast<Bits>(x) - smallest > normal; // what is negative has larger bits
    if (any(strange)) [[unlikely]] {
      double from[width], to[width];
      store(x, from);
      store(result, to);
      for (int i = 0; i < width; ++i)
        if (std::bit_cast<std::uint64_t>(from[i]) - smallest > normal) to[i] = std::log(from[i]);
      return load(to);
    }
    return result;
  }

private:
  template <class Mask> static bool any(const Mask& mask)
  {
    if constexpr (width == 1)
      return mask != 0;
    else
      return (mask[0] | mask[1] | mask[2] | mask[3]) != 0;
  }

  void scatter_rows(const T* t, double* to, long stride) const
  {
    const T even01 = __builtin_shufflevector(t[0], t[1], 0, 4, 2, 6),
            odd01 = __builtin_shufflevector(t[0], t[1], 1, 5, 3, 7);
    const T even23 = __builtin_shufflevector(t[2], t[3], 0, 4, 2, 6),
            odd23 = __builtin_shufflevector(t[2], t[3], 1, 5, 3, 7);
    const T row[width] = {
        __builtin_shufflevector(even01, even23, 0, 1, 4, 5), __builtin_shufflevector(odd01, odd23, 0, 1, 4, 5),
        __builtin_shufflevector(even01, even23, 2, 3, 6, 7), __builtin_shufflevector(odd01, odd23, 2, 3, 6, 7)};
    for (int i = 0; i < used; ++i) store(row[i], to + slot[i] * stride);
  }

  void compare()
  {
    int apart = 0;
    for (int i = 1; i < width; ++i) apart |= slot[i] ^ (slot[0] + i);
    adjacent = apart == 0;
  }
};

// for_groups: f(group) for all that a list has.
template <class T, class F> void for_groups(const std::vector<int>& list, F&& f)
{
  const int count = static_cast<int>(list.size());
  for (int first = 0; first < count; first += SlotGroup<T>::width)
    f(SlotGroup<T>::of_list(list.data() + first, count - first));
}

template <class T> T absolute(T t)
{
  return t < 0.0 ? -t : t;
}

} // namespace torvale::evaluation
