#pragma once
// Programming statements as text, made from short patterns.

#include "compartment/options.h"

#include <string>
#include <string_view>
#include <vector>

namespace torvale::compartment {

// StatementText: collects lines. In a pattern @ stands for the beginning of generated names ("_2cmpt_"), and $WORD for
// the value of that option. Event records keep amounts under such names: there the second model of a program has
// others ("_2cmpt2_"), so that it does not meet the first.
class StatementText {
public:
  explicit StatementText(const Model& model)
      : model_(model), prefix_("_" + std::to_string(model.compartments) + "cmpt" +
                               (model.events.given && model.earlier > 0 ? std::to_string(model.earlier + 1) : "") + "_")
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
