// CMPTMODEL: concentrations of every family against 50-digit truths, and what the statement refuses.

#include "system/session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <sstream>

namespace torvale::tests {

namespace {

// The program of a family: NCOMPS, ADMTYPE and PARMTYPE from the file's name, an option for each column of that name,
// a result for each column of truths. It prints results and truths.
struct Family {
  std::string program;
  std::vector<std::string> results; // options PCONC, ...
};
Family family_of(const std::string& name, const std::vector<std::string>& columns)
{
  const std::string administration = name.substr(0, name.find_first_of("123"));
  std::string options, put;
  Family f;
  for (const std::string& c : columns) {
    if (c == "case" || c.starts_with("_CMPT_")) continue;
    if (!c.starts_with("true_")) {
      options += " " + c + "=" + c;
      continue;
    }
    f.results.push_back(c.substr(5));
    options += " " + f.results.back() + "=_" + f.results.back();
    put += " _" + f.results.back() + " best32. ' ' " + c + " best32. ' '";
  }
  f.program = "TORVALE DATA=" + name +
              " TECHNIQUE=NONE; PARMS s2=1e-16; CMPTMODEL NCOMPS=" + name.substr(administration.size(), 1) +
              " ADMTYPE=" + administration + " PARMTYPE=" + name.substr(name.find("_p") + 2, 1) + options +
              "; PUT 'row '" + put + "; MODEL true_pconc ~ NORMAL(_pconc, s2); RUN;";
  return f;
}

// The largest dose of a row over its scale: what rounding is relative to.
double size_of(const std::vector<std::string>& columns, const std::vector<std::string>& cells,
               const std::string& result)
{
  double dose = 0.0, scale = 1.0;
  const std::string scale_name = "scale" + (result == "pconc" ? "1" : result.substr(5));
  for (std::size_t k = 0; k < columns.size() && k < cells.size(); ++k) {
    const bool amount = columns[k].starts_with("dose") || columns[k].starts_with("_CMPT_DOSE") ||
                        columns[k].starts_with("_CMPT_SSDOSE");
    if (amount && !cells[k].empty()) dose = std::max(dose, std::stod(cells[k]));
    if (columns[k] == scale_name) scale = std::stod(cells[k]);
  }
  return dose / scale;
}

TEST(Compartments, ConcentrationsAreTrueToTheLastDigits)
{
  const std::string folder = source_file("tests/data/compartment");
  int rows = 0;
  std::vector<double> relative;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() != ".csv") continue;
    const std::string name = entry.path().stem().string();
    const auto lines = split(read_text(entry.path().string()), '\n');
    const auto columns = split(lines[0], ',');
    const Family family = family_of(name, columns);
    const auto run = run_text(family.program, "tests/data/compartment");
    std::size_t row = 0;
    for (const std::string& line : split(run.log + run.listing, '\n')) {
      if (!line.starts_with("row ")) continue;
      const auto cells = split(lines[++row], ',');
      std::istringstream numbers(line.substr(4));
      for (const std::string& result : family.results) {
        std::string got, truth;
        numbers >> got >> truth;
        ASSERT_EQ(got == ".", truth == ".") << name << " row " << row << " " << result;
        if (truth == ".") continue;
        const double error = std::fabs(std::stod(got) - std::stod(truth)), size = std::fabs(std::stod(truth));
        EXPECT_LE(error, 1e-13 * size + 1e-15 * size_of(columns, cells, result))
            << name << " row " << row << " " << result << ": " << got << ", not " << truth;
        ++rows;
        if (size > 0.0) relative.push_back(error / size);
      }
    }
    EXPECT_EQ(row, lines.size() - 1) << name << run.log;
  }
  EXPECT_GT(rows, 500);
  std::nth_element(relative.begin(), relative.begin() + static_cast<std::ptrdiff_t>(relative.size() / 2),
                   relative.end());
  EXPECT_LT(relative[relative.size() / 2], 1e-15);
}

