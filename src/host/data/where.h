#pragma once
#include "host/data/data_set.h"
#include <memory>
#include <string>
#include <string_view>

namespace torvale::host {

// The condition of WHERE=: comparisons (= ^= < <= > >= and EQ NE LT LE GT GE), AND OR NOT (& | ^), IN, BETWEEN ... AND,
// IS MISSING, CONTAINS, LIKE, + - * / ** || and parentheses over columns, numbers, quoted texts, dates ('31jan2024'd,
// '13:30't, '31jan2024:13:30'dt), missing values and functions (where_functions.h). Missing values compare below
// numbers, by kind; arithmetic with one gives the missing value; 0 and missing are false. A text compared with a number
// is read as one (also an ISO date).
class WhereExpression {
public:
  struct Node;
  ~WhereExpression();
  explicit WhereExpression(std::unique_ptr<Node> root, bool angle_brackets = false);
  bool has_angle_brackets() const { return angle_brackets_; } // <> was written: not equal here, the maximum in programs

  // Looks the names up in a data set. 0, or -1 with what is wrong in `problem`: an unknown name, characters against
  // numbers where neither is read as the other. `converted` names a text that is compared as a number.
  int bind(const DataSet& data, std::string& problem, std::string* converted = nullptr) const;

  // The rows of `data` that satisfy the condition, in order. The condition must bind to it.
  std::vector<std::size_t> matching_rows(const DataSet& data) const;

private:
  std::unique_ptr<Node> root_;
  bool angle_brackets_ = false;
};

// Parses a condition. Null on a mistake, with what and where (character from 1) in `problem`.
std::shared_ptr<const WhereExpression> parse_where(std::string_view text, std::string& problem);

} // namespace torvale::host
