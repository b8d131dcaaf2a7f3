#include "host/messages/names/fit.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/starting_values.h"
#include "host/messages/names/statements.h"
#include "host/messages/source_excerpt.h"
#include "host/values/missing.h"
#include "support.h"
#include <set>
#include <tuple>

namespace torvale::host {

TEST(Catalogue, EveryEntryIsUniqueAndWellFormed)
{
  std::set<std::pair<int, int>> seen;
  for (const CatalogueEntry& e : catalogue()) {
    EXPECT_TRUE(seen.emplace(e.group, e.number).second) << e.group << "/" << e.number;
    EXPECT_FALSE(e.text.empty()) << e.number;
    const CatalogueEntry* const found = find_message(e.group, e.number);
    ASSERT_NE(found, nullptr) << e.group << "/" << e.number;
    EXPECT_EQ(std::tie(found->group, found->number, found->name, found->text, found->severity, found->label),
              std::tie(e.group, e.number, e.name, e.text, e.severity, e.label));
    int depth = 0;
    for (const char c : e.text) {
      depth += c == '{' ? 1 : c == '}' ? -1 : 0;
      EXPECT_TRUE(depth == 0 || depth == 1) << e.number;
    }
    EXPECT_EQ(depth, 0) << e.number;
    EXPECT_TRUE(e.severity == Severity::note || e.text.ends_with('.') || e.text.ends_with(']')) << e.number;
  }
  EXPECT_GT(seen.size(), 300u);
  for (int group : {0, 352, 503, 549, 9999})
    for (int number = -3; number < 10000; number += 7)
      EXPECT_EQ(find_message(group, number) != nullptr, seen.count({group == 0 ? 503 : group, number}) == 1)
          << group << "/" << number;
}

TEST(Messages, ArgumentsFillTheTextAndOptionalStretchesFallAway)
{
  EXPECT_EQ(xpmstr(message::unknown_dependent_variable{.name = "y"}),
            "The dependent variable y is neither in the data set nor assigned in the program.");
  EXPECT_EQ(xpmstr(message::unknown_dependent_variable{.name = "y", .near = "yy"}),
            "The dependent variable y is neither in the data set nor assigned in the program; did you mean yy?");
  EXPECT_EQ(xpmstr(message::integral_not_accurate{.points = 31, .change = 0.25, .tolerance = 1e-4}),
            "The integral is not accurate enough with 31 quadrature points: relative change 0.25, tolerance 0.0001.");
  EXPECT_EQ(MessageArgument("x", 0.0017538544329616101).value, "0.001753854");
  EXPECT_EQ(MessageArgument("x", 9007199254740992.0).value, "9007199254740992"); // whole numbers in full
  EXPECT_EQ(MessageArgument("x", missing).value, ".");
  EXPECT_EQ(xpmstr(NumberedMessage({503, 8888}, {{"a", MessageValue(1)}})), "Message 503/8888, a=1");
  EXPECT_EQ(otbmsg(MessageCode{0, 120}), "-2 Log Likelihood");
  // An argument's own braces are not expanded.
  EXPECT_NE(xpmstr(message::likelihood_without_random_effect{.name = "{name}"}).find("{name}"), std::string::npos);
}

// Notes tell their place in the sentence; under warnings and errors stands the line itself, once.
TEST(Messages, ThePlaceIsToldOnce)
{
  CaughtMessages log;
  log.xpmlog(message::no_random_effect, {.statement = "RANDOM", .line = 7, .column = 3, .subject = "12"});
  EXPECT_EQ(log.text(13), "The RANDOM statement names no random effect (subject 12).");
  EXPECT_EQ(log.messages()[0].line, 7);
  EXPECT_TRUE(log.has_errors());
  log.xpmlog(message::statements_read, {.statement = "PARMS", .line = 7, .column = 3});
  EXPECT_EQ(log.text(400), "The statements have been read (PARMS statement, line 7, column 3).");

  std::vector<std::string> lines;
  MessageLog written([&](std::string_view line) { lines.emplace_back(line); });
  written.set_program("a.tvl", "x = 1;\n\tRANDOM;\n");
  written.xpmlog(message::no_random_effect, {.line = 2, .column = 2});
  EXPECT_EQ(lines, (std::vector<std::string>{"ERROR: The RANDOM statement names no random effect. [503/13]",
                                             "  --> a.tvl:2:2", "  2 |  RANDOM;", "    |  ^"}));
}

TEST(Messages, ExcerptsOfLongLinesShowThePlace)
{
  std::string line(300, 'a');
  line.replace(200, 3, "xyz");
  const auto cut = source_excerpt(12, line, 201, 3);
  ASSERT_EQ(cut.size(), 2u);
  EXPECT_LT(cut[0].size(), 130u);
  EXPECT_EQ(cut[0].substr(cut[1].find('^'), 3), "xyz");
  EXPECT_EQ(cut[1].substr(cut[1].find('^')), "^^^");
  // Characters count, not bytes; carets end with the line; a place behind its end has one.
  EXPECT_EQ(source_excerpt(3, "\xC3\xA4 = 1", 3, 99)[1], "    |   ^^^");
  EXPECT_EQ(source_excerpt(3, "x", 4, 2)[1], "    |    ^");
  EXPECT_EQ(source_excerpt(3, "x", 0, 0).size(), 1u);
}

TEST(Messages, LogLinesAreWrappedAndCarryTheCode)
{
  std::vector<std::string> lines;
  MessageLog log([&](std::string_view line) { lines.emplace_back(line); });
  log.xpmlog(message::no_starting_point{.count = 6});
  log.xpmlog(message::reading_data{.data = "data"});
  log.xpmlog(message::likelihood_not_usable{.subject = std::string(150, 'x')});
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], "ERROR: None of the 6 starting points can be used. [503/232]");
  EXPECT_EQ(lines[1], "NOTE: Reading the data.");
  EXPECT_TRUE(lines[2].starts_with("WARNING: The log likelihood"));
  for (std::size_t i = 3; i < lines.size(); ++i) EXPECT_TRUE(lines[i].starts_with("      "));
}

