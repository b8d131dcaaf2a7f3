#pragma once
// A plain evaluator of typed trees: one record, statement by statement, as the language says it. Slow, obviously right,
// and sharing nothing with the engine: the other side of the differential tests.

#include "syntax/tree.h"

#include <map>
#include <string>
#include <vector>

namespace torvale::test {

class PlainEvaluator {
public:
  std::map<std::string, double> variables; // names in lower case; NaN is missing
  std::map<std::string, std::vector<std::string>> arrays;
  int faults = 0; // divisions by zero and domain errors executed

  void run(const syntax::Program& program);
  double value(const syntax::Expr& e);

private:
  enum class Flow { on, leave, next, stop };
  Flow statement(const syntax::Statement* s);
  Flow block(syntax::Block b);
  Flow loop(const syntax::DoStatement& d);
  double call(const syntax::Expr& e);
  double& place(const syntax::Expr& target);
  double faulty();
};

} // namespace torvale::test
