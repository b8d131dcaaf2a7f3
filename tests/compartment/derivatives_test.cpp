// Derivatives of amounts to third order, through the statements that CMPTMODEL writes: equal and nearly equal exponents
// and rates far apart are among the points.

#include "compartment/compartment_statement.h"
#include "engine/model_fixture.h"
#include "host/messages/messages.h"
#include "language/parser.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace torvale::test {

namespace {

struct Row {
  std::string ncomps, admtype, options, time, by, value;
};

std::vector<Row> reference()
{
  std::ifstream file(TORVALE_SOURCE_DIR "/tests/data/special/compartment_derivatives.csv");
  std::vector<Row> rows;
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::istringstream cells(line);
    Row r;
    for (std::string* const cell : {&r.ncomps, &r.admtype, &r.options, &r.time, &r.by, &r.value})
      std::getline(cells, *cell, ',');
    rows.push_back(r);
  }
  return rows;
}

// The model of one set of options: rates are parameters, the time is data.
class Derivatives {
public:
  explicit Derivatives(const Row& row)
  {
    std::string statement = "torvale; cmptmodel ncomps=" + row.ncomps + " admtype=" + row.admtype +
                            " parmtype=1 pconc=c time=t " + (row.admtype == "ORAL" ? "dose0" : "dose") + "=100";
    std::istringstream options(row.options);
    for (std::string option; options >> option;) {
      const auto at = option.find('=');
      names_.push_back(option.substr(0, at));
      model_.theta.push_back(std::stod(option.substr(at + 1)));
      statement += " " + names_.back() + "=p" + names_.back();
    }
    language::ParseRequest request;
    request.sources = &sources_;
    request.arena = &arena_;
    request.program = sources_.add("program.tvl", statement + "; run;");
    request.tvlsem = [&](const language::SEMARG&, syntax::PROCSTR& proc, language::TokenStream& stream) {
      host::MessageLog log;
      language::xtanch(stream);
      language::xttpshx(stream);
      for (const std::string& line : compartment::zcmpt(*proc.current, {}, 0, false, {}, log))
        language::xttpshb(stream, line);
      return 0;
    };
    parsed_ = language::Parser(std::move(request)).parse_step();
    EXPECT_FALSE(parsed_.proc.error) << row.options;
    model_.data("t", {std::stod(row.time)});
    std::vector<std::string> parameters;
    for (const std::string& name : names_) parameters.push_back("p" + name);
    model_.compile({parsed_.proc.program.statements}, parameters);
  }

  double value(const std::string& by)
  {
    CMPLIST objects{{model_.symbol("c")}};
    std::istringstream names(by);
    for (std::string name; names >> name;) {
      const auto at = std::find(names_.begin(), names_.end(), name) - names_.begin();
      CMPDER request;
      EXPECT_EQ(cmpder(request, objects, {{model_.parameters[static_cast<std::size_t>(at)]}}, *model_.compiler), 0);
      if (request.der.s.empty()) return 0.0;
      objects = request.der;
    }
    cmpgen(*model_.compiler);
    return model_.run({objects.s[0]})[0][0];
  }

private:
  syntax::SourceMap sources_;
  syntax::Arena arena_;
  std::vector<std::string> names_;
  language::ParseResult parsed_;
  Model model_;
};

TEST(CompartmentDerivatives, AgreeWithNinetyDigitsToThirdOrder)
{
  for (const Row& row : reference()) {
    const auto order = 1 + std::count(row.by.begin(), row.by.end(), ' ');
    const double truth = std::stod(row.value), t = std::stod(row.time);
    const double got = Derivatives(row).value(row.by);
    const double tolerance = order < 3 ? 1e-11 : 1e-9; // of the derivative, and of what a dose of 100 can change at all
    EXPECT_NEAR(got, truth, tolerance * (std::abs(truth) + 1e-3 * 100 * std::pow(t, static_cast<double>(order))))
        << row.ncomps << " " << row.admtype << " " << row.options << " t=" << row.time << " by " << row.by;
  }
}

} // namespace

} // namespace torvale::test
