#include "host/data/csv.h"
#include "host/data/data_set_options.h"
#include "support.h"

namespace torvale::host {

namespace {

DataSet numbered()
{
  CaughtMessages log;
  std::string text = "id,x,y\n";
  for (int i = 1; i <= 10; ++i)
    text += std::to_string(i) + "," + std::to_string(i % 3) + "," + std::to_string(i * i) + "\n";
  return *read_csv_text(text, "t.csv", log);
}

std::string shape(const DataSet& data)
{
  std::string out;
  for (const std::string& name : data.column_names()) out += name + " ";
  for (std::size_t i = 0; i < data.rows(); ++i) out += std::to_string(data.file_row(i)) + ",";
  return out;
}

std::string applied(std::string_view text)
{
  CaughtMessages log;
  DataSet data = numbered();
  const auto options = parse_data_set_options(text, log);
  if (!options || apply_input_options(data, *options, log) != 0) return log.messages().back().text;
  return shape(data);
}

} // namespace

TEST(DataSetOptions, RowsThenColumnsThenNames)
{
  EXPECT_EQ(applied("keep=id y where=(x = 1)"), "id y 1,4,7,10,"); // WHERE sees what KEEP drops
  EXPECT_EQ(applied("drop=x rename=(y=square id=n)"), "n square 1,2,3,4,5,6,7,8,9,10,");
  EXPECT_EQ(applied("WHERE=(x ^= 0) FIRSTROW=2 LASTROW=4"), "id x y 2,4,5,"); // numbers among the rows that WHERE keeps
  EXPECT_EQ(applied("firstrow=9"), "id x y 9,10,");
  EXPECT_EQ(applied("firstrow=99"), "id x y ");
  EXPECT_EQ(applied("lastrow=99 keep=(ID)"), "id 1,2,3,4,5,6,7,8,9,10,");
  EXPECT_EQ(applied("rename=(x=y y=x) lastrow=1"), "id y x 1,");
  EXPECT_EQ(applied("where=(y in (1 4) or ')' = 'x') label='it''s (1)'"), "id x y 1,2,");
  EXPECT_EQ(applied(""), "id x y 1,2,3,4,5,6,7,8,9,10,");
}

TEST(DataSetOptions, Mistakes)
{
  EXPECT_NE(applied("keep=zz").find("KEEP= names zz"), std::string::npos);
  EXPECT_NE(applied("drop=idd").find("did you mean id?"), std::string::npos);
  EXPECT_NE(applied("drop=id x y").find("leave no variable"), std::string::npos);
  EXPECT_NE(applied("rename=(x=Y)").find("Two variables would be named"), std::string::npos);
  EXPECT_NE(applied("rename=(x y)").find("RENAME= needs"), std::string::npos);
  EXPECT_NE(applied("wehre=(x>1)").find("did you mean WHERE=?"), std::string::npos);
  EXPECT_NE(applied("where=x>1").find("in parentheses"), std::string::npos);
  EXPECT_NE(applied("where=(x > )").find("a value is needed"), std::string::npos);
  EXPECT_NE(applied("where=(q > 1)").find("no variable q"), std::string::npos);
  EXPECT_NE(applied("firstrow=0").find("whole number from 1"), std::string::npos);
  EXPECT_NE(applied("lastrow=x").find("whole number from 1"), std::string::npos);
  EXPECT_NE(applied("keep").find("a name and = are needed"), std::string::npos);
  EXPECT_NE(applied("keep=").find("names are needed"), std::string::npos);
  EXPECT_NE(applied("keep=(x").find("closing parenthesis"), std::string::npos);
}

TEST(DataSetOptions, EmptyWhereIsSaid)
{
  CaughtMessages log;
  DataSet data = numbered();
  ASSERT_EQ(apply_input_options(data, *parse_data_set_options("where=(x > 9)", log), log), 0);
  EXPECT_EQ(data.rows(), 0u);
  EXPECT_EQ(log.count(9030), 1);
}

} // namespace torvale::host
