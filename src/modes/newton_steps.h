#pragma once
// What the next Newton step of a search would be, for the subjects that stand side by side in T, a double or Four. The
// decisions are the search's, subject by subject.

#include "evaluation/slot_group.h"
#include "modes/hessian_at_mode.h"
#include "modes/joint_density.h"
#include "modes/packed.h"
#include "modes/search_rules.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace torvale::modes {

template <int NR, class T> struct NewtonSteps {
  static constexpr int capacity = JointDensity<NR>::capacity;
  static constexpr int width = evaluation::SlotGroup<T>::width;
  JointDensity<NR, T> at; // after invert: step and inverse Hessian by z in place of gradient and Hessian
  T factor[static_cast<std::size_t>(capacity * (capacity + 1) / 2)];
  T pivots[static_cast<std::size_t>(capacity)];
  T length = {}; // largest component of the step in u
  T square = {}; // largest square of one in z, in posterior variances
  T bent = {};   // the same of what bend has added to it; of the step itself where that is too much
  T after = {};  // about what the next step will be, once bend has been called
  T logdet = {}; // log det H, once determine has been called
  bool determined = false;
  double inverted[width]; // not 0: the Hessian is; of a vector only where it needed no repair

  explicit NewtonSteps(int nr) : at(nr) {}
  int nr() const { return at.nr(); }

  void invert(const model::RunOptions& options, model::BlockWork& block)
  {
    if constexpr (width == 1) {
      inverted[0] = InvertHessian<NR>(options, nr(), at.hessian, at.gradient, pivots, block) == 0 ? 1.0 : 0.0;
    } else {
      const T one = T{} + 1.0, none = {};
      const auto fits = invert_definite<NR>(options, at.hessian, at.gradient, pivots);
      evaluation::SlotGroup<T>::store(fits ? one : none, inverted);
    }
    measure();
  }

  void determine()
  {
    if (determined) return;
    determined = true;
    using Group = evaluation::SlotGroup<T>;
    int i = 0;
    if constexpr (NR > 1)
      for (; i + 1 < nr(); i += 2) {
        const T product = evaluation::absolute(pivots[i] * pivots[i + 1]); // out of range after a repair alone
        if (width > 1 || std::isnormal(Group::of(product, 0)))
          logdet += Group::logarithm(product);
        else
          logdet +=
              Group::logarithm(evaluation::absolute(pivots[i])) + Group::logarithm(evaluation::absolute(pivots[i + 1]));
      }
    for (; i < nr(); ++i) logdet += Group::logarithm(evaluation::absolute(pivots[i]));
  }

  // Adds to the steps s what third derivatives of the log likelihood by u, f''', make of them: the minimum of the
  // expansion of f to third order is near z - s - 1/2 H^-1 f'''[s, s] (Chebyshev). Not where that is no small part.
  void bend(const T* third)
  {
    T move[capacity], pull[capacity] = {}, more[capacity];
    const T* l = factor;
    for (int i = 0; i < nr(); ++i) {
      move[i] = T{};
      for (int k = 0; k <= i; ++k) move[i] += l[k] * at.gradient[k];
      l += i + 1;
    }
    for (int i = 0; i < nr(); ++i)
      for (int j = 0; j < nr(); ++j)
        for (int k = 0; k < nr(); ++k) pull[k] += third[sorted(i, j, k)] * (move[i] * move[j]);
    for (int i = 0; i < nr(); ++i) {
      more[i] = T{};
      for (int k = i; k < nr(); ++k) more[i] += factor[packed(k, i)] * pull[k];
    }
    T added[capacity], size = {};
    for (int i = 0; i < nr(); ++i) {
      added[i] = T{};
      for (int k = 0; k < nr(); ++k) added[i] -= 0.5 * (at.hessian[packed(i, k)] * more[k]);
      const T ratio = added[i] * added[i] / evaluation::absolute(at.hessian[packed(i, i)]);
      size = ratio <= size ? size : ratio;
    }
    const T none = {};
    const auto fits = size <= largest_bend * square;
    bent = fits ? size : square;
    after = step_after_bent(bent, square);
    for (int i = 0; i < nr(); ++i) at.gradient[i] += fits ? added[i] : none;
  }

  // A number of one of the subjects.
  static double of(const T& t, int i) { return evaluation::SlotGroup<T>::of(t, i); }
  // Its numbers in an array, `width` doubles apart.
  static const double* column(const T* t, int i) { return reinterpret_cast<const double*>(t) + i; }

private:
  static constexpr int sorted(int i, int j, int k)
  {
    if (i < j) std::swap(i, j);
    return k <= i ? packed(i, j, k) : packed(k, i, j);
  }

  void measure()
  {
    length = square = T{};
    const T* l = factor;
    for (int i = 0; i < nr(); ++i) {
      T move = {};
      for (int k = 0; k <= i; ++k) move += l[k] * at.gradient[k];
      l += i + 1;
      move = evaluation::absolute(move);
      length = move <= length ? length : move; // so that what is not a number shows
      T ratio = at.gradient[i] * at.gradient[i];
      if constexpr (NR == 1)
        ratio *= evaluation::absolute(pivots[0]);
      else
        ratio /= evaluation::absolute(at.hessian[i * (i + 3) / 2]);
      square = ratio <= square ? square : ratio;
    }
  }
};

} // namespace torvale::modes
