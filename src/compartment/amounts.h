#pragma once
// Amounts in all compartments and in the depot, as groups of variables NAME0 (the depot, of oral models), NAME1, ...

#include "compartment/solution.h"

namespace torvale::compartment {

class Amounts {
public:
  Amounts(StatementText& text, const Model& model) : text_(text), model_(model) {}

  int first() const { return model_.administration == Administration::oral ? 0 : 1; }
  int last() const { return model_.compartments; }
  static std::string of(const std::string& name, int k) { return name + std::to_string(k); }

  void set_all(const std::string& name, const std::string& value);
  void add(const std::string& name, const std::string& term); // a group to a group
  // `to`: what is left of the amounts `from` after the time.
  void pass(const std::string& from, const std::string& time, const std::string& to);
  // `to`: what the constant inputs `rates` have brought after the time.
  void fill(const std::string& rates, const std::string& time, const std::string& to);
  // The amounts `name`, which arrive at the beginning of every interval, become what is there then.
  void repeat(const std::string& name, const std::string& interval);
  // The inputs `rates` become the amounts that they keep up for ever.
  void balance(const std::string& rates);

private:
  void respond(Input input, Input from_depot, const std::string& from, const std::string& time, const std::string& to);

  StatementText& text_;
  const Model& model_;
};

} // namespace torvale::compartment
