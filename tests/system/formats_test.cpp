// Formats and dates from a program's text to its lines.

#include "data_files.h"
#include "session.h"

#include <gtest/gtest.h>

namespace torvale::tests {
namespace {

const std::string model = "p=0; y2 = y - p; MODEL y ~ NORMAL(p2, 1); PARMS p2=1; RUN;";

TEST(Formats, LinesOfAProgram)
{
  const TemporaryFile data("visits.csv", "id,day,at,y,note\n1,2024-01-31,09:30,1.5,  first \n2,2024-02-29,13:05,NA,\n");
  const auto run =
      run_text("TORVALE DATA='" + data.path() +
               "'; FORMAT day date9. at time5.; "
               "due = INTNX('month', day, 1, 'E'); FORMAT due yymmdd10.; "
               "text = PUT(day, ddmmyy10.); back = INPUT(text, 'ddmmyy10.'); wide = PUT(12345.678, comma10.1); "
               "PUT 'A ' day at due text +0 back z6. wide note $quote. y 6.1; " +
               model);
  EXPECT_NE(run.log.find("A 31JAN2024  9:30 2024-02-29 31/01/2024 023406   12,345.7 \"first\"    1.5"),
            std::string::npos)
      << run.log;
  EXPECT_NE(run.log.find("A 29FEB2024 13:05 2024-03-31 29/02/2024 023435"), std::string::npos) << run.log;
  EXPECT_TRUE(run.said(503, 9501)); // NA
}

TEST(Formats, LengthOfADataVariableIsAWord)
{
  const auto fit = [](const std::string& length) {
    return run_text("TORVALE DATA=epil; LENGTH " + length +
                    "; PARMS b=1; s = trt; MODEL y ~ POISSON(exp(b + 0*(s = 'placebo'))); RUN;");
  };
  EXPECT_TRUE(fit("trt $ 3").said(503, 9512));
  EXPECT_TRUE(fit("age 4").said(503, 9512)); // the program does not use it
  EXPECT_FALSE(fit("s $ 3").said(503, 9512));
}

// Dates of a file are numbers; a text beside one is the date that it spells, in programs and in WHERE=.
TEST(Formats, TextsBesideDatesAreDates)
{
  const TemporaryFile data("visits.csv",
                           "day,at,y\n2024-01-31,2024-01-31 13:30:00,1\n2024-02-01,2024-02-01 00:00:00,2\n,,3\n");
  const auto lines = [&](const std::string& options) {
    return run_text(
               "TORVALE DATA=visits" + options +
                   "; PARMS m=1; first = (day = '2024-01-31') + 2*(at >= '2024-02-01T00:00:00') + 4*(day = 'soon');"
                   "text = '2024-02-01'; days = text - day; PUT first days; MODEL y ~ NORMAL(m, 1); RUN;",
               "examples", 0, {{"visits", data.path()}})
        .log;
  };
  EXPECT_NE(lines("").find("\n1 1 \n2 0 \n4 . \n"), std::string::npos) << lines("");
  EXPECT_EQ(lines("").find("503/9513"), std::string::npos);
  const auto kinds =
      run_text("TORVALE DATA=visits; PARMS m=1; late = (at > '2024-02-01'); MODEL y ~ NORMAL(m + 0*late, 1); RUN;",
               "examples", 0, {{"visits", data.path()}});
  EXPECT_TRUE(kinds.said(503, 9513)) << kinds.log;
  EXPECT_NE(lines("(WHERE=(day >= '2024-02-01'))").find("\n2 0 \nNOTE"), std::string::npos);
}

TEST(Formats, OptionsOfAFile)
{
  const Folder out;
  const auto write = [&](const std::string& options) {
    const auto run = run_text("TORVALE DATA=epil(LASTROW=2); PARMS m=1; FILE 'lines.txt' " + options +
                                  "; PUT 'gr\xC3\xB6\xC3\x9F' 'er' trt; MODEL y ~ POISSON(exp(m)); RUN;",
                              "examples", 0, {}, false, 0, out.path());
    EXPECT_EQ(run.outcome.exit_code, 0) << run.log;
    return read_text(out.file("lines.txt"));
  };
  const std::string line = "gr\xC3\xB6\xC3\x9F"
                           "er"
                           "placebo ";
  EXPECT_EQ(write(""), line + "\n" + line + "\n");
  EXPECT_EQ(write("LRECL=3 DROPOVER"), "gr\xC3\xB6\ngr\xC3\xB6\n");
  EXPECT_EQ(write("MOD LRECL=16 PAD").substr(10), line + "  \n" + line + "  \n");
  EXPECT_EQ(write("LS=9 OLD"), "gr\xC3\xB6\xC3\x9F"
                               "erpla\ncebo \ngr\xC3\xB6\xC3\x9F"
                               "erpla\ncebo \n");
  EXPECT_EQ(write("STOPOVER LRECL=14"), line + "\n" + line + "\n");
  const auto stopped = run_text("TORVALE DATA=epil(LASTROW=2); PARMS m=1; FILE 'lines.txt' LRECL=13 STOPOVER;"
                                "PUT 'gr\xC3\xB6\xC3\x9F' 'er' trt; MODEL y ~ POISSON(exp(m)); RUN;",
                                "examples", 0, {}, false, 0, out.path());
  EXPECT_TRUE(stopped.said(503, 9514)) << stopped.log;
  EXPECT_EQ(stopped.outcome.exit_code, 4);
}

TEST(Formats, AnUnknownFormatIsAnError)
{
  const TemporaryFile data("y.csv", "y\n1\n2\n");
  for (const char* statement : {"FORMAT y dat9.;", "z = PUT(y, nothing5.);", "z = INPUT('1', 'what.');", "PUT y foo8.;",
                                "ATTRIB y FORMAT=4.9;", "z = INTNX('fortnight', y, 1);"}) {
    const auto run = run_text("TORVALE DATA='" + data.path() + "'; " + statement + model);
    EXPECT_EQ(run.outcome.exit_code, 3) << statement << run.log;
  }
}

} // namespace
} // namespace torvale::tests
