#include "host/data/libraries.h"
#include "host/data/sqlite_table.h"
#include "support.h"
#include <sqlite3.h>

namespace torvale::host {

namespace {

struct Places {
  ScratchFolder in, out, other;
  CaughtMessages log;
  Libraries libraries{{in.path(), out.path()}};

  double first(const DataSetReference& reference)
  {
    const auto data = libraries.xoopen(reference, log);
    return data && data->rows() > 0 ? data->columns()[0].number(0) : -1.0;
  }
};

} // namespace

TEST(Libraries, WhereANameIsFound)
{
  Places s;
  s.in.write("One.csv", "x\n1\n");
  s.in.write("two.csv", "x\n2\n");
  s.other.write("three.csv", "x\n3\n");
  s.libraries.bind_library("Lib", s.other.path());
  EXPECT_EQ(s.first({"one", false, {}}), 1.0); // case differs from the file's
  EXPECT_EQ(s.first({"WORK.two", false, {}}), 2.0);
  EXPECT_EQ(s.first({"lib.THREE", false, {}}), 3.0);
  EXPECT_EQ(s.first({"two.csv", true, {}}), 2.0);
  EXPECT_EQ(s.first({s.other / "three.csv", true, {}}), 3.0);
  s.libraries.bind_data("two", s.other / "three.csv"); // the command line wins over the folder
  EXPECT_EQ(s.first({"two", false, {}}), 3.0);
  EXPECT_EQ(s.libraries.bound_names(), std::vector<std::string>{"two"});
  EXPECT_EQ(s.log.errors(), 0u);
}

TEST(Libraries, WhatIsNotFoundIsExplained)
{
  Places s;
  s.in.write("theoph.csv", "x\n1\n");
  EXPECT_FALSE(s.libraries.xoopen({"teoph", false, {}}, s.log));
  EXPECT_NE(s.log.text(9020).find("; perhaps theoph is meant"), std::string::npos) << s.log.text(9020);
  EXPECT_FALSE(s.libraries.xoopen({"lib.x", false, {}}, s.log));
  EXPECT_EQ(s.log.count(9021), 1);
  for (const char* bad : {"a.b.c", "../x", "", "a b", ".x", "1x"})
    EXPECT_FALSE(s.libraries.xoopen({bad, false, {}}, s.log)) << bad;
  EXPECT_EQ(s.log.count(9022), 6);
  EXPECT_FALSE(s.libraries.xoopen({"no.csv", true, {}}, s.log));
  EXPECT_EQ(s.log.count(9002), 1);
}

TEST(Libraries, OutputAppearsWhenClosedAndCanBeReadBackWithItsKinds)
{
  Places s;
  s.out.write("pred.csv", "old\n1\n");
  OutputDataSet* out =
      s.libraries.open_output({"Pred", false, *parse_data_set_options("drop=z rename=(y=w)", s.log)}, s.log);
  ASSERT_TRUE(out);
  const auto id = out->add_column("id", ColumnKind::character);
  const auto y = out->add_column("y", ColumnKind::numeric);
  out->add_column("z", ColumnKind::numeric);
  const auto again = out->add_column("Y", ColumnKind::numeric); // a name that is taken gets a number
  for (int i = 1; i <= 3; ++i) {
    out->set(id, "00" + std::to_string(i));
    if (i != 2) out->set(y, i * 0.1);
    out->set(again, 5.0);
    out->end_row();
  }
  EXPECT_EQ(s.out.read("pred.csv"), "old\n1\n");
  EXPECT_FALSE(s.libraries.open_output({"pred", false, {}}, s.log));
  EXPECT_EQ(s.log.count(9026), 1);
  ASSERT_EQ(s.libraries.xoclose(out, s.log), 0);
  EXPECT_EQ(s.out.read("pred.csv"), "id,w,Y2\n001,0.1,5\n002,,5\n003,0.30000000000000004,5\n");

  const auto back = s.libraries.xoopen({"pred", false, {}}, s.log);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->name, "work.pred");
  EXPECT_FALSE(back->columns()[0].numeric()); // a plain reading would make numbers of 001
  const auto written = s.libraries.take_written();
  ASSERT_EQ(written.size(), 1u);
  EXPECT_EQ(written[0].name + " " + written[0].path, "work.pred pred.csv");
  EXPECT_EQ(written[0].rows, 3u);
  EXPECT_TRUE(s.libraries.take_written().empty());
}