// Every refusal and warning of the statement, with the options that raise it. 903 cannot be raised: the grammar takes
// IVB, INF and ORAL only.
TEST(Compartments, WrongOptionsAreNamed)
{
  struct Case {
    const char* options;
    int number;
    bool ends;
  };
  const Case cases[] = {
      {"ADMTYPE=IVB PARMTYPE=1 PCONC=c TIME=time KE=0.1", 900, true},
      {"NCOMPS=4 ADMTYPE=IVB PARMTYPE=1 PCONC=c TIME=time KE=0.1", 901, true},
      {"NCOMPS=1 PARMTYPE=1 PCONC=c TIME=time KE=0.1", 902, true},
      {"NCOMPS=1 ADMTYPE=IVB PCONC=c TIME=time KE=0.1", 904, true},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=3 PCONC=c TIME=time KE=0.1", 905, true},
      {"NCOMPS=1 ADMTYPE=INF PARMTYPE=1 PCONC=c TIME=time KE=0.1", 906, true},
      {"NCOMPS=1 ADMTYPE=INF PARMTYPE=1 PCONC=c TIME=time KE=0.1 RATE=1 DURN=2", 907, false},
      {"NCOMPS=2 ADMTYPE=IVB PARMTYPE=1 PCONC=c TIME=time", 910, true},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c KE=0.1", 910, true},
      {"NCOMPS=1 ADMTYPE=ORAL PARMTYPE=1 PCONC=c TIME=time KE=0.1", 910, true},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c TIME=time KE=0.1 KA=2", 911, false},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c TIME=time KE=0.1 K12=2", 911, false},
      {"NCOMPS=2 ADMTYPE=INF PARMTYPE=1 PCONC=c TIME=time KE=0.1 K12=2 K21=1 DURN=1 K20=1", 911, false},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c TIME=time KE=0.1 PCONC0=c0", 912, true},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c TIME=time KE=0.1 PCONC2=c2", 912, true},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=3 TIME=time KE=0.1", 9470, true},
      {"NCOMPS=1 ADMTYPE=ORAL PARMTYPE=1 PCONC=c TIME=time KE=0.1 KA=2 DOSE=4", 9471, false},
      {"NCOMPS=1 ADMTYPE=IVB PARMTYPE=2 PCONC=c TIME=time CL=0.1 VOL=2", 9472, false},
  };
  const TemporaryFile data("doses.csv", "y,time\n1,0.5\n0.9,1\n");
  for (const Case& c : cases) {
    const auto run = run_text(std::string("TORVALE DATA=d TECHNIQUE=NONE; PARMS s2=1; CMPTMODEL ") + c.options +
                                  "; MODEL y ~ NORMAL(c, s2); RUN;",
                              "/tmp", 0, {{"d", data.path()}});
    EXPECT_TRUE(run.said(503, c.number)) << c.options << run.log;
    EXPECT_EQ(run.outcome.exit_code == 3, c.ends) << c.options << run.log;
  }
}

TEST(Compartments, DoseRecordsAskForOptions)
{
  struct Case {
    const char *model, *record;
    int number;
    const char* text;
  };
  const Case cases[] = {
      {"ADMTYPE=IVB TIME=t", "MSB,10,1,.", 916, ""},
      {"ADMTYPE=IVB RATE=5", "MSB,10,1,.", 913, ""},
      {"ADMTYPE=IVB DOSE=5", "MSB,10,1,.", 916, ""},
      {"NCOMPS=2 K12=1 K21=1 K20=1 ADMTYPE=IVB", "MSB,10,1,.", 915, ""},
      {"NCOMPS=2 K12=1 K21=1 PCONC2=c2 ADMTYPE=IVB", "MSB,10,1,.", 914, ""},
      {"ADMTYPE=ORAL KA=1 PCONC0=c0", "MSO,10,1,.", 914, ""},
      {"ADMTYPE=IVB", "MSRP,10,1,.", 9201, "You must specify the RATE= option"},
      {"ADMTYPE=IVB", "MSD,10,1,.", 9201, "You must specify the DURN= option"},
      {"ADMTYPE=INF", "MSR,10,1,-1", 9201, "You must specify the RATE= option"},
      {"ADMTYPE=INF DURN=1", "MSR,10,1,-3", 9201, "Values for the RATE variable must be positive"},
      {"ADMTYPE=IVB", "MSO,10,1,.", 9201, "ADMTYPE= ORAL"},
      {"ADMTYPE=ORAL KA=1", "MSR,10,1,3", 9201, "ADMTYPE= IVB or INF"},
      {"ADMTYPE=IVB", "MSX,10,1,.", 9201, "_CMPT_TYPE_"},
  };
  for (const Case& c : cases) {
    const TemporaryFile data("records.csv",
                             std::string("y,t,_CMPT_TYPE_,_CMPT_DOSE_,_CMPT_DTIME_,_CMPT_RATE_\n1,1,NODOSE,,,\n1,1,") +
                                 c.record + "\n");
    const std::string compartments = std::string(c.model).starts_with("NCOMPS") ? "" : "NCOMPS=1 ";
    const auto run = run_text("TORVALE DATA=d TECHNIQUE=NONE; PARMS s2=1; CMPTMODEL " + compartments + c.model +
                                  " PARMTYPE=1 PCONC=c KE=0.3; MODEL y ~ NORMAL(c, s2); RUN;",
                              "/tmp", 0, {{"d", data.path()}});
    EXPECT_TRUE(run.said(503, c.number)) << c.model << " " << c.record << run.log;
    std::string words; // the log breaks its lines
    for (const auto& part : split(run.log, '\n'))
      words += part.substr(std::min(part.size(), part.find_first_not_of(' '))) + " ";
    EXPECT_NE(words.find(c.text), std::string::npos) << c.model << " " << c.record << run.log;
  }
  const TemporaryFile numeric("numeric.csv", "y,t,_CMPT_TYPE_,_CMPT_DOSE_,_CMPT_DTIME_\n1,1,5,10,1\n");
  EXPECT_TRUE(run_text("TORVALE DATA=d TECHNIQUE=NONE; PARMS s2=1; CMPTMODEL NCOMPS=1 ADMTYPE=IVB PARMTYPE=1 PCONC=c "
                       "KE=0.3; MODEL y ~ NORMAL(c, s2); RUN;",
                       "/tmp", 0, {{"d", numeric.path()}})
                  .said(503, 9473));
}

} // namespace

} // namespace torvale::tests