TEST(Messages, RepeatsAreCountedPerGroup)
{
  CaughtMessages log;
  for (const int group : {0, 1}) {
    log.set_by_group(group);
    for (int i = 0; i < MessageLog::repeat_limit + 7; ++i) log.xpmlog(message::program_failed{.observation = i});
  }
  log.set_by_group(-1);
  EXPECT_EQ(log.count(72), 2 * MessageLog::repeat_limit);
  EXPECT_EQ(log.count(9000), 2);
  EXPECT_NE(log.text(9000).find("occurred 7 more times"), std::string::npos);
  EXPECT_EQ(log.messages().front().by_group, 0);
}

TEST(Messages, JournalReplaysInOrderAndSaysWhatItDropped)
{
  Journal journal(3);
  for (int i = 1; i <= 5; ++i) journal.xpmlog(message::program_failed{.observation = i});
  CaughtMessages log;
  journal.replay(log);
  EXPECT_TRUE(journal.empty());
  ASSERT_EQ(log.count(72), 3);
  EXPECT_NE(log.messages()[0].text.find("observation 1"), std::string::npos);
  EXPECT_NE(log.messages()[2].text.find("observation 3"), std::string::npos);
  EXPECT_EQ(log.text(9001).substr(0, 2), "2 ");
  journal.replay(log); // empty now
  EXPECT_EQ(log.count(72), 3);
}

TEST(Messages, ExplainTakesCodesInThreeForms)
{
  const std::string text = explain_message("503/71");
  EXPECT_NE(text.find("No observation can be used"), std::string::npos);
  EXPECT_NE(text.find("What to try"), std::string::npos);
  EXPECT_EQ(explain_message("503-71"), text);
  // A sentence, not a template.
  EXPECT_NE(explain_message("503/232").find("None of the starting points can be used."), std::string::npos);
  EXPECT_NE(explain_message("549/605").find("MAXITER=... iterations"), std::string::npos);
  for (const CatalogueEntry& e : catalogue())
    EXPECT_EQ(explain_message(std::to_string(e.group) + "/" + std::to_string(e.number)).find_first_of("{}"),
              std::string::npos)
        << e.group << "/" << e.number;
  for (const char* of_programs : {"200/1", "200/8", "200/15", "200/18"})
    EXPECT_NE(explain_message(of_programs), "") << of_programs;
  EXPECT_EQ(explain_message("71"), text);
  for (const char* bad : {"", "x", "503/", "503/99999", "71x", "/71", "99999999999999999999"})
    EXPECT_EQ(explain_message(bad), "") << bad;
}

} // namespace torvale::host
