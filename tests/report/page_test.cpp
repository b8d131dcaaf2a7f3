// The report page: what it holds, that it fetches nothing, and that its ids are unique.

#include "report/page.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace torvale::report {

namespace {

using host::CellKind;

host::Table one_value(const char* name, double value)
{
  host::Table table(name, name, {{"Value", CellKind::number, "", "", ""}});
  table.row({value});
  return table;
}

TEST(Page, HoldsEverythingAndFetchesNothing)
{
  host::RunResults results{.version = "0.1.0", .program = "a<b>.tvl", .source = "x = 1 < 2;\nRUN;", .steps = {}};
  for (int s = 0; s < 2; ++s) {
    host::StepResult& step = results.steps.emplace_back();
    step.data = {"work.d", "d.csv", 12, 3, "0123456789abcdef0123"};
    step.messages.push_back({503, 71, host::Severity::error, "x < y", 1});
    for (int g = 0; g < 2; ++g) {
      host::GroupResult& group = step.groups.emplace_back();
      group.by = {{"study", g + 1.0}};
      group.tables.push_back(one_value("FitStatistics", 1));
      group.tables.push_back(one_value("GradCheck", 2));
      group.tables.push_back(one_value("GradCheck", 3)); // twice: ids stay apart
      group.fit.present = true;
      group.fit.headline = "The fit <converged>.";
      group.pictures.push_back({"residuals", "Residuals", "How to read & so on", "<svg></svg>"});
    }
  }
  const std::string html = report_page(results);
  for (const char* part :
       {"a&lt;b&gt;.tvl", "x &lt; y", "study=2", "FitStatistics", "0.1.0", "The fit &lt;converged&gt;.",
        "How to read &amp; so on", "x = 1 &lt; 2;", "12 rows", "d.csv"})
    EXPECT_NE(html.find(part), std::string::npos) << part;
  for (const char* fetches : {"http", "src=", "url(", "@import", "<script"})
    EXPECT_EQ(html.find(fetches), std::string::npos) << fetches;

  std::set<std::string> ids;
  const std::regex id(" id=\"([^\"]*)\""), link("href=\"#([^\"]*)\"");
  for (std::sregex_iterator at(html.begin(), html.end(), id), end; at != end; ++at)
    EXPECT_TRUE(ids.insert((*at)[1]).second) << (*at)[1];
  for (std::sregex_iterator at(html.begin(), html.end(), link), end; at != end; ++at)
    EXPECT_TRUE(ids.count((*at)[1])) << (*at)[1];
  EXPECT_EQ(report_page(results), html);
}

TEST(Page, TextsOfTablesAreEscaped)
{
  host::Table risky("R", "<b>&", {{"x", CellKind::text, "", "", ""}});
  risky.row({"<script>\"&"});
  const std::string html = html_text(risky, "r");
  EXPECT_EQ(html.find("<script>"), std::string::npos);
  EXPECT_NE(html.find("&lt;script&gt;&quot;&amp;"), std::string::npos);
}

} // namespace

} // namespace torvale::report
