#include "host/values/text.h"
#include "host/writers/table_writers.h"
#include <cmath>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace torvale::host {

namespace {

Table estimates()
{
  Table t("ParameterEstimates", "Parameter Estimates",
          {{"Parameter", CellKind::text, "", "", ""},
           {"Estimate", CellKind::number, "", "", ""},
           {"StandardError", CellKind::number, "", "", ""},
           {"DF", CellKind::number, "", "", ""},
           {"tValue", CellKind::number, "", "", ""},
           {"Probt", CellKind::number, "", "", ""},
           {"Lower", CellKind::number, "", "", ""},
           {"Upper", CellKind::number, "", "", ""}});
  t.dynamic = {{"confidence", 95.0}};
  t.row({"beta1", -3.2268123, 0.05950123, 10.0, -54.23, 1e-12, -3.3594, -3.0942});
  t.row({"s2", 0.2827, 0.05217, 10.0, 5.42, 0.0003, 0.1664, 0.3990});
  t.row({"fixed", 2.0, missing, 10.0, missing, missing, missing, missing});
  return t;
}

std::string parameter_name(int i)
{
  return std::string(1, 'p').append(std::to_string(i));
}

} // namespace

TEST(Listing, EstimatesAreAligned)
{
  EXPECT_EQ(listing_text(estimates(), 84),
            "                                Parameter Estimates\n"
            "\n"
            "                          Standard                         Lower 95%  Upper 95%\n"
            "     Parameter  Estimate     Error  DF  t Value  Pr > |t|      Limit      Limit\n"
            "\n"
            "     beta1       -3.2268    0.0595  10   -54.23    <.0001    -3.3594    -3.0942\n"
            "     s2           0.2827    0.0522  10     5.42    0.0003     0.1664     0.3990\n"
            "     fixed        2.000      .      10        .         .      .          .\n");
}

TEST(Listing, WideTablesAreSplitAndRepeatTheRowNames)
{
  std::vector<TableColumn> columns{{"Row", CellKind::integer, "", "", ""}, {"Parameter", CellKind::text, "", "", ""}};
  for (int i = 1; i <= 12; ++i) columns.push_back({parameter_name(i), CellKind::number, "", "10.4", "Parm"});
  Table t("CovMatParmEst", "Covariance", columns);
  for (int i = 1; i <= 2; ++i) {
    std::vector<Cell> cells{i, parameter_name(i)};
    for (int j = 1; j <= 12; ++j) cells.emplace_back(i * 1000.0 + j);
    t.row(cells);
  }
  const std::string text = listing_text(t, 80);
  std::istringstream in(text);
  int rows = 0;
  for (std::string line; std::getline(in, line);) {
    EXPECT_LE(line.size(), 80u);
    rows += stripped(line).starts_with("1 ");
  }
  EXPECT_GT(rows, 1); // the first row stands in several panels, each with its name
  for (int j = 1; j <= 12; ++j)
    EXPECT_NE(text.find(format_number(2000.0 + j, parse_format("10.4"))), std::string::npos);
}

TEST(Listing, EmptyTablesAndColumnsWiderThanTheLine)
{
  EXPECT_FALSE(listing_text(Table("Empty", "Empty", {{"Descr", CellKind::text, "", "", ""}})).empty());
  Table t("Wide", "Wide", {{"Reason", CellKind::text, "", "", ""}, {"Status", CellKind::integer, "", "", ""}});
  t.row({std::string(300, 'x'), 1});
  EXPECT_NE(listing_text(t).find(std::string(300, 'x')), std::string::npos);
}

// The parsed JSON holds the very doubles, kinds and texts of the table.
TEST(Json, TablesKeepFullPrecision)
{
  Table t(
      "T", "A \"label\"\n\x01\xFF",
      {{"a", CellKind::number, "", "", ""}, {"b", CellKind::integer, "B", "", ""}, {"c", CellKind::text, "", "", ""}});
  const double values[] = {0.1, -0.0, 5e-324, 1.7976931348623157e308, 286.43296123456789, 1e20, 123456789.0};
  for (const double x : values) t.row({x, 9007199254740993LL, "q\\\"\t\xE2\x82\xAC"});
  t.row({missing, missing, ""});
  t.row({special_missing('A'), 1, ""});
  t.row({HUGE_VAL, 1, ""});
  t.row({-HUGE_VAL, 1, ""});
  t.row({std::nan(""), 1, ""});
  std::string text;
  append_json(text, t);
  const auto json = nlohmann::json::parse(text);
  EXPECT_EQ(json["path"], "Stat.TVL.T");
  EXPECT_EQ(json["label"], "A \"label\"\n\x01\xEF\xBF\xBD");
  EXPECT_EQ(json["columns"][1], (nlohmann::json{{"name", "b"}, {"type", "integer"}, {"label", "B"}}));
  EXPECT_EQ(json["columns"][0]["type"], "double");
  for (std::size_t i = 0; i < std::size(values); ++i) {
    EXPECT_EQ(std::bit_cast<std::uint64_t>(json["rows"][i][0].get<double>()), std::bit_cast<std::uint64_t>(values[i]))
        << i;
    EXPECT_EQ(json["rows"][i][1].get<long long>(), 9007199254740993LL);
    EXPECT_EQ(json["rows"][i][2], "q\\\"\t\xE2\x82\xAC");
  }
  EXPECT_TRUE(json["rows"][7][0].is_null());
  EXPECT_TRUE(json["rows"][8][0].is_null());
  EXPECT_EQ(json["rows"][9][0], "inf");
  EXPECT_EQ(json["rows"][10][0], "-inf");
  EXPECT_TRUE(json["rows"][11][0].is_null());
}

TEST(Headings, TakeTheConfidenceLevel)
{
  Table t = estimates();
  EXPECT_EQ(column_heading(t, t.columns[6]), "Lower 95% Limit");
  t.dynamic.clear();
  EXPECT_EQ(column_heading(t, t.columns[6]), "Lower Limit");
  t.columns[6].label = "Mine";
  EXPECT_EQ(column_heading(t, t.columns[6]), "Mine");
}

TEST(TableForms, DataSetAndCsv)
{
  const Table t = estimates();
  const DataSet data = table_data_set(t);
  EXPECT_EQ(data.rows(), 3u);
  EXPECT_EQ(data.find("estimate")->number(0), -3.2268123);
  EXPECT_TRUE(csv_text(t).starts_with(
      "Parameter,Estimate,StandardError,DF,tValue,Probt,Lower,Upper\nbeta1,-3.2268123,0.05950123,10,"));
}

} // namespace torvale::host
