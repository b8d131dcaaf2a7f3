#pragma once
#include "host/data_set.h"
#include <memory>
#include <string>
#include <string_view>

namespace torvale::host {

// The condition of WHERE=: comparisons (= ^= < <= > >= and EQ NE LT LE GT GE), AND OR NOT (& | ^), IN, BETWEEN ... AND,
// IS MISSING, CONTAINS, + - * / ** || and parentheses over columns, numbers, quoted texts and missing values. Missing
// values compare below numbers, by kind; arithmetic with one gives the missing value; 0 and missing are false.
class WhereExpression {
public:
  struct Node;
  ~WhereExpression();
  explicit WhereExpression(std::unique_ptr<Node> root);

  // Looks the names up in a data set. 0, or -1 with what is wrong in `problem`: an unknown name, characters against
  // numbers.
  int bind(const DataSet& data, std::string& problem) const;

  // The rows of `data` that satisfy the condition, in order. The condition must bind to it.
  std::vector<std::size_t> matching_rows(const DataSet& data) const;

private:
  std::unique_ptr<Node> root_;
};

// Parses a condition. Null on a mistake, with what and where (character from 1) in `problem`.
std::shared_ptr<const WhereExpression> parse_where(std::string_view text, std::string& problem);

} // namespace torvale::host
