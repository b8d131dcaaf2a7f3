#include "compartment/amounts.h"

namespace torvale::compartment {

void Amounts::set_all(const std::string& name, const std::string& value)
{
  for (int k = first(); k <= last(); ++k) text_.add(of(name, k) + " = " + value + ";");
}

void Amounts::add(const std::string& name, const std::string& term)
{
  for (int k = first(); k <= last(); ++k) text_.add(of(name, k) + " = " + of(name, k) + "+" + of(term, k) + ";");
}

void Amounts::respond(Input input, Input from_depot, const std::string& from, const std::string& time,
                      const std::string& to)
{
  const Response direct(text_, model_, input, time, "@w");
  std::vector<std::string> sums;
  for (int j = 1; j <= last(); ++j) {
    std::string sum;
    for (int m = 1; m <= last(); ++m) sum += (m == 1 ? "" : "+") + direct.amount(j, m) + "*" + of(from, m);
    sums.push_back(sum);
  }
  if (first() == 0) {
    const Response carried(text_, model_, from_depot, time, "@v");
    for (int j = 1; j <= last(); ++j)
      sums[static_cast<std::size_t>(j - 1)] += "+" + carried.amount(j, 1) + "*" + of(from, 0);
    text_.add(of(to, 0) + " = " + of(from, 0) + "*" +
              (input == Input::dose ? "exp(-@ka*(" + time + "))" : "(" + time + ")*expmean(@ka*(" + time + "))") + ";");
  }
  for (int j = 1; j <= last(); ++j) text_.add(of(to, j) + " = " + sums[static_cast<std::size_t>(j - 1)] + ";");
}

void Amounts::pass(const std::string& from, const std::string& time, const std::string& to)
{
  respond(Input::dose, Input::depot, from, time, to);
}

void Amounts::fill(const std::string& rates, const std::string& time, const std::string& to)
{
  respond(Input::infusion, Input::depot_infusion, rates, time, to);
}

void Amounts::repeat(const std::string& name, const std::string& interval)
{
  if (first() == 0) {
    text_.add(of(name, 0) + " = -" + of(name, 0) + "/expm1(-@ka*(" + interval + "));");
    const Response carried(text_, model_, Input::depot, interval, "@v");
    for (int j = 1; j <= last(); ++j)
      text_.add(of(name, j) + " = " + of(name, j) + "+" + carried.amount(j, 1) + "*" + of(name, 0) + ";");
  }
  write_steady_state(text_, model_, interval, name);
}

void Amounts::balance(const std::string& rates)
{
  if (first() == 0) {
    text_.add(of(rates, 1) + " = " + of(rates, 1) + "+" + of(rates, 0) + ";");
    text_.add(of(rates, 0) + " = " + of(rates, 0) + "/@ka;");
  }
  write_balance(text_, model_, rates);
}

} // namespace torvale::compartment
