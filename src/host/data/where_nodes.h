#pragma once
#include "host/data/where.h"
#include "host/data/where_functions.h"
#include <vector>

namespace torvale::host {

// One node of a condition. Operands stand in the order written; IN has its value first, then the list.
struct WhereExpression::Node {
  enum class Kind {
    number,
    text,
    column, // leaves
    negate,
    add,
    subtract,
    multiply,
    divide,
    power,
    concatenate, // values
    equal,
    not_equal,
    less,
    less_equal,
    greater,
    greater_equal, // comparisons: 1 or 0
    both,
    either,
    negation,
    in,
    between,
    is_missing,
    contains,
    like,
    function,
    to_number, // of a text
  };
  Kind kind = Kind::number;
  double number = 0.0;    // of a number
  std::string text;       // of a text; the name of a column
  std::size_t column = 0; // index of a column, once bound
  const WhereFunction* function = nullptr;
  bool character = false; // does it give characters? Once bound
  std::vector<std::unique_ptr<Node>> operands;
};

} // namespace torvale::host
