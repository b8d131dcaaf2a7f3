#include "host/host.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/optimization.h"
#include "host/messages/names/statements.h"
#include "support.h"
#include <nlohmann/json.hpp>

namespace torvale::host {

namespace {

Table one_value(const char* name, double value)
{
  Table t(name, name, {{"Value", CellKind::number, "", "", ""}});
  t.row({value});
  return t;
}

} // namespace

TEST(Host, TablesMessagesAndDataSetsLandInTheirGroups)
{
  ScratchFolder folder;
  std::string listing, log;
  HostOptions options;
  options.version = "0.1.0";
  options.program = "t.tvl";
  options.places = {folder.path(), folder.path()};
  options.listing = [&](std::string_view text) { listing += text; };
  options.log = [&](std::string_view text) { log += text; };
  const auto host = make_host(std::move(options));

  host->begin_step();
  host->log().xpmlog(message::threads_used{.count = 2});
  host->tables().wobmth(one_value("Specifications", 1)); // before the first group: belongs to it
  host->begin_group({{"study", 1.0}, {"arm", "a"}});
  Table& history = host->tables().open(one_value("IterHistory", 2));
  host->tables().wobmth(one_value("Dimensions", 3)); // closed first, opened second
  history.row({4.0});
  host->log().xpmlog(message::no_usable_observation{});
  host->end_group(1012); // closes the history
  host->begin_group({{"study", missing}, {"arm", "b"}});
  OutputDataSet* out = host->libraries().open_output({"pred", false, {}}, host->log());
  out->add_column("x", ColumnKind::numeric);
  out->end_row();
  host->end_group(0);
  host->end_step(4, false); // writes pred

  const auto json = nlohmann::json::parse(results_json(host->results()));
  EXPECT_EQ(json["torvale"], "0.1.0");
  EXPECT_EQ(json["program"], "t.tvl");
  const auto& step = json["steps"][0];
  EXPECT_EQ(step["return_code"], 4);
  EXPECT_EQ(
      step["messages"][0],
      (nlohmann::json{
          {"group", 503}, {"number", 656}, {"severity", "note"}, {"text", "2 threads are used."}, {"by", nullptr}}));
  EXPECT_EQ(step["messages"][1]["by"], 0);
  EXPECT_EQ(step["messages"][1]["severity"], "error");
  ASSERT_EQ(step["groups"].size(), 2u);
  EXPECT_EQ(step["groups"][0]["by"], (nlohmann::json{{"study", 1}, {"arm", "a"}}));
  EXPECT_EQ(step["groups"][0]["return_code"], 1012);
  EXPECT_EQ(step["groups"][0]["tables"][0]["name"], "Specifications");
  EXPECT_EQ(step["groups"][0]["tables"][1]["rows"], (nlohmann::json{{2.0}, {4.0}}));
  EXPECT_EQ(step["groups"][0]["tables"][2]["name"], "Dimensions");
  EXPECT_TRUE(step["groups"][1]["by"]["study"].is_null());
  EXPECT_EQ(step["data_sets"][0], (nlohmann::json{{"name", "work.pred"}, {"path", "pred.csv"}, {"rows", 1}}));

  EXPECT_LT(listing.find("Specifications"), listing.find("study=1 arm=a"));
  EXPECT_LT(listing.find("study=1 arm=a"), listing.find("Dimensions"));
  EXPECT_LT(listing.find("Dimensions"), listing.find("IterHistory")); // shown when closed
  EXPECT_NE(log.find("NOTE: 2 threads are used.\n"), std::string::npos);
  EXPECT_NE(log.find("ERROR: No observation can be used"), std::string::npos);
}

TEST(Host, AStepThatEndsEarlyKeepsWhatItHas)
{
  const auto host = make_host({});
  host->begin_step();
  host->tables().wobmth(one_value("Specifications", 1));
  host->end_step(1012, true); // no group was begun
  host->begin_step();
  host->end_step(3000, true);
  const auto json = nlohmann::json::parse(results_json(host->results()));
  EXPECT_EQ(json["steps"][0]["groups"][0]["tables"].size(), 1u);
  EXPECT_EQ(json["steps"][0]["groups"][0]["return_code"], 1012);
  EXPECT_TRUE(json["steps"][1]["groups"].empty());
  EXPECT_EQ(json["steps"][1]["return_code"], 3000);
}

TEST(Host, ClockSeedAndInterruption)
{
  const auto host = make_host({.options = {{"DEBUG", "syn"}}});
  EXPECT_GE(host->clock_seed(), 1u);
  EXPECT_LE(host->clock_seed(), 1000000000u);
  EXPECT_GE(host->cores(), 1);
  const double t = host->seconds();
  EXPECT_GE(host->seconds(), t);
  EXPECT_FALSE(host->interrupted());
  host->interrupt();
  EXPECT_TRUE(host->interrupted());
  ASSERT_TRUE(host->option("debug"));
  EXPECT_FALSE(host->option("other"));
  EXPECT_FALSE(host->macro_variable("SYSRANDOM"));
  host->xjsympn("sysrandom", "17");
  EXPECT_EQ(*host->macro_variable("SYSRANDOM"), "17");
}

} // namespace torvale::host
