#include "language/builder/builder.h"

#include "language/lexical.h"

namespace torvale::language {

void Builder::begin(syntax::PROCSTR& proc)
{
  proc_ = &proc;
  scratch_ = std::make_unique<syntax::Arena>();
  scanner_.forget_arrays();
  variables_.clear();
  known_.clear();
  known_set_.clear();
  arrays_.clear();
  labels_.clear();
  jumps_.clear();
  by_given_ = false;
  abandon_statement();
}

void Builder::abandon_statement()
{
  if (proc_) proc_->current = nullptr;
  given_.clear();
}

void Builder::act(const SEMARG& a, std::span<Value> right, Value& result)
{
  const Action action = static_cast<Action>(a.action);
  // Each family takes its own actions; every action of the grammar belongs to one.
  if (act_on_expressions(action, a, right, result)) return;
  if (act_on_lists(action, a, right, result)) return;
  if (act_on_statements(action, a, right, result)) return;
  if (act_on_declarations(action, a, right, result)) return;
  act_on_procedure(action, a, right, result);
}

void Builder::finish()
{
  for (const syntax::JumpStatement* jump : jumps_)
    if (labels_.count(upper_case(jump->target)) == 0)
      diagnostics_->error(Problem::unknown_label, jump->where,
                          "There is no label called " + std::string(jump->target) + ": write " +
                              std::string(jump->target) + ": before the statement to go to.");
}

} // namespace torvale::language
