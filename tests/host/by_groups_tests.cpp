#include "host/data/by_groups.h"
#include "host/data/csv.h"
#include "support.h"

namespace torvale::host {

namespace {

DataSet read(std::string_view text)
{
  CaughtMessages log;
  return *read_csv_text(text, "t.csv", log);
}

std::string ranges(const ByGroups& groups)
{
  std::string out;
  for (std::size_t i = 0; i < groups.count(); ++i)
    out += std::to_string(groups.group(i).begin) + "-" + std::to_string(groups.group(i).end) + " ";
  return out;
}

} // namespace

TEST(ByGroups, RunsOfEqualValues)
{
  const DataSet data = read("a,s\n.,x\n.A,x\n1,x\n1,x\n1,y\n2,b\n");
  CaughtMessages log;
  ByGroups groups;
  ASSERT_EQ(groups.build(data, {{"A", false}, {"s", false}}, false, log), 0);
  EXPECT_EQ(ranges(groups), "0-1 1-2 2-4 4-5 5-6 ");
  EXPECT_EQ(groups.values(3), (ByValues{{"a", 1.0}, {"s", "y"}}));
  int count = 0;
  while (groups.xbynext()) EXPECT_EQ(groups.current_number(), static_cast<std::size_t>(count++));
  EXPECT_EQ(count, 5);
}

TEST(ByGroups, WithoutVariablesThereIsOneGroupEvenWithoutRows)
{
  const DataSet data = read("a\n");
  CaughtMessages log;
  ByGroups groups;
  ASSERT_EQ(groups.build(data, {}, false, log), 0);
  EXPECT_TRUE(groups.xbynext());
  EXPECT_EQ(groups.current().rows(), 0u);
  EXPECT_FALSE(groups.xbynext());
  ASSERT_EQ(groups.build(data, {{"a", false}}, false, log), 0);
  EXPECT_EQ(groups.count(), 0u);
}

TEST(ByGroups, OrderIsChecked)
{
  const DataSet data = read("a,b\n2,1\n2,3\n1,0\n2,0\n");
  CaughtMessages log;
  ByGroups groups;
  EXPECT_EQ(groups.build(data, {{"a", false}}, false, log), -1);
  EXPECT_NE(log.text(9032).find("a=1 follows a=2 in row 3"), std::string::npos);
  EXPECT_EQ(ranges(groups), ""); // fragments are no groups
  EXPECT_EQ(groups.build(data, {{"a", false}}, true, log), 0);
  EXPECT_EQ(ranges(groups), "0-2 2-3 3-4 "); // NOTSORTED: every change starts a group
  const DataSet falling = read("a,b\n2,1\n2,3\n1,5\n");
  EXPECT_EQ(groups.build(falling, {{"a", true}, {"b", false}}, false, log), 0); // DESCENDING for one variable only
  EXPECT_EQ(groups.build(data, {{"zz", false}}, false, log), -1);
  EXPECT_EQ(log.count(9031), 1);
}

TEST(ByGroups, GroupsOfTwoDataSetsMatchByKeyNotByPlace)
{
  const DataSet main = read("a,s\n1,x\n1,y\n2,x\n3,x\n");
  const DataSet second = read("s,a,v\nx,2,20\ny,1,11\nx,1,10\n");
  CaughtMessages log;
  ByGroups a, b;
  const std::vector<ByVariable> by{{"a", false}, {"s", false}};
  ASSERT_EQ(a.build(main, by, false, log), 0);
  ASSERT_EQ(b.build(second, by, true, log), 0);
  EXPECT_EQ(b.xbysync(a, 0), 2u);
  EXPECT_EQ(b.xbysync(a, 1), 1u);
  EXPECT_EQ(b.xbysync(a, 2), 0u);
  EXPECT_FALSE(b.xbysync(a, 3));
  EXPECT_EQ(ByGroups::xbylist(main, second, by), 0);
  EXPECT_EQ(ByGroups::xbylist(main, read("a,s\nq,x\n"), by), 1);
  EXPECT_EQ(ByGroups::xbylist(main, read("a\n1\n"), by), 2);
}

TEST(SortRows, IsStableWithMissingValuesFirst)
{
  DataSet data = read("s,x,n\nb,1,1\na,2,2\n,3,3\nb,.,4\na,2,5\n");
  const std::size_t by[] = {0, 1};
  data.sort_rows(by);
  std::string order;
  for (std::size_t i = 0; i < data.rows(); ++i) order += data.columns()[2].shown(i);
  EXPECT_EQ(order, "32541");
  EXPECT_EQ(data.file_row(0), 3);
}

} // namespace torvale::host
