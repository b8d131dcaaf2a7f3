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
  assigned_.clear();
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
  (this->*function_of(static_cast<Action>(a.action)))(a, right, result);
}

Builder::ActionFunction Builder::function_of(Action action)
{
  switch (action) {
#define TORVALE_ACTION(name)                                                                                           \
  case Action::name:                                                                                                   \
    return &Builder::on<Action::name>;
    TORVALE_ACTIONS(TORVALE_ACTION)
#undef TORVALE_ACTION
  }
  return nullptr; // every action of the tables is one of the enumeration
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
