// FUNCTION and SUBROUTINE definitions.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>

namespace torvale::language {

using namespace syntax;

void Builder::subprogram(std::span<Value> r, Value& result)
{
  SubprogramDefinition* s = make_statement<SubprogramDefinition>(StatementKind::subprogram, r);
  s->is_function = r[0].code == 1;
  s->name = r[0].token.text;
  s->character_result = r[2].code != 0;
  std::vector<Parameter> parameters;
  for (const Value& v : items(r[1].list)) {
    Parameter p;
    p.name = v.token.text;
    p.character = v.code == 1;
    p.array = v.code == 2;
    p.output = std::any_of(outputs_.begin(), outputs_.end(), [&](std::string_view o) { return same_name(o, p.name); });
    parameters.push_back(p);
  }
  for (std::string_view o : outputs_)
    if (std::none_of(parameters.begin(), parameters.end(), [&](const Parameter& p) { return same_name(p.name, o); }))
      diagnostics_->error(Problem::bad_subprogram, s->where,
                          "OUTARGS names " + std::string(o) + ", which is no argument of " + std::string(s->name) +
                              ".");
  outputs_.clear();
  s->parameters = arena_.copy(parameters);
  s->body = block(r[4].list);
  if (result.depth > 0)
    diagnostics_->error(Problem::misplaced_statement, s->where,
                        "A subprogram cannot be defined inside another statement.");
  store(result, s);
}

template <> void Builder::on<Action::open_subprogram>(const SEMARG& a, std::span<Value> r, Value& result)
{
  outputs_.clear();
  result.token = r[1].token;
  result.code = a.arglist[0];
}

template <> void Builder::on<Action::parameter>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = 0;
}

template <> void Builder::on<Action::parameter_character>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = 1;
}

template <> void Builder::on<Action::parameter_array>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.code = 2;
  scanner_.declare_array(r[0].token.text);
}

template <> void Builder::on<Action::subprogram>(const SEMARG&, std::span<Value> r, Value& result)
{
  subprogram(r, result);
}

template <> void Builder::on<Action::outargs_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  for (const Value& v : items(r[1].list)) outputs_.push_back(v.token.text);
  store(result, make_statement<Statement>(StatementKind::empty, r));
}

} // namespace torvale::language
