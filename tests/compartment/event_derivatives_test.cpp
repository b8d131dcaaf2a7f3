// Derivatives of amounts through whole dosing histories, to third order: each against differences of what is one order
// lower. (The amounts themselves are compared with a simulation in tests/system/events_test.cpp.)

#include "compartment/compartment_statement.h"
#include "engine/model_fixture.h"
#include "host/messages/messages.h"
#include "language/parser.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace torvale::test {

namespace {

using Column = std::vector<double>;

// The first six histories of a kind of model, one subject after the other.
std::map<std::string, Column> histories(double compartments, double oral)
{
  std::ifstream file(TORVALE_SOURCE_DIR "/tests/data/special/event_histories.csv");
  std::vector<std::string> names;
  std::map<std::string, Column> columns;
  std::string line, cell;
  std::getline(file, line);
  std::istringstream head(line);
  while (std::getline(head, cell, ',')) names.push_back(cell);
  while (std::getline(file, line)) {
    std::istringstream cells(line);
    std::map<std::string, double> row;
    for (const std::string& name : names) {
      std::getline(cells, cell, ',');
      row[name] = std::stod(cell);
    }
    if (row["n"] != compartments || row["oral"] != oral || row["id"] > 36.0) continue;
    for (const auto& [name, value] : row) columns[name].push_back(value);
  }
  return columns;
}

// Parameters e1 to e4 stretch elimination, the other rates, lags and amounts; all are 0. What ends or begins is moved
// off the records' times, where the amounts have kinks.
class Histories {
public:
  Histories(int compartments, bool oral)
  {
    const std::map<std::string, Column> columns = histories(compartments, oral);
    std::string program =
        "torvale; share = bio*1.00437*exp(e4); wait = 0; if lag > 0 then wait = (lag+0.00437)*exp(e3);"
        "p_KE = KE*exp(e1);";
    std::string options = " KE=p_KE";
    for (const char* const rate : {"K12", "K21", "K13", "K31", "KA"}) {
      if (rate[1] == 'A'
              ? !oral
              : compartments == 1 || (rate != std::string("K12") && rate != std::string("K21") && compartments == 2))
        continue;
      program += std::string("p_") + rate + " = " + rate + "*exp(e2);";
      options += std::string(" ") + rate + "=p_" + rate;
    }
    program += "cmptmodel events ncomps=" + std::to_string(compartments) + " admtype=" + (oral ? "ORAL" : "IVB") +
               " parmtype=1 pconc=c rate=30 durn=1.6 f=share alag=wait" + options + "; run;";
    std::vector<compartment::Variable> data;
    for (const auto& [name, values] : columns) {
      data.push_back({name, false, values});
      model_.data(name, values);
    }
    language::ParseRequest request;
    request.sources = &sources_;
    request.arena = &arena_;
    request.program = sources_.add("program.tvl", program);
    request.tvlsem = [&](const language::SEMARG&, syntax::PROCSTR& proc, language::TokenStream& stream) {
      host::MessageLog log;
      language::xtanch(stream);
      language::xttpshx(stream);
      for (const std::string& line : compartment::zcmpt(*proc.current, data, 0, false, {}, log))
        language::xttpshb(stream, line);
      return 0;
    };
    parsed_ = language::Parser(std::move(request)).parse_step();
    EXPECT_FALSE(parsed_.proc.error) << program;
    const Column& id = columns.at("id");
    for (std::size_t row = 0; row < id.size(); ++row)
      model_.starts.push_back(row > 0 && id[row] == id[row - 1] ? model_.starts.back()
                                                                : static_cast<std::int32_t>(row));
    model_.compile({parsed_.proc.program.statements}, {"e1", "e2", "e3", "e4"});
    model_.theta.assign(4, 0.0);
  }

  // The derivative by the parameters of `by`, from 0, one after the other, at every record.
  CMPSYM* derivative(const std::vector<int>& by)
  {
    CMPLIST objects{{model_.symbol("c")}};
    for (const int k : by) {
      CMPDER request;
      EXPECT_EQ(cmpder(request, objects, {{model_.parameters[static_cast<std::size_t>(k)]}}, *model_.compiler), 0)
          << model_.messages();
      if (request.der.s.empty()) return nullptr;
      objects = request.der;
    }
    cmpgen(*model_.compiler);
    return objects.s[0];
  }

  void compare(const std::vector<int>& by)
  {
    CMPSYM *const exact = derivative(by), *const lower = derivative({by.begin(), by.end() - 1});
    if (exact == nullptr) return;
    const Column value = model_.run({exact})[0], size = model_.run({model_.symbol("c")})[0];
    constexpr double h = 2e-5, weights[] = {1.0 / 12, -8.0 / 12, 8.0 / 12, -1.0 / 12}, at[] = {-2, -1, 1, 2};
    Column difference(value.size(), 0.0);
    for (int k = 0; k < 4; ++k) {
      model_.theta[static_cast<std::size_t>(by.back())] = at[k] * h;
      const Column f = model_.run({lower})[0];
      for (std::size_t row = 0; row < f.size(); ++row) difference[row] += weights[k] / h * f[row];
    }
    model_.theta[static_cast<std::size_t>(by.back())] = 0.0;
    std::string which;
    for (const int k : by) which += " e" + std::to_string(k + 1);
    for (std::size_t row = 0; row < value.size(); ++row)
      EXPECT_NEAR(value[row], difference[row], 1e-7 * (1.0 + std::abs(value[row]) + std::abs(size[row])))
          << "by" << which << " at record " << row + 1;
  }

private:
  syntax::SourceMap sources_;
  syntax::Arena arena_;
  language::ParseResult parsed_;
  Model model_;
};

TEST(EventDerivatives, AgreeWithDifferencesToThirdOrder)
{
  for (const auto& [compartments, oral] : {std::pair{1, true}, {2, false}, {3, true}}) {
    SCOPED_TRACE(std::to_string(compartments) + (oral ? " oral" : " intravenous"));
    Histories h(compartments, oral);
    for (int k = 0; k < 4; ++k) h.compare({k});
    for (const auto& by : {std::vector<int>{0, 1}, {2, 1}, {3, 2}}) h.compare(by);
    if (compartments == 3) continue; // the graph of its third derivatives takes seconds
    for (const auto& by : {std::vector<int>{0, 0, 1}, {2, 2, 0}}) h.compare(by);
  }
}

} // namespace

} // namespace torvale::test
