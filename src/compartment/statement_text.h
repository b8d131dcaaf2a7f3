#pragma once
// Programming statements as text, made from short patterns.

#include "compartment/options.h"

#include <string>
#include <string_view>
#include <vector>

namespace torvale::compartment {

// StatementText: collects lines. In a pattern @ stands for the beginning of generated names ("_2cmpt_"), and $WORD for
// the value of that option.
class StatementText {
public:
  explicit StatementText(const Model& model)
      : model_(model), prefix_("_" + std::to_string(model.compartments) + "cmpt_")
  {
  }

  void add(std::string_view pattern) { lines_.push_back(filled(pattern)); }
  std::string filled(std::string_view pattern) const;
  std::vector<std::string> take() { return std::move(lines_); }

private:
  const Model& model_;
  std::string prefix_;
  std::vector<std::string> lines_;
};

} // namespace torvale::compartment
