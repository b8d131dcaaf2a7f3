// Which derivatives by parameters are taken as products of coefficients and factors, and the programs for both.

#include "evaluation/program_outputs.h"

#include <algorithm>
#include <map>
#include <set>

namespace torvale::evaluation {

using engine::CMPSYM;
using engine::FactoredTerm;
using model::FactoredPrograms;
using model::ModelPrograms;
using model::NX;

namespace {

constexpr std::size_t fewest_parameters = 4; // that are worth it

class Factoring {
public:
  Factoring(NX& n, Outputs gradient, Outputs closing)
      : n_(n), p_(n.programs), gradient_(std::move(gradient)), closing_(std::move(closing)),
        sources_(closing_.symbols.empty() ? 1 : 1 + p_.ne + (n.needtriu ? p_.ne * (p_.ne + 1) / 2 : 0))
  {
  }

  void run()
  {
    std::vector<CMPSYM*> outputs;
    for (int j = 0; j < p_.np; ++j)
      for (int s = 0; s < sources_; ++s) outputs.push_back(output(j, s));
    terms_ = engine::cmpfactor(*n_.gcmp, outputs);
    choose();
    if (chosen_.size() < fewest_parameters) return;
    for (int j = 0; j < p_.np; ++j)
      if (chosen_.count(j) > 0)
        add_products(j);
      else
        p_.factored.plain.push_back(j);
    specialise();
  }

private:
  // The derivative of parameter j that is weighed by source s.
  CMPSYM*& output(int j, int s)
  {
    if (s == 0) return gradient_.at(p_.by_parameter(j));
    return s <= p_.ne ? closing_.at(p_.cross_place(s - 1, j)) : closing_.at(p_.third_place(j, s - 1 - p_.ne));
  }
  const std::vector<FactoredTerm>& terms(int j, int s) const
  {
    return terms_[static_cast<std::size_t>(j * sources_ + s)];
  }

  // Those all of whose coefficients are shared with another one.
  void choose()
  {
    for (int j = 0; j < p_.np; ++j)
      if (!terms(j, 0).empty()) chosen_.insert(j);
    for (std::size_t before = chosen_.size() + 1; chosen_.size() < before;) {
      before = chosen_.size();
      std::map<const CMPSYM*, std::set<int>> users;
      for (const int j : chosen_)
        for (int s = 0; s < sources_; ++s)
          for (const FactoredTerm& t : terms(j, s)) users[t.coefficient].insert(j);
      std::erase_if(chosen_, [&](int j) {
        for (int s = 0; s < sources_; ++s)
          for (const FactoredTerm& t : terms(j, s))
            if (users[t.coefficient].size() < 2) return true;
        return false;
      });
    }
  }

  template <class T> static int place_in(std::vector<T>& list, const T& what)
  {
    const auto at = std::find(list.begin(), list.end(), what);
    if (at == list.end()) {
      list.push_back(what);
      return static_cast<int>(list.size()) - 1;
    }
    return static_cast<int>(at - list.begin());
  }

  // Per factor of the parameter what its coefficients are weighed by.
  void add_products(int j)
  {
    std::vector<std::pair<CMPSYM*, std::vector<Use>>> by_factor;
    for (int s = 0; s < sources_; ++s) {
      for (const FactoredTerm& t : terms(j, s)) {
        auto at = std::find_if(by_factor.begin(), by_factor.end(), [&](const auto& f) { return f.first == t.factor; });
        if (at == by_factor.end()) at = by_factor.insert(at, {t.factor, {}});
        at->second.push_back({s, place_in(s == 0 ? of_points_ : of_modes_, t.coefficient)});
      }
      output(j, s) = nullptr;
    }
    for (const auto& [factor, uses] : by_factor)
      p_.factored.products.push_back(
          {j, place_in(multipliers_, uses), factor == nullptr ? -1 : place_in(factors_, factor)});
  }

  void specialise()
  {
    FactoredPrograms& f = p_.factored;
    f.point_coefficients = static_cast<int>(of_points_.size());
    f.mode_coefficients = static_cast<int>(of_modes_.size());
    for (const auto& uses : multipliers_) {
      f.multipliers.emplace_back();
      for (const Use& u : uses)
        f.multipliers.back().push_back({u.source, u.source == 0 ? u.place : f.point_coefficients + u.place});
    }
    f.gradient = gradient_.specialise(*n_.gcmp, of_points_);
    if (sources_ > 1) f.closing = closing_.specialise(*n_.gcmp, of_modes_);
    f.factors = engine::cmpspec(*n_.gcmp, factors_);
  }

  struct Use {
    int source, place; // of the coefficient among those of the points, or of the modes
    bool operator==(const Use&) const = default;
  };

  NX& n_;
  ModelPrograms& p_;
  Outputs gradient_, closing_;
  const int sources_;
  std::vector<std::vector<FactoredTerm>> terms_;
  std::set<int> chosen_;
  std::vector<CMPSYM*> of_points_, of_modes_, factors_;
  std::vector<std::vector<Use>> multipliers_;
};

} // namespace

void factor_programs(NX& n, Outputs gradient, Outputs closing)
{
  Factoring(n, std::move(gradient), std::move(closing)).run();
}

} // namespace torvale::evaluation
