// Listings as they stand: titles, headings, order and rows of every table that an option adds or changes. Numbers are
// compared elsewhere; here each is a mark, so that another processor's last digits change nothing.
//
// After a wanted change run the test with TORVALE_WRITE_LISTINGS=1 and look at the difference of tests/data/listings.

#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include "system/session.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace torvale::tests {

namespace {

// Numbers become #, a missing value stays a point, runs of blanks become one; margins go. Equal rows in a row count
// once, and which criterion ended a fit is left out: how many iterations it takes is not a matter of listings.
std::string shape(const std::string& listing)
{
  static const std::regex number("(^|\\s)[-<]?(\\d+(\\.\\d*)?|\\.\\d+)(e[-+]?\\d+)?(?=[\\s)]|$)"), blanks("[ \\t]+"),
      criterion("[A-Z]+CONV convergence");
  std::string out, last;
  std::istringstream lines(listing);
  for (std::string line; std::getline(lines, line);) {
    line = std::regex_replace(std::regex_replace(line, number, "$1#"), blanks, " ");
    line = std::regex_replace(line, criterion, "A convergence");
    if (!line.empty() && line[0] == ' ') line.erase(0, 1);
    if (line.empty() || line != last) out += line + "\n";
    last = line;
  }
  return out;
}

struct Listed {
  std::string name;
  std::string program;
};

// A program with statements put before its RUN.
std::string with(std::string program, const std::string& statements)
{
  return program.insert(program.rfind("RUN;"), statements);
}

std::vector<Listed> listed_programs()
{
  const std::string poisson = "mu = exp(b0 + b1*(wool='B'));\nMODEL breaks ~ POISSON(mu);\n";
  const std::string parms = "PARMS b0=3 b1=0;\n";
  return {
      {"plain", "TORVALE DATA=warpbreaks;\n" + parms + poisson + "RUN;"},
      {"matrices", "TORVALE DATA=warpbreaks COV CORR ECOV ECORR EDER HESS START;\n" + parms + poisson +
                       "ESTIMATE 'rate' exp(b0);\nESTIMATE 'sum' b0+b1 ALPHA=0.1;\nCONTRAST 'wool' b1;\nRUN;"},
      {"details", "TORVALE DATA=warpbreaks ITDETAILS;\n" + parms + poisson + "RUN;"},
      {"trust_region", "TORVALE DATA=warpbreaks TECHNIQUE=TRUREG ITDETAILS;\n" + parms + poisson + "RUN;"},
      {"simplex", "TORVALE DATA=warpbreaks TECHNIQUE=NMSIMP MAXITER=3;\n" + parms + poisson + "RUN;"},
      {"no_optimization", "TORVALE DATA=warpbreaks TECHNIQUE=NONE;\n" + parms + poisson + "RUN;"},
      {"bounds", "TORVALE DATA=warpbreaks START;\nPARMS b0=3 b1=0.5;\nBOUNDS b1 >= 0;\n" + poisson + "RUN;"},
      {"singular", "TORVALE DATA=warpbreaks;\nPARMS b0=3 c=0 b1=0;\nmu = exp(b0 + c + b1*(wool='B'));\n"
                   "MODEL breaks ~ POISSON(mu);\nRUN;"},
      {"groups", "TORVALE DATA=warpbreaks;\nPARMS b0=3;\nmu = exp(b0);\nMODEL breaks ~ POISSON(mu);\nBY wool;\nRUN;"},
      {"grid", "TORVALE DATA=warpbreaks;\nPARMS b0=2 TO 4 b1=0 0.1 / BEST=2;\n" + poisson + "RUN;"},
      {"failed", "TORVALE DATA=warpbreaks MAXITER=1;\nPARMS b0=0 b1=5;\n" + poisson + "RUN;"},
      {"gradient_check", "TORVALE DATA=warpbreaks GRADCHECK;\n" + parms + poisson + "RUN;"},
      // Rounds of numbers only: DF=, limits by ALPHA=, another form of the covariance.
      {"limits", "TORVALE DATA=warpbreaks ALPHA=0.1 DF=9 COVARIANCE=J COV NTHREADS=2;\n" + parms + poisson + "RUN;"},
      {"optimizer_prints", "TORVALE DATA=warpbreaks PALL;\n" + parms + poisson + "RUN;"},
      {"program_lists", "TORVALE DATA=warpbreaks LIST LISTDEP XREF;\n" + parms + poisson + "RUN;"},
      {"differences", "TORVALE DATA=warpbreaks FD HESS;\n" + parms + poisson + "RUN;"},
      {"random_effects", example("cbpp", "COV")},
      {"empirical", with(example("cbpp", "EMPIRICAL COV CORR ECOV ECORR EDER"),
                         "ESTIMATE 'odds' exp(b0);\nESTIMATE 'ratio' exp(p2);\n")},
      {"shrinkage", example("cbpp", "OUTR=listing_shrinkage")},
      {"levels", example("nested_linear", "REOBSINFO")},
      {"counted_subjects", example("litters", "")},
      {"classes", example("mixture_logit", "")},
      {"importance_samples", example("cbpp", "METHOD=ISAMP SEED=1 QPOINTS=50")},
      {"first_order", example("sleepstudy", "METHOD=FIRO LB")},
      {"hardy", example("cbpp", "METHOD=HARDY")},
      {"plain_rule", example("cbpp", "NOAD QPOINTS=9")},
      {"posterior", with("TORVALE DATA=warpbreaks SEED=5;\n" + parms + poisson + "RUN;",
                         "PRIOR LOGPDF('NORMAL', b1, 0, 1);\nMCMC SAMPLES=200 BURN=100 CHAINS=2 SAMPLER=NUTS;\n")},
  };
}

// Each technique has columns of its own in the history.
std::vector<Listed> technique_programs()
{
  std::vector<Listed> out;
  for (const std::string technique : {"NEWRAP", "NRRIDG", "DBLDOG", "QUANEW", "CONGRA", "NMSIMP"}) {
    out.push_back({"technique_" + host::wzstrlo(technique),
                   "TORVALE DATA=warpbreaks TECHNIQUE=" + technique + (technique == "QUANEW" ? " UPDATE=BFGS" : "") +
                       " ITDETAILS START HESS;\nPARMS b0=3 b1=0;\nmu = exp(b0 + b1*(wool='B'));\n"
                       "MODEL breaks ~ POISSON(mu);\nRUN;"});
  }
  return out;
}

TEST(Listings, StandAsTheyStood)
{
  const bool write = std::getenv("TORVALE_WRITE_LISTINGS") != nullptr;
  auto all = listed_programs();
  for (Listed& l : technique_programs()) all.push_back(std::move(l));
  for (const Listed& l : all) {
    const std::string file = source_file("tests/data/listings/" + l.name + ".txt");
    const tests::Run run = run_text(l.program);
    for (const auto& set : run.outcome.results.steps.at(0).data_sets)
      std::filesystem::remove(std::filesystem::temp_directory_path() / set.path);
    const std::string found = shape(run.listing);
    if (write)
      std::ofstream(file) << found;
    else
      EXPECT_EQ(found, read_text(file)) << l.name;
  }
}

// Derivatives are formulas of the language: fractions, names of the program's variables, conditions; what they share
// has a name.
TEST(ProgramListings, DerivativesAsAPersonWritesThem)
{
  const auto run = run_text("TORVALE DATA=stackloss LISTDER LIST; PARMS b0=-40 b1=1 s2=10; BOUNDS s2 > 0;\n"
                            "mu = b0 + b1*airflow;\n"
                            "IF watertemp > 20 THEN weight = 2; ELSE weight = 1;\n"
                            "MODEL loss ~ GENERAL(-weight*(loss - mu)**2/s2 - log(s2));\n"
                            "ESTIMATE 'ratio' b0/b1**2; CONTRAST 'both' b0 - 1, exp(-b1*s2); RUN;");
  ASSERT_EQ(run.outcome.exit_code, 0) << run.log;
  const auto& listings = run.outcome.results.steps.at(0).listings;
  const auto text = [&](const std::string& title) {
    for (const auto& l : listings)
      if (l.title == title) return l.text;
    return "no listing " + title;
  };
  EXPECT_NE(text("Program Statements").find("mu = "), std::string::npos);
  EXPECT_EQ(text("Derivatives of ESTIMATE 'ratio'"), "d(b0/(b1**2))/d(b0) = 1/b1**2\n"
                                                     "d(b0/(b1**2))/d(b1) = -2*b0/b1**3\n");
  EXPECT_EQ(text("Derivatives of CONTRAST 'both'"), "d(b0-1)/d(b0) = 1\n"
                                                    "d(exp((-b1)*s2))/d(b1) = -s2*exp(-b1*s2)\n"
                                                    "d(exp((-b1)*s2))/d(s2) = -b1*exp(-b1*s2)\n");
  const std::string slopes = text("Derivatives of the Log Likelihood");
  EXPECT_NE(slopes.find("mu"), std::string::npos) << slopes;
  for (const char* const inner : {"select", "and_", "not_", "reciprocal", "is_missing", "select_or_zero"})
    EXPECT_EQ(slopes.find(inner), std::string::npos) << slopes;
  for (const auto& l : listings) EXPECT_NE(run.listing.find(l.title + "\n\n" + l.text), std::string::npos) << l.title;
  EXPECT_NE(host::results_json(run.outcome.results).find("\"title\": \"Derivatives of ESTIMATE 'ratio'\""),
            std::string::npos);
}

// The places of estimates: each row with three digits of its standard error, points below each other.
TEST(Listings, RowsHaveTheDigitsThatTheirErrorsEarn)
{
  host::Table table("ParameterEstimates", "Parameter Estimates",
                    {{"Parameter", host::CellKind::text, "", "", ""},
                     {"Estimate", host::CellKind::number, "", "D10.4", ""},
                     {"StandardError", host::CellKind::number, "", "D10.4", ""}});
  table.row({"large", 123456.789, 2345.6});
  table.row({"small", 0.0012345678, 0.00001234});
  table.row({"none", 2.5, host::missing});
  const auto estimates = host::formatted_cells(table, 1), errors = host::formatted_cells(table, 2);
  EXPECT_EQ(estimates, (std::vector<std::string>{"123457        ", "0.0012346", "2.500    "}));
  EXPECT_EQ(errors, (std::vector<std::string>{"2346        ", "0.0000123", ".       "}));
}

TEST(Listings, CriteriaKeepTwoDecimalsAndCountsAllDigits)
{
  const auto criteria = host::format_column({1234567890.126, 1234567900.0}, host::parse_format("D12.7.2"));
  EXPECT_EQ(criteria, (std::vector<std::string>{"1234567890.13", "1234567900.00"}));
  EXPECT_EQ(host::format_number(1000000, host::parse_format("BEST12")), "1000000");
  EXPECT_EQ(host::format_number(355.49153, host::parse_format("D12.7.2")), "355.4915");
}

} // namespace

// Warnings and errors of a group stand under a line with its values; what is said of the step stands before or behind.
TEST(Listings, LogNamesTheGroupsOfItsMessages)
{
  const TemporaryFile data("groups.csv", "g,y\n1,2\n1,3\n2,-1\n2,-2\n3,4\n3,5\n");
  const auto run = run_text("TORVALE DATA='" + data.path() + "'; PARMS m=1; MODEL y ~ POISSON(exp(m)); BY g; RUN;");
  const std::size_t failed = run.log.find("BY group g=2:"), reason = run.log.find("POISSON takes counts"),
                    after = run.log.find("BY group g=3:");
  EXPECT_LT(failed, reason) << run.log;
  EXPECT_LT(reason, after) << run.log;
  EXPECT_NE(after, std::string::npos) << run.log;
  EXPECT_EQ(
      run_text("TORVALE DATA='" + data.path() + "'; PARMS m=1; MODEL y ~ NORMAL(m, 1); RUN;").log.find("BY group"),
      std::string::npos);
}

} // namespace torvale::tests
