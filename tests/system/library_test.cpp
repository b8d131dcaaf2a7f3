// The public header alone: data from memory, tables, callbacks, interruption; and diagnostics for editors.

#include "system/session.h"
#include "torvale/torvale.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <regex>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <stdexcept>

namespace torvale::tests {

namespace {

const std::string mean_of_mine =
    "TORVALE DATA=mine GCONV=0 ABSGCONV=1e-8; PARMS m=0 s2=1; MODEL y ~ NORMAL(m, s2); RUN;";

TEST(Library, DataFromMemoryAndTables)
{
  const std::vector<double> y = {1, 2, std::nan(""), 6};
  const std::vector<std::string> who = {"a", "b", "", "c"};
  std::string log;
  Settings settings;
  settings.log = [&](std::string_view line) { log += line; };
  torvale::Run run(settings);
  run.bind_data("mine", Data().add("y", y).add("who", who));
  const Results results = run.run(mean_of_mine);
  ASSERT_EQ(results.exit_code, 0) << log;
  const Group& group = results.steps.at(0).groups.at(0);
  const Table* estimates = group.table("parameterestimates");
  ASSERT_NE(estimates, nullptr);
  EXPECT_EQ(estimates->text(0, "Parameter"), "m");
  EXPECT_NEAR(estimates->number(0, "Estimate"), 3.0, 1e-6); // the mean of three values
  EXPECT_NEAR(estimates->number(1, "estimate"), 14.0 / 3, 1e-6);
  EXPECT_TRUE(std::isnan(estimates->number(0, "Parameter")));
  EXPECT_TRUE(std::isnan(estimates->number(0, "NoSuchColumn")));
  EXPECT_EQ(group.table("NoSuchTable"), nullptr);
  EXPECT_EQ(nlohmann::json::parse(results.json)["steps"].size(), 1u);
  EXPECT_FALSE(explain("503/72").empty());
}

TEST(Library, WhatDoesNotFitIsToldAndNothingEndsTheProcess)
{
  const std::vector<double> three = {1, 2, 3}, two = {1, 2};
  torvale::Run run;
  EXPECT_THROW(run.bind_data("mine", Data().add("y", three).add("x", two)), std::invalid_argument);
  EXPECT_THROW(run.bind_data("mine", Data().add("y", three).add("Y", three)), std::invalid_argument);
  const Results missing = run.run(mean_of_mine); // nothing is bound
  EXPECT_EQ(missing.exit_code, 4);
  bool told = false;
  for (const Message& m : missing.steps.at(0).messages) told = told || m.severity == Severity::error;
  EXPECT_TRUE(told);

  torvale::Run broken;
  EXPECT_EQ(broken.run("TORVALE DATA=; MODEL").exit_code, 3);

  torvale::Run stopped;
  stopped.bind_data("mine", Data().add("y", three));
  stopped.interrupt();
  EXPECT_EQ(stopped.run(mean_of_mine).exit_code, 130);
}

TEST(Library, DiagnosticsForEditors)
{
  const TemporaryFile file("faulty.tvl", "TORVALE DATA=orange;\n  MODEL circumference ~ NORMAL(b1, ;\nRUN;\n");
  const auto json = nlohmann::json::parse(
      output_of(std::string(TORVALE_BINARY) + " check " + file.path() + " --format=json 2>/dev/null"));
  EXPECT_EQ(json["uri"], file.path());
  bool found = false;
  for (const auto& d : json["diagnostics"]) {
    if (d["severity"] != 1 || d["range"]["start"]["line"] != 1) continue;
    found = true;
    EXPECT_GE(d["range"]["start"]["character"].get<int>(), 2);
    EXPECT_GT(d["range"]["end"]["character"].get<int>(), d["range"]["start"]["character"].get<int>());
    EXPECT_EQ(d["source"], "torvale");
  }
  EXPECT_TRUE(found) << json.dump(1);
}

// The grammar for editors knows the words of the language, and its expressions are well formed.
TEST(Library, HighlightingForEditors)
{
  const auto json = nlohmann::json::parse(read_text(TORVALE_HIGHLIGHTING));
  EXPECT_EQ(json["scopeName"], "source.torvale");
  std::string matches;
  const std::function<void(const nlohmann::json&)> walk = [&](const nlohmann::json& node) {
    for (const auto& [key, value] : node.items()) {
      if (key == "match" || key == "begin" || key == "end") {
        const std::string text = value;
        const std::string groups =
            std::regex_replace(text, std::regex(R"(\\.)"), ""); // escaped characters are no groups
        EXPECT_EQ(std::count(groups.begin(), groups.end(), '('), std::count(groups.begin(), groups.end(), ')')) << text;
        matches += text + "\n";
      } else if (value.is_structured()) {
        walk(value);
      }
    }
  };
  walk(json);
  for (const char* word : {"TORVALE", "RANDOM", "NOSORTSUB", "QPOINTS", "ELSE", "OTHERWISE", "POISSON", "NCOMPS"})
    EXPECT_TRUE(matches.find(std::string("|") + word) != std::string::npos ||
                matches.find(std::string("(") + word) != std::string::npos)
        << word;
}

TEST(Library, AProgramFromAPipeKeepsItsFirstBytes)
{
  const std::string text = source_file("examples/fixed_poisson.tvl");
  const std::string command = "cd " + source_file("examples") + " && cat " + text + " | " + TORVALE_BINARY;
  EXPECT_NE(output_of(command + " check /dev/stdin 2>&1").find("warpbreaks"), std::string::npos);
  EXPECT_EQ(output_of(command + " check /dev/stdin 2>&1").find("ERROR"), std::string::npos);
}

} // namespace

} // namespace torvale::tests
