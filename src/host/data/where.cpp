#include "host/data/where.h"
#include "host/data/where_nodes.h"
#include "host/values/calendar.h"
#include "host/values/text.h"
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
std::string evaluate_text(const Node& node, const DataSet& data, std::size_t row);

std::string text_function(const Node& node, const DataSet& data, std::size_t row)
{
  std::string text = evaluate_text(*node.operands[0], data, row);
  const std::string_view name = node.function->name;
  if (name == "UPCASE") return wzstrup(text);
  if (name == "LOWCASE") return wzstrlo(text);
  if (name == "TRIM") return std::string(stripped(text));
  const double begin = evaluate(*node.operands[1], data, row);
  const double length = node.operands.size() > 2 ? evaluate(*node.operands[2], data, row) : 32767.0;
  if (!(begin >= 1.0 && begin <= static_cast<double>(text.size()) && length >= 1.0)) return {};
  return text.substr(static_cast<std::size_t>(begin) - 1, static_cast<std::size_t>(std::min(length, 32767.0)));
}

double number_function(const Node& node, const DataSet& data, std::size_t row)
{
  const Node& first = *node.operands[0];
  if (node.function->number) {
    double values[100];
    for (std::size_t i = 0; i < node.operands.size(); ++i) values[i] = evaluate(*node.operands[i], data, row);
    return node.function->number({values, node.operands.size()});
  }
  if (!first.character) return std::isnan(evaluate(first, data, row)); // MISSING
  const std::string text = evaluate_text(first, data, row);
  const bool blank = stripped(text).empty();
  if (node.function->name == "MISSING") return blank;
  return blank ? 1.0 : static_cast<double>(text.find_last_not_of(' ') + 1); // LENGTH
}

// The number, date or time that a text spells.
double spelled_number(std::string_view text)
{
  text = stripped(text);
  if (const auto value = parse_number(text)) return *value;
  if (const auto value = parse_iso(text, iso_moment(text))) return *value;
  return parse_missing(text).value_or(missing);
}

std::string evaluate_text(const Node& node, const DataSet& data, std::size_t row)
{
  switch (node.kind) {
  case Kind::text:
    return node.text;
  case Kind::column:
    return data.columns()[node.column].text(row);
  case Kind::concatenate:
    return evaluate_text(*node.operands[0], data, row) + evaluate_text(*node.operands[1], data, row);
  case Kind::function:
    return text_function(node, data, row);
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
  case Kind::like:
    return matches_pattern(evaluate_text(*node.operands[0], data, row), evaluate_text(*node.operands[1], data, row));
  case Kind::function:
    return number_function(node, data, row);
  case Kind::to_number:
    // Bound to another data set, what was a text may be a number.
    return node.operands[0]->character ? spelled_number(evaluate_text(*node.operands[0], data, row)) : value(0);
  case Kind::text:
  case Kind::concatenate:
    return missing; // characters: read by evaluate_text only
  }
  return missing;
}

// Fills in columns and kinds from the leaves up, and checks that operands are what the operation takes.
class Binder {
public:
  Binder(const DataSet& data, std::string& problem, std::string* converted)
      : data_(data), problem_(problem), converted_(converted)
  {
  }

  bool bind(Node& node)
  {
    for (auto& operand : node.operands)
      if (!bind(*operand)) return false;
    switch (node.kind) {
    case Kind::number:
    case Kind::is_missing:
    case Kind::to_number:
      return true;
    case Kind::text:
      node.character = true;
      return true;
    case Kind::column:
      return column(node);
    case Kind::function:
      return function(node);
    case Kind::concatenate:
    case Kind::contains:
    case Kind::like:
      node.character = node.kind == Kind::concatenate;
      if (node.operands[0]->character && node.operands[1]->character) return true;
      return refuse("||, CONTAINS and LIKE take characters on both sides");
    case Kind::equal:
    case Kind::not_equal:
    case Kind::less:
    case Kind::less_equal:
    case Kind::greater:
    case Kind::greater_equal:
    case Kind::between:
    case Kind::in:
      return comparison(node);
    default:
      for (const auto& operand : node.operands)
        if (operand->character) return refuse("a number is needed where characters stand");
      return true;
    }
  }

private:
  bool refuse(std::string why)
  {
    problem_ = std::move(why);
    return false;
  }

  bool column(Node& node)
  {
    node.column = data_.xvfind(node.text);
    if (node.column == DataSet::npos) {
      const std::string near = nearest_name(node.text, data_.column_names());
      return refuse("there is no variable " + node.text + (near.empty() ? "" : "; did you mean " + near + "?"));
    }
    node.character = !data_.columns()[node.column].numeric();
    return true;
  }

  bool function(Node& node)
  {
    const std::string_view takes = node.function->takes;
    for (std::size_t i = 0; i < node.operands.size(); ++i) {
      const char wanted = takes[std::min(i, takes.size() - 1)];
      if (wanted != 'a' && (wanted == 'c') != node.operands[i]->character)
        return refuse(std::string(node.function->name) + " takes " + (wanted == 'c' ? "characters" : "numbers") +
                      " here");
    }
    node.character = node.function->gives_text;
    return true;
  }

  // Where a number meets a text, the text is read as a number.
  bool comparison(Node& node)
  {
    const auto is_text = [](const auto& operand) { return operand->character; };
    if (std::all_of(node.operands.begin(), node.operands.end(), is_text) ||
        std::none_of(node.operands.begin(), node.operands.end(), is_text))
      return true;
    for (const auto& operand : node.operands)
      for (const auto& other : node.operands)
        if (!same_moment(*operand, *other)) return false;
    for (auto& operand : node.operands) {
      if (!operand->character) continue;
      if (operand->kind == Kind::text && wzmis(spelled_number(operand->text)) && !stripped(operand->text).empty())
        return refuse("a number is compared with '" + operand->text + "', which spells no number");
      if (converted_) *converted_ = operand->kind == Kind::text ? "'" + operand->text + "'" : operand->text;
      auto wrapped = std::make_unique<Node>();
      wrapped->kind = Kind::to_number;
      wrapped->operands.push_back(std::move(operand));
      operand = std::move(wrapped);
    }
    return true;
  }

  // A date is a number of days, a time or a date with a time one of seconds: a text of the other kind compares the same
  // with every row.
  bool same_moment(const Node& variable, const Node& text)
  {
    if (variable.kind != Kind::column || variable.character || text.kind != Kind::text) return true;
    const Moment own = data_.columns()[variable.column].moment(), spelled = iso_moment(text.text);
    const bool comparable = own == Moment::none || spelled == Moment::none || own == spelled;
    if (comparable || !parse_iso(stripped(text.text), spelled)) return true;
    const auto words = [](Moment m) {
      return m == Moment::date ? "a date" : m == Moment::time ? "a time" : "a date with a time";
    };
    return refuse(variable.text + " is " + words(own) + ", and '" + text.text + "' spells " + words(spelled) +
                  "; spell it as the column does");
  }

  const DataSet& data_;
  std::string& problem_;
  std::string* converted_;
};

} // namespace

WhereExpression::WhereExpression(std::unique_ptr<Node> root, bool angle_brackets)
    : root_(std::move(root)), angle_brackets_(angle_brackets)
{
}
WhereExpression::~WhereExpression() = default;

int WhereExpression::bind(const DataSet& data, std::string& problem, std::string* converted) const
{
  if (!Binder(data, problem, converted).bind(*root_)) return -1;
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