TEST(Libraries, WhatAnEarlyEndLeavesOpenIsWritten)
{
  Places s;
  for (const char* name : {"a", "b"}) {
    OutputDataSet* out = s.libraries.open_output({name, false, {}}, s.log);
    ASSERT_TRUE(out);
    out->add_column("x", ColumnKind::numeric);
    out->end_row();
  }
  EXPECT_EQ(s.libraries.close_all(s.log), 0);
  EXPECT_EQ(s.out.read("a.csv"), "x\n.\n");
  EXPECT_EQ(s.out.read("b.csv"), "x\n.\n");
}

TEST(Libraries, SqliteLibrariesReadAndWrite)
{
  Places s;
  const std::string path = s.other / "store.sqlite";
  s.libraries.bind_library("db", path); // made when first written
  OutputDataSet* out = s.libraries.open_output({"db.fits", false, {}}, s.log);
  ASSERT_TRUE(out) << s.log.messages()[0].text;
  out->set(out->add_column("x", ColumnKind::numeric), 2.5);
  out->end_row();
  ASSERT_EQ(s.libraries.xoclose(out, s.log), 0);
  EXPECT_EQ(sqlite_tables(path), std::vector<std::string>{"fits"});
  EXPECT_EQ(s.first({"db.FITS", false, {}}), 2.5);
  EXPECT_EQ(s.first({path, true, {}}), 2.5); // a path to a database with one table
  EXPECT_FALSE(s.libraries.xoopen({"db.fit", false, {}}, s.log));
  EXPECT_NE(s.log.text(9020).find("; perhaps fits is meant"), std::string::npos);
  s.libraries.bind_data("bound", path);
  EXPECT_EQ(s.first({"bound", false, {}}), 2.5);
}

TEST(Libraries, OutputThatCannotBeWrittenIsRefusedAtOnce)
{
  Places s;
  EXPECT_FALSE(s.libraries.open_output({"no/such/folder/x.csv", true, {}}, s.log));
  EXPECT_EQ(s.log.count(9012), 1);
  EXPECT_FALSE(s.libraries.open_output({"nolib.x", false, {}}, s.log));
  EXPECT_FALSE(s.libraries.open_output({"x", false, *parse_data_set_options("firstrow=2", s.log)}, s.log));
  EXPECT_EQ(s.log.count(9033), 1);
}

// Labels, formats, dates and WHERE= of an output data set, in both kinds of files; a later step finds them again.
TEST(Libraries, OutputKeepsLooksAndChoosesRows)
{
  Places s;
  s.libraries.bind_library("db", s.other / "store.sqlite");
  for (const char* name : {"pred", "db.pred"}) {
    OutputDataSet* out = s.libraries.open_output(
        {name, false, *parse_data_set_options("where=(y > 1 or id = 'b') rename=(y=w)", s.log)}, s.log);
    ASSERT_TRUE(out);
    const auto id = out->add_column("id", ColumnKind::character, "Who", "$QUOTE8.");
    const auto y = out->add_column("y", ColumnKind::numeric, "Predicted value", "8.2");
    const auto day = out->add_column("day", ColumnKind::numeric, "", "DATE9.");
    const auto fraction = out->add_column("half", ColumnKind::numeric, "", "DATE9.");
    for (int i = 0; i < 3; ++i) {
      out->set(id, std::string_view(i == 0 ? "a" : i == 1 ? "b" : "2024-01-01"));
      out->set(y, i);
      if (i != 1) out->set(day, 23406.0 + i);
      out->set(fraction, 0.5 * i);
      out->end_row();
    }
    ASSERT_EQ(s.libraries.xoclose(out, s.log), 0);
    const auto back = s.libraries.xoopen({name, false, {}}, s.log);
    ASSERT_TRUE(back);
    ASSERT_EQ(back->rows(), 2u);
    EXPECT_EQ(back->columns()[0].text(1), "2024-01-01"); // characters stay characters
    EXPECT_EQ(back->columns()[1].name() + back->columns()[1].label() + back->columns()[1].format(),
              "wPredicted value8.2");
    EXPECT_TRUE(back->columns()[2].is_missing(0));
    EXPECT_EQ(back->columns()[2].number(1), 23408.0);
    EXPECT_EQ(back->columns()[3].number(0), 0.5);
  }
  EXPECT_EQ(s.out.read("pred.csv"), "id,w,day,half\nb,1,,0.5\n2024-01-01,2,2024-02-02,1\n");
  OutputDataSet* out =
      s.libraries.open_output({"bad", false, *parse_data_set_options("where=(nothere > 1)", s.log)}, s.log);
  out->add_column("x", ColumnKind::numeric);
  EXPECT_EQ(s.libraries.xoclose(out, s.log), 3000);
  EXPECT_EQ(s.log.count(9024), 1);
  EXPECT_FALSE(std::filesystem::exists(s.out / "bad.csv"));
}

