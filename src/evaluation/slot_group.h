#pragma once
// Small matrices of several slots at once: what is done for a subject with doubles is done for four with vectors of
// them. Every element is computed alone, so that a slot's numbers are the same beside whomever it stands. Files that
// use it are compiled with -Wno-psabi: such vectors cross no call between files.

#include <cmath>
#include <cstring>

namespace torvale::evaluation {

using Four = double __attribute__((vector_size(32)));

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
    g.used = left < width ? left : width;
    for (int i = 0; i < width; ++i) g.slot[i] = list[i < g.used ? i : g.used - 1];
    g.compare();
    return g;
  }

  // What the table has for each of them, such as their columns.
  SlotGroup through(const int* table) const
  {
    SlotGroup g;
    g.used = used;
    for (int i = 0; i < width; ++i) g.slot[i] = table[slot[i]];
    g.compare();
    return g;
  }

  // Of numbers that stand side by side; from[slot of each times `stride`].
  static T load(const double* from)
  {
    T t;
    std::memcpy(&t, from, sizeof t);
    return t;
  }
  static void store(T t, double* to) { std::memcpy(to, &t, sizeof t); }
  template <class Number> T gather(const Number* from, long stride) const
  {
    if constexpr (width == 1)
      return from[slot[0] * stride];
    else
      return T{from[slot[0] * stride], from[slot[1] * stride], from[slot[2] * stride], from[slot[3] * stride]};
  }
  // From a row with a number for each slot.
  T from_row(const double* row) const { return adjacent ? load(row + slot[0]) : gather(row, 1); }
  // Into to[slot of each times `stride`].
  static T root(T t)
  {
    double v[width];
    std::memcpy(v, &t, sizeof t);
    for (double& x : v) x = std::sqrt(x);
    return load(v);
  }
  template <class Number> void scatter(T t, Number* to, long stride) const
  {
    double v[width];
    std::memcpy(v, &t, sizeof t);
    for (int i = 0; i < used; ++i) to[slot[i] * stride] = static_cast<Number>(v[i]);
  }

  static T logarithm(T t)
  {
    double v[width];
    std::memcpy(v, &t, sizeof t);
    for (double& x : v) x = std::log(x);
    return load(v);
  }

private:
  void compare()
  {
    adjacent = true;
    for (int i = 1; i < width; ++i) adjacent = adjacent && slot[i] == slot[0] + i;
  }
};

// build_for_machine: which of two builds of the same code runs here. The second is a function marked TORVALE_AVX2_BUILD
// that calls what the first calls. All of that is inlined there, as vectors must not pass between code with AVX and
// code without; where the compiler does not promise it, there is one build.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define TORVALE_HAS_AVX2_BUILD
#define TORVALE_AVX2_BUILD [[gnu::target("avx2"), gnu::flatten]]
#else
#define TORVALE_AVX2_BUILD
#endif

template <class Call> Call build_for_machine(Call plain, [[maybe_unused]] Call avx2)
{
#if defined(TORVALE_HAS_AVX2_BUILD)
  static const bool wide = __builtin_cpu_supports("avx2");
  return wide ? avx2 : plain;
#else
  return plain;
#endif
}

} // namespace torvale::evaluation
