#pragma once
// A plain evaluator of typed trees: one record after the other, statement by statement, as the language says it. Slow,
// obviously right, and sharing nothing with the engine: the other side of the differential tests.

#include "syntax/tree.h"

#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace torvale::test {

// A number (NaN: missing, of some kind) or a text.
struct PlainValue {
  double number = std::nan("");
  std::string text;
  bool is_text = false;
  PlainValue() = default;
  PlainValue(double v) : number(v) {}
  PlainValue(std::string s) : text(std::move(s)), is_text(true) {}
  operator double() const { return number; }
};

class PlainEvaluator {
public:
  using Variables = std::map<std::string, PlainValue>; // names in lower case
  Variables variables;
  int faults = 0; // divisions by zero and domain errors executed

  void run(const syntax::Program& program);
  PlainValue value(const syntax::Expr& e);
  double read(const std::string& name) { return named(name); } // a numeric variable, kept ones too

  // Records of subjects: kept variables begin with their first values in begin_subject, all others in begin_record.
  void begin_subject();
  void begin_record(const Variables& data);

private:
  enum class Flow { on, leave, next, stop, jump };
  struct Array {
    std::vector<std::string> elements;
    std::vector<std::int32_t> low, high;
  };
  using Kept = std::map<std::pair<const void*, std::string>, PlainValue>; // by subprogram (null: the program)

  void declare(syntax::Block b);
  Flow statement(const syntax::Statement* s);
  Flow block(syntax::Block b, std::size_t from = 0);
  Flow loop(const syntax::DoStatement& d);
  Flow range(const syntax::DoStatement& d, const syntax::LoopRange& r);
  Flow assign(const syntax::Assignment& a);
  Flow link(const syntax::JumpStatement& j);
  void store(const syntax::Expr& target, PlainValue v);
  PlainValue call(const syntax::Expr& e);
  PlainValue text_function(const std::string& name, const std::vector<PlainValue>& x, bool& found);
  PlainValue lag(const syntax::Expr& e, const std::string& name);
  PlainValue subprogram(const syntax::SubprogramDefinition& d, std::span<syntax::Expr* const> arguments);
  PlainValue& place(const syntax::Expr& target);
  PlainValue& named(const std::string& name);
  double faulty();

  const syntax::Program* program_ = nullptr;
  const syntax::SubprogramDefinition* inside_ = nullptr;
  std::map<std::string, Array> arrays_;
  std::map<std::string, std::size_t> lengths_; // of text variables
  std::map<std::string, const syntax::SubprogramDefinition*> subprograms_;
  Kept first_, kept_;
  std::map<const syntax::Expr*, std::vector<PlainValue>> lagged_; // per LAG: what its argument was, record by record
  std::string jump_;
  PlainValue result_;
};

} // namespace torvale::test