TEST(Libraries, AnInputIsNeverReplaced)
{
  Places s;
  s.out.write("trial.csv", "x\n1\n");
  s.libraries.bind_data("mine", s.out / "trial.csv");
  EXPECT_EQ(s.first({"mine", false, {}}), 1.0);
  EXPECT_FALSE(s.libraries.open_output({"trial", false, {}}, s.log));
  EXPECT_FALSE(s.libraries.open_output(
      {"../" + std::filesystem::path(s.out.path()).filename().string() + "/trial.csv", true, {}}, s.log));
  EXPECT_EQ(s.log.count(9500), 2);
  // What the run itself wrote may be written again, but not by the step that reads it.
  OutputDataSet* out = s.libraries.open_output({"pred", false, {}}, s.log);
  out->set(out->add_column("x", ColumnKind::numeric), 2.0);
  out->end_row();
  EXPECT_EQ(s.libraries.close_all(s.log), 0);
  EXPECT_EQ(s.first({"pred", false, {}}), 2.0);
  EXPECT_FALSE(s.libraries.open_output({"pred", false, {}}, s.log));
  EXPECT_EQ(s.libraries.close_all(s.log), 0);
  EXPECT_TRUE(s.libraries.open_output({"pred", false, {}}, s.log));
  EXPECT_FALSE(s.libraries.open_output({"trial", false, {}}, s.log)); // but the user's file never
}

TEST(Libraries, AFileThatCannotBeWrittenLeavesTheOldOne)
{
  Places s;
  OutputDataSet* out = s.libraries.open_output({"/dev/full", true, {}}, s.log);
  ASSERT_TRUE(out);
  out->add_column("x", ColumnKind::numeric);
  for (int i = 0; i < 100000; ++i) out->end_row();
  EXPECT_EQ(s.libraries.xoclose(out, s.log), 1016);
  EXPECT_EQ(s.log.count(9012), 1);
  EXPECT_TRUE(s.libraries.take_written().empty());

  // A view of the same name in a database cannot be replaced by a table.
  const std::string path = s.other / "store.sqlite";
  s.libraries.bind_library("db", path);
  out = s.libraries.open_output({"db.kept", false, {}}, s.log);
  out->set(out->add_column("x", ColumnKind::numeric), 7.0);
  out->end_row();
  ASSERT_EQ(s.libraries.xoclose(out, s.log), 0);
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, "CREATE VIEW v AS SELECT * FROM kept", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
  out = s.libraries.open_output({"db.v", false, {}}, s.log);
  out->add_column("y", ColumnKind::numeric);
  EXPECT_EQ(s.libraries.xoclose(out, s.log), 1016);
  EXPECT_EQ(s.log.count(9012), 2);
  EXPECT_FALSE(s.libraries.xoopen({"db.v", false, {}}, s.log)); // the old one is no result of this run
  EXPECT_EQ(s.log.count(9442), 1);
  Places later;
  later.libraries.bind_library("db", path);
  EXPECT_EQ(later.first({"db.v", false, {}}), 7.0);
}

} // namespace torvale::host
