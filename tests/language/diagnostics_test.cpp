// Diagnostics: wrong programs against golden files, and what every message must hold.
#include "host/messages/messages.h"
#include "parse_text.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace torvale::language::test {

namespace {

std::string file_text(const std::filesystem::path& path)
{
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::filesystem::path> wrong_programs()
{
  std::vector<std::filesystem::path> out;
  for (const auto& f : std::filesystem::directory_iterator(TORVALE_SOURCE_DIR "/tests/data/programs/wrong"))
    if (f.path().extension() == ".tvl") out.push_back(f.path());
  std::sort(out.begin(), out.end());
  return out;
}

std::string diagnose(const std::filesystem::path& path)
{
  return parse_text(file_text(path), {{"id", false}, {"x1", false}, {"name", true}, {"x2", false}}, {}, {},
                    path.filename().string())
      ->rendered;
}

} // namespace

// To accept new wording: TORVALE_WRITE_GOLDEN=1 language_tests --gtest_filter=Diagnostics.OfWrongPrograms*, then read
// the difference.
TEST(Diagnostics, OfWrongProgramsReadAsTheGoldenFilesSay)
{
  const auto programs = wrong_programs();
  EXPECT_GE(programs.size(), 60u);
  for (const auto& path : programs) {
    auto golden = path;
    golden.replace_extension(".txt");
    const std::string text = diagnose(path);
    if (std::getenv("TORVALE_WRITE_GOLDEN")) std::ofstream(golden, std::ios::binary) << text;
    EXPECT_EQ(text, file_text(golden)) << path;
    EXPECT_NE(text, "") << path;
  }
}

TEST(Diagnostics, HoldPlaceFoundExpectedAndRepairAsData)
{
  const auto parsed = parse_text("torvale;\nx = (1 + 2;\nmodel y ~ foo(a);\nrun;");
  ASSERT_EQ(parsed->diagnostics.size(), 2u) << parsed->rendered;
  const Diagnostic& bracket = parsed->diagnostics[0];
  EXPECT_EQ(bracket.where.line, 2);
  EXPECT_EQ(bracket.where.column, 11);
  EXPECT_EQ(bracket.found, "';'");
  EXPECT_EQ(bracket.repair, "')' was inserted");
  EXPECT_TRUE(bracket.expected.empty());
  const Diagnostic& distribution = parsed->diagnostics[1];
  EXPECT_EQ(distribution.found, "'foo'");
  EXPECT_EQ(distribution.where.column, 11);
  EXPECT_FALSE(distribution.expected.empty());
  EXPECT_LE(distribution.expected.size(), 8u);
}

TEST(Diagnostics, ColumnsCountCharactersAndLongLinesAreCut)
{
  const auto parsed = parse_text("torvale;\nlabel a='\xC3\xA4\xC3\xB6'; x = 1 +;\n\ty = ;\nrun;");
  ASSERT_EQ(parsed->diagnostics.size(), 2u);
  EXPECT_EQ(parsed->diagnostics[0].where.column, 22);
  EXPECT_EQ(parsed->diagnostics[1].where.column, 6);
  std::string line = "torvale; ";
  for (int i = 0; i < 200; ++i) line += "x = 1; ";
  const std::string text = parse_text(line + "y = ; run;")->rendered;
  std::stringstream lines(text);
  for (std::string l; std::getline(lines, l);) EXPECT_LT(l.size(), 140u) << l;
  EXPECT_NE(text.find("... "), std::string::npos);
}

TEST(Diagnostics, EveryNumberHasItsWordsInTheCatalogue)
{
  for (int n = static_cast<int>(Problem::syntax); n <= static_cast<int>(Problem::too_deep); ++n)
    EXPECT_NE(host::find_message(message_group, n), nullptr) << n;
}

TEST(Diagnostics, RunBehindAListWithoutItsSemicolonEndsTheStep)
{
  for (const char* list : {"parms a", "id x y", "keep a", "parms a=1 b", "by x"}) {
    const auto parsed = parse_text(std::string("torvale;\n") + list + "\nrun;\ntorvale; x=1; run;");
    EXPECT_EQ(parsed->steps.size(), 2u) << list;
    EXPECT_EQ(parsed->errors(), 1) << list << "\n" << parsed->rendered;
    EXPECT_NE(parsed->rendered.find("semicolon is missing before RUN"), std::string::npos) << parsed->rendered;
  }
}

TEST(Diagnostics, StopAfterAHundredErrors)
{
  std::string text = "torvale;";
  for (int i = 0; i < 5000; ++i) text += "x = ;\n";
  const auto parsed = parse_text(text + "run; torvale; y = ; run;");
  EXPECT_TRUE(parsed->has(Problem::too_many_errors));
  EXPECT_LE(parsed->errors(), 103);
}

TEST(Diagnostics, EveryCutOfAProgramEndsCleanly)
{
  // Whatever is missing at the end, the parser says so and returns.
  const std::string program = "torvale data=a(where=(x>1)) qp=5; parms a 1 to 3 by .5 b=-2 / best=2; array t[3] "
                              "_temporary_ (1 2 3); select (x); when (1) y = 'a'; otherwise do; z = "
                              "if a then b else c; end; end; model y ~ t([a], b, 3); random u ~ normal(0, v) "
                              "subject=s(t); estimate 'l' a - b df=3; %macro m(a=); x&a = 1; %mend; %m(a=2) run;";
  for (std::size_t n = 0; n <= program.size(); ++n) {
    const auto parsed = parse_text(program.substr(0, n));
    EXPECT_LE(parsed->steps.size(), 1u);
  }
}

} // namespace torvale::language::test
