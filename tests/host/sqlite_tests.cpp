#include "host/data/sqlite_table.h"
#include "host/values/missing.h"
#include "support.h"
#include <random>
#include <sqlite3.h>

namespace torvale::host {

namespace {

void run_sql(const std::string& path, const char* sql)
{
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

} // namespace

TEST(Sqlite, WrittenTablesComeBackBitByBit)
{
  std::mt19937_64 bits(9);
  DataSet data;
  data.add(Column("select", ColumnKind::numeric)); // names that SQL knows, names with quotes
  data.add(Column("a \"b\"", ColumnKind::character));
  Column& x = data.columns()[0];
  Column& s = data.columns()[1];
  for (int i = 0; i < 500; ++i) {
    const double v = std::bit_cast<double>(bits());
    x.append(i % 5 == 0 ? special_missing(".A_"[i % 3]) : v);
    s.append(std::string_view(i % 4 == 0 ? "" : i % 4 == 1 ? "5" : "it's"));
  }
  ScratchFolder folder;
  CaughtMessages log;
  const std::string path = folder / "d.sqlite";
  ASSERT_EQ(write_sqlite(data, path, "my table", log), 0);
  ASSERT_EQ(write_sqlite(data, path, "my table", log), 0); // over the first
  EXPECT_TRUE(is_sqlite_file(path));
  EXPECT_EQ(sqlite_tables(path), std::vector<std::string>{"my table"});
  const auto back = read_sqlite(path, "my table", log);
  ASSERT_TRUE(back);
  ASSERT_EQ(back->rows(), 500u);
  for (std::size_t i = 0; i < 500; ++i) {
    EXPECT_EQ(std::bit_cast<std::uint64_t>(back->columns()[0].number(i)), std::bit_cast<std::uint64_t>(x.number(i)))
        << i;
    EXPECT_EQ(back->columns()[1].text(i), s.text(i));
  }
}

TEST(Sqlite, KindsComeFromTheValuesNotTheDeclaration)
{
  ScratchFolder folder;
  const std::string path = folder / "d.db";
  run_sql(path, "CREATE TABLE t (a TEXT, b, c INT, d); INSERT INTO t VALUES (1, 2, 3, NULL), (NULL, '.B', 'x', NULL);"
                "CREATE VIEW v AS SELECT c FROM t");
  CaughtMessages log;
  const auto data = read_sqlite(path, "t", log);
  ASSERT_TRUE(data);
  EXPECT_FALSE(data->columns()[0].numeric()); // text affinity stored "1" as a text
  EXPECT_TRUE(data->columns()[1].numeric());
  EXPECT_EQ(missing_letter(data->columns()[1].number(1)), 'B');
  EXPECT_EQ(data->columns()[2].text(0), "3");
  EXPECT_TRUE(data->columns()[3].numeric());
  EXPECT_TRUE(read_sqlite(path, "v", log));
}

TEST(Sqlite, WholeNumbersThatADoubleDoesNotHoldAreTold)
{
  ScratchFolder folder;
  const std::string path = folder / "d.db";
  run_sql(path, "CREATE TABLE t (a, b); INSERT INTO t VALUES (9007199254740992, 1);"
                "INSERT INTO t VALUES (9007199254740993, 2), (9223372036854775807, 3), (-9223372036854775808, 4)");
  CaughtMessages log;
  ASSERT_TRUE(read_sqlite(path, "t", log));
  EXPECT_EQ(log.count(9016), 1);
  EXPECT_NE(log.text(9016).find("Column a"), std::string::npos);
  EXPECT_NE(log.text(9016).find("first in row 2"), std::string::npos);
}

TEST(Sqlite, FaultsAreMessages)
{
  ScratchFolder folder;
  CaughtMessages log;
  folder.write("d.db", "SQLite format 3" + std::string(2000, 'x')); // damaged
  EXPECT_TRUE(is_sqlite_file(folder / "d.db"));
  EXPECT_FALSE(read_sqlite(folder / "d.db", "t", log));
  EXPECT_FALSE(read_sqlite(folder / "none.db", "t", log));
  EXPECT_EQ(log.count(9027), 2);
  DataSet data;
  data.add(Column("x", ColumnKind::numeric)).append(1.0);
  EXPECT_EQ(write_sqlite(data, folder / "no/such/d.db", "t", log), -1);
  EXPECT_EQ(write_sqlite(data, folder / "d.db", "t", log), -1);
  EXPECT_EQ(log.count(9012), 2);
}

} // namespace torvale::host
