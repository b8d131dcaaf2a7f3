#include "host/where.h"
#include "host/text.h"
#include "host/where_nodes.h"
#include <algorithm>
#include <cmath>

namespace torvale::host {

namespace {

using Node = WhereExpression::Node;
using Kind = Node::Kind;

bool truth(double x)
{
  return x != 0.0 && !std::isnan(x);
}
double arithmetic(double x)
{
  return canonical_missing(x);
}

double evaluate(const Node& node, const DataSet& data, std::size_t row);

std::string evaluate_text(const Node& node, const DataSet& data, std::size_t row)
{
  switch (node.kind) {
  case Kind::text:
    return node.text;
  case Kind::column:
    return data.columns()[node.column].text(row);
  case Kind::concatenate:
    return evaluate_text(*node.operands[0], data, row) + evaluate_text(*node.operands[1], data, row);
  default:
    return {};
  }
}

int compare(const Node& a, const Node& b, const DataSet& data, std::size_t row)
{
  if (a.character) return compare_padded(evaluate_text(a, data, row), evaluate_text(b, data, row));
  return compare_values(evaluate(a, data, row), evaluate(b, data, row));
}

bool in_list(const Node& node, const DataSet& data, std::size_t row)
{
  for (std::size_t i = 1; i < node.operands.size(); ++i)
    if (compare(*node.operands[0], *node.operands[i], data, row) == 0) return true;
  return false;
}

double evaluate(const Node& node, const DataSet& data, std::size_t row)
{
  const auto value = [&](std::size_t i) { return evaluate(*node.operands[i], data, row); };
  const auto order = [&](std::size_t i, std::size_t j) {
    return compare(*node.operands[i], *node.operands[j], data, row);
  };
  switch (node.kind) {
  case Kind::number:
    return node.number;
  case Kind::column:
    return data.columns()[node.column].number(row);
  case Kind::negate:
    return arithmetic(-value(0));
  case Kind::add:
    return arithmetic(value(0) + value(1));
  case Kind::subtract:
    return arithmetic(value(0) - value(1));
  case Kind::multiply:
    return arithmetic(value(0) * value(1));
  case Kind::divide: {
    const double divisor = value(1);
    return divisor == 0.0 ? missing : arithmetic(value(0) / divisor);
  }
  case Kind::power: {
    const double x = value(0), y = value(1); // pow(1, NaN) is 1: a missing operand must win
    return std::isnan(x) || std::isnan(y) ? missing : arithmetic(std::pow(x, y));
  }
  case Kind::equal:
    return order(0, 1) == 0;
  case Kind::not_equal:
    return order(0, 1) != 0;
  case Kind::less:
    return order(0, 1) < 0;
  case Kind::less_equal:
    return order(0, 1) <= 0;
  case Kind::greater:
    return order(0, 1) > 0;
  case Kind::greater_equal:
    return order(0, 1) >= 0;
  case Kind::both:
    return truth(value(0)) && truth(value(1));
  case Kind::either:
    return truth(value(0)) || truth(value(1));
  case Kind::negation:
    return !truth(value(0));
  case Kind::in:
    return in_list(node, data, row);
  case Kind::between:
    return order(0, 1) >= 0 && order(0, 2) <= 0;
  case Kind::is_missing:
    return node.operands[0]->character ? stripped(evaluate_text(*node.operands[0], data, row)).empty()
                                       : std::isnan(value(0));
  case Kind::contains:
    return evaluate_text(*node.operands[0], data, row).find(evaluate_text(*node.operands[1], data, row)) !=
           std::string::npos;
  case Kind::text:
  case Kind::concatenate:
    return missing; // characters: read by evaluate_text only
  }
  return missing;
}

// Are the operands what the operation takes? Fills in columns and kinds from the leaves up.
int bind_node(Node& node, const DataSet& data, std::string& problem)
{
  for (auto& operand : node.operands)
    if (bind_node(*operand, data, problem) != 0) return -1;
  const auto refuse = [&](std::string why) {
    problem = std::move(why);
    return -1;
  };
  switch (node.kind) {
  case Kind::number:
    node.character = false;
    return 0;
  case Kind::text:
    node.character = true;
    return 0;
  case Kind::column: {
    node.column = data.xvfind(node.text);
    if (node.column == DataSet::npos) {
      const std::string near = nearest_name(node.text, data.column_names());
      return refuse("there is no variable " + node.text + (near.empty() ? "" : "; did you mean " + near + "?"));
    }
    node.character = !data.columns()[node.column].numeric();
    return 0;
  }
  case Kind::concatenate:
  case Kind::contains:
    if (!node.operands[0]->character || !node.operands[1]->character)
      return refuse("|| and CONTAINS take characters on both sides");
    node.character = node.kind == Kind::concatenate;
    return 0;
  case Kind::equal:
  case Kind::not_equal:
  case Kind::less:
  case Kind::less_equal:
  case Kind::greater:
  case Kind::greater_equal:
  case Kind::between:
  case Kind::in:
    for (const auto& operand : node.operands)
      if (operand->character != node.operands[0]->character)
        return refuse("a comparison has a number on one side and characters on the other");
    return 0;
  case Kind::is_missing:
    return 0;
  default:
    for (const auto& operand : node.operands)
      if (operand->character) return refuse("a number is needed where characters stand");
    return 0;
  }
}

} // namespace

WhereExpression::WhereExpression(std::unique_ptr<Node> root) : root_(std::move(root)) {}
WhereExpression::~WhereExpression() = default;

int WhereExpression::bind(const DataSet& data, std::string& problem) const
{
  if (bind_node(*root_, data, problem) != 0) return -1;
  if (!root_->character) return 0;
  problem = "the condition is a text, not a comparison";
  return -1;
}

std::vector<std::size_t> WhereExpression::matching_rows(const DataSet& data) const
{
  std::vector<std::size_t> rows;
  for (std::size_t row = 0; row < data.rows(); ++row)
    if (truth(evaluate(*root_, data, row))) rows.push_back(row);
  return rows;
}

} // namespace torvale::host
