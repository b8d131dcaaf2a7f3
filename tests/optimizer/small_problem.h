#pragma once

#include "optimizer/optimizer.h"

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

namespace torvale::test {

// A problem made of two lambdas, and everything that a run of it reports. Set options on `str` after prepare().
class SmallProblem {
public:
  using Value = std::function<double(const std::vector<double>&)>;
  using Gradient = std::function<std::vector<double>(const std::vector<double>&)>;

  SmallProblem(std::vector<double> start, Value value, Gradient gradient = nullptr)
      : start_point(std::move(start)), f(std::move(value)), g(std::move(gradient))
  {
    optimizer::tvlopti(&str);
    str.nvar = static_cast<long>(start_point.size());
    str.comstr = this;
    str.usfct = [](optimizer::MINSTR* s) { return self(s).objective(); };
    if (g) str.usgrd = [](optimizer::MINSTR* s) { return self(s).gradient(); };
    str.message = [](optimizer::MINSTR* s, int group, int number, int, const double*, int) {
      self(s).messages.push_back(group * 1000 + number);
    };
    str.history = [](optimizer::MINSTR* s, const optimizer::HistoryRow& row) { self(s).history.push_back(row); };
  }

  // The same with a technique. QUANEW alone would mean the factored update: the inverse one is asked for.
  SmallProblem(int technique, std::vector<double> start, Value value, Gradient gradient = nullptr)
      : SmallProblem(std::move(start), std::move(value), std::move(gradient))
  {
    str.tech = technique;
    str.tupd = technique == optimizer::QUANEW ? 6 : 0;
  }

  void bounds(std::vector<double> lower, std::vector<double> upper)
  {
    str.bounds = 1;
    low = std::move(lower);
    high = std::move(upper);
  }

  // a'x >= b, or a'x = b. Equalities must come first.
  void row(std::vector<double> a, double b, bool equality = false)
  {
    str.lincon = 1;
    ++str.ncon;
    str.neqc += equality;
    rows.push_back(std::move(a));
    right_sides.push_back(b);
  }

  // Arrays, start and defaults. Returns the code of tvloptc.
  int prepare()
  {
    optimizer::tvlopta(&str);
    std::copy(start_point.begin(), start_point.end(), str.x);
    std::copy(low.begin(), low.end(), str.lb);
    std::copy(high.begin(), high.end(), str.ub);
    for (std::size_t r = 0; r < rows.size(); ++r) {
      std::copy(rows[r].begin(), rows[r].end(), str.alcn + static_cast<long>(r) * str.nvar);
      str.blcn[r] = right_sides[r];
    }
    return optimizer::tvloptc(&str);
  }

  // Both stages; the code of the last one that ran.
  int run()
  {
    int code = prepare();
    if (code != 0) return code;
    code = optimizer::znlpdrv(&str, 1, 0, 0, 0);
    return code != 0 ? code : optimizer::znlpdrv(&str, 2, 0, 0, 0);
  }

  std::vector<double> x() const { return {str.x, str.x + str.nvar}; }
  bool told(int group, int number) const
  {
    return std::count(messages.begin(), messages.end(), group * 1000 + number) > 0;
  }

  optimizer::MINSTR str;
  std::vector<int> messages; // group * 1000 + number
  std::vector<optimizer::HistoryRow> history;
  std::function<int(int call)> fail; // return code of the objective by call, when set

private:
  static SmallProblem& self(optimizer::MINSTR* s) { return *static_cast<SmallProblem*>(s->comstr); }

  int objective()
  {
    ++str.nfct;
    ++calls;
    str.crit = f(x());
    return fail ? fail(calls) : 0;
  }

  int gradient()
  {
    ++str.ngrd;
    const std::vector<double> result = g(x());
    std::copy(result.begin(), result.end(), str.grad);
    return 0;
  }

  std::vector<double> start_point;
  Value f;
  Gradient g;
  std::vector<double> low, high, right_sides;
  std::vector<std::vector<double>> rows;
  int calls = 0;
};

} // namespace torvale::test
