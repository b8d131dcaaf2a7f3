#include "host/data/csv.h"
#include "host/storage/run_output.h"
#include "host/values/text.h"
#include "support.h"
#include <bit>
#include <charconv>
#include <cmath>
#include <random>
#include <sys/stat.h>
#include <thread>

namespace torvale::host {

namespace {

std::string column_text(const Column& c)
{
  std::string out = c.numeric() ? "n:" : "c:";
  for (std::size_t i = 0; i < c.rows(); ++i) {
    if (i > 0) out += '|';
    out += c.shown(i);
  }
  return out;
}

} // namespace

TEST(CsvRead, FormsOfAFile)
{
  const struct {
    const char* what;
    const char* text;
    std::vector<const char*> columns;
  } cases[] = {
      {"plain", "a,b\n1,x\n2,y\n", {"n:1|2", "c:x|y"}},
      {"no line end at the end", "a,b\n1,x\n2,y", {"n:1|2", "c:x|y"}},
      {"CRLF and byte order mark",
       "\xEF\xBB\xBF"
       "a,b\r\n1,x\r\n2,y\r\n",
       {"n:1|2", "c:x|y"}},
      {"CR alone", "a,b\r1,x\r2,y\r", {"n:1|2", "c:x|y"}},
      {"empty lines", "\n\na,b\n\n1,x\n\n\n", {"n:1", "c:x"}},
      {"quotes", "a,b\n\"1\",\"x, \"\"y\"\"\nz\"\n2,\"\"\n", {"n:1|2", "c:x, \"y\"\nz|"}},
      {"quote inside a plain field", "a\n5\" pipe\n", {"c:5\" pipe"}},
      {"missing values", "a,b\n,\n.,.\n.A,\n3,q\n", {"n:.|.|.A|3", "c:|||q"}},
      {"all missing is numeric", "a\n.\n.\n", {"n:.|."}},
      {"blanks around numbers", "a,b\n 1 , 2\n", {"n:1", "n:2"}},
      {"text late keeps spellings", "a\n007\n1e3\n.A\nx\n", {"c:007|1e3|.A|x"}},
      {"text after missing", "a\n\n.\n.\nx\n5\n", {"c:||x|5"}},
      {"too large for a double", "a\n1\n1e999\n", {"c:1|1e999"}},
      {"missing codes", "a,b,c\nNA,nan,null\n1,2024-01-31,x\n-,N/A,NA\n", {"n:.|1|.", "n:.|23406|.", "c:null|x|NA"}},
      {"only missing codes", "a\nNA\nNA\n", {"n:.|."}},
      {"semicolons and decimal commas", "a;b;c\n1,5;x,y;1\n-,25;z;2.5\n", {"n:1.5|-0.25", "c:x,y|z", "n:1|2.5"}},
      {"decimal points and commas are no numbers", "a;b\n1,5;1.234,5\n2.5;1,5\n", {"c:1,5|2.5", "c:1.234,5|1,5"}},
      {"tabs", "a\tb\n1\tx y\n\t\n", {"n:1|.", "c:x y|"}},
      {"bars", "a|b\n1|2\n", {"n:1", "n:2"}},
      {"separator in the first line", "sep=;\na,1;b\n1;2\n", {"n:1", "n:2"}},
      {"commas within quoted names", "\"a, mg\";b;\"c, l\"\n1;2;3\n", {"n:1", "n:2", "n:3"}},
      {"times and moments",
       "t,m,x\n09:30,2024-01-31T00:00:01,09:30\n,,2024-01-31\n",
       {"n:34200|.", "n:2022278401|.", "c:09:30|2024-01-31"}},
      {"dates after numbers are texts", "a\n1\n2024-01-31\n", {"c:1|2024-01-31"}},
      {"what a statistics program writes",
       "\"\",\"y\",\"g\"\n\"1\",0.5,\"a\"\n\"2\",NA,\"b\"\n\"3\",1e-04,NA\n",
       {"n:1|2|3", "n:0.5|.|1e-04", "c:a|b|NA"}},
      {"no rows", "a,b\n", {"n:", "n:"}},
      {"blanks around texts fall away, quotes keep those before", "a,b\n  x  ,\"  y  \"\n", {"c:x", "c:  y"}},
      {"names in quotes", "\"a\",\"b c\"\n1,2\n", {"n:1", "n:2"}},
      {"blanks behind a closing quote", "a,b\n\"x\" ,1\n", {"c:x", "n:1"}},
  };
  for (const auto& c : cases) {
    CaughtMessages log;
    const auto data = read_csv_text(c.text, "t.csv", log);
    ASSERT_TRUE(data) << c.what << ": " << (log.messages().empty() ? "" : log.messages()[0].text);
    ASSERT_EQ(data->columns().size(), c.columns.size()) << c.what;
    for (std::size_t i = 0; i < c.columns.size(); ++i)
      EXPECT_EQ(column_text(data->columns()[i]), c.columns[i]) << c.what;
  }
}

TEST(CsvRead, FaultsNameFileLineAndColumn)
{
  const struct {
    const char* text;
    int number;
    const char* part;
  } cases[] = {
      {"a,b\n1,2\n3\n", 9003, "file line 3"},
      {"a,b\n1,\"x\ny\"\n3,4,5\n", 9003, "file line 4"}, // a line end inside quotes counts
      {"a,b\n1,2,\n", 9003, "Row 1 has 3 fields"},
      {"a,b\n1,\"2\n3,4\n", 9005, "column b has no closing quote (file t.csv, file line 2)"},
      {"a,b\n\"1\"x,2\n", 9006, "column a"},
      {"", 9008, "t.csv"},
      {"\n\n", 9008, "t.csv"},
      {"a,B,b\n1,2,3\n", 9004, "column b twice, as columns 2 and 3"},
      {"\xFF\xFE"
       "a\0",
       9007, "t.csv"},
  };
  for (const auto& c : cases) {
    CaughtMessages log;
    EXPECT_FALSE(read_csv_text(c.text, "t.csv", log)) << c.text;
    ASSERT_EQ(log.count(c.number), 1) << c.text;
    EXPECT_NE(log.text(c.number).find(c.part), std::string::npos) << log.text(c.number);
    EXPECT_TRUE(log.has_errors());
  }
  CaughtMessages log;
  EXPECT_FALSE(read_csv_text(std::string_view("a\n1\0\n", 5), "t.csv", log));
  EXPECT_EQ(log.count(9007), 1);
  EXPECT_FALSE(read_csv("/nonexistent/t.csv", log));
  EXPECT_FALSE(read_csv("/", log));
  EXPECT_EQ(log.count(9002), 2);
}

TEST(CsvRead, NotesOnWhatAReaderWouldMiss)
{
  CaughtMessages log;
  ASSERT_TRUE(read_csv_text("y,id,big,t,,z\n1,007,12345678901234567890,a,1,1\nhigh,8,1,"
                            "b,1,NA\n3,9,9007199254740992,5,1,2\nhigh,1,2,6,1,-\n",
                            "t.csv", log));
  EXPECT_NE(log.text(9010).find("Column y of t.csv holds numbers but for the "
                                "text \"high\" (2 times, first in row 2)"),
            std::string::npos);
  EXPECT_EQ(log.count(9010), 1); // column t has two spellings: an honest text column
  EXPECT_NE(log.text(9011).find("Column id"), std::string::npos);
  EXPECT_EQ(log.count(9016), 1);
  EXPECT_NE(log.text(9016).find("Column big of t.csv"), std::string::npos);
  EXPECT_NE(log.text(9009).find("VAR5"), std::string::npos);
  EXPECT_NE(log.text(9501).find("2 fields of t.csv are codes of missing values: z (\"NA\" in row 2)"),
            std::string::npos);
  ASSERT_TRUE(read_csv_text("a;b;c\n1,5;2.5;1,5\n1;2;1.5\n", "t.csv", log));
  EXPECT_EQ(log.count(9013), 1);
  EXPECT_NE(log.text(9502).find("Column c"), std::string::npos);
  EXPECT_NE(log.text(9503).find("Column b"), std::string::npos);
}

TEST(CsvRead, KindsThatAreAskedFor)
{
  CaughtMessages log;
  const auto data = read_csv_text("A,b\n1,x\n02,5\n", "t.csv", log,
                                  {.kinds = {{"a", ColumnKind::character}, {"b", ColumnKind::numeric}}});
  ASSERT_TRUE(data);
  EXPECT_EQ(column_text(data->columns()[0]), "c:1|02");
  EXPECT_EQ(column_text(data->columns()[1]), "n:.|5");
  EXPECT_EQ(log.count(9014), 1);
}

TEST(CsvRead, SeparatorDecimalSignAndMissingCodesCanBeGiven)
{
  CaughtMessages log;
  const auto data = read_csv_text("a;b,c:d\n1;-99,x:-99,0\n2,5;3,bad:4\n", "t.csv", log,
                                  {.separator = ':', .decimal = ',', .missing = {"-99", "bad"}});
  ASSERT_TRUE(data);
  ASSERT_EQ(data->columns().size(), 2u);
  EXPECT_EQ(column_text(data->columns()[0]), "c:1;-99,x|2,5;3,bad");
  EXPECT_EQ(column_text(data->columns()[1]),
            "n:.|4"); // a code that is a number is one in any spelling
}

// Numbers are read to the last bit, by the short road and the long one; blocks
// and threads change nothing.
TEST(CsvRead, ManyBlocksOnAnyNumberOfThreads)
{
  std::mt19937_64 random(5);
  std::string text = "n,s,d,late,q\n";
  std::vector<double> numbers;
  constexpr int rows = 240000; // three blocks
  for (int i = 0; i < rows; ++i) {
    const double v = i % 3 == 0 ? static_cast<double>(random() % 100000) / 1000.0
                     : i % 3 == 1
                         ? std::ldexp(static_cast<double>(random() % (1u << 30)), static_cast<int>(random() % 80) - 40)
                         : static_cast<double>(random() % 2000) - 1000;
    numbers.push_back(v);
    append_shortest(text, v);
    text += i % 2 ? ",even," : ",odd,";
    append_iso(text, 20000 + i % 4000, Moment::date);
    text += i == rows - 5 ? ",x" : i < 100 ? "," : ",0" + std::to_string(i % 10);
    text += ",\"two\nlines, \"\"" + std::to_string(i % 7) + "\"\n";
  }
  for (const int threads : {1, 2, 5}) {
    CaughtMessages log;
    const auto data = read_csv_text(text, "t.csv", log, {.threads = threads});
    ASSERT_TRUE(data);
    ASSERT_EQ(data->rows(), static_cast<std::size_t>(rows));
    for (std::size_t i = 0; i < data->rows(); ++i) {
      ASSERT_EQ(data->columns()[0].number(i), numbers[i]) << i;
      ASSERT_EQ(data->columns()[2].number(i), 20000.0 + static_cast<double>(i % 4000));
    }
    EXPECT_EQ(data->columns()[1].text(rows - 1), "even");
    EXPECT_EQ(data->columns()[2].format(), "YYMMDD10.");
    EXPECT_EQ(data->columns()[3].text(99), "");
    EXPECT_EQ(data->columns()[3].text(101),
              "01"); // the spelling, though three blocks of numbers stand above
                     // the text
    EXPECT_EQ(data->columns()[3].text(rows - 5), "x");
    EXPECT_EQ(data->columns()[4].text(8), "two\nlines, \"1");
    EXPECT_EQ(log.count(9010), 1);
    EXPECT_FALSE(read_csv_text(text + "1,2\n", "t.csv", log, {.threads = threads}));
    EXPECT_NE(log.text(9003).find("Row 240001 has 2 fields"), std::string::npos) << log.text(9003);
    EXPECT_NE(log.text(9003).find("file line 480002"), std::string::npos) << log.text(9003);
  }
}

// Every way of writing digits gives the double that the library's own reading of the same characters gives: short and
// long fields, with many zeros, and the middles between two doubles with a digit more or less.
TEST(CsvRead, NumbersAreRoundedCorrectly)
{
  std::mt19937_64 random(11);
  std::vector<std::string> spelled = {"0", "-0", "-0.0", ".5", "-.5", "5.", "0.000000000000000000000001", "00.10"};
  for (int i = 0; i < 60000; ++i) {
    std::string text = random() % 2 ? "-" : "";
    const std::size_t digits = 1 + random() % 24, point = random() % (digits + 1);
    const std::size_t zeros = random() % 4 == 0 ? random() % digits : 0;
    for (std::size_t k = 0; k < digits; ++k) {
      if (k == point) text += '.';
      text += static_cast<char>('0' + (k < zeros ? 0 : random() % 10));
    }
    spelled.push_back(std::move(text));
    const double x = std::ldexp(static_cast<double>(random() >> 11), -44 - static_cast<int>(random() % 20));
    char places[80];
    const auto end = std::to_chars(places, places + sizeof places, x, std::chars_format::fixed, 18).ptr;
    spelled.emplace_back(places, end);
  }
  for (int i = 0; i < 2000; ++i) // doubles from 2^52 on are whole: the middles end in .5
    for (const char* tail : {".5", ".49", ".51", ".0"})
      spelled.push_back(std::to_string((std::uint64_t{1} << 52) + random() % (std::uint64_t{1} << 52)) + tail);
  std::string text = "x\n";
  for (const std::string& number : spelled) text += number + "\n";
  CaughtMessages log;
  const auto data = read_csv_text(text, "t.csv", log);
  ASSERT_TRUE(data);
  ASSERT_EQ(data->rows(), spelled.size());
  ASSERT_TRUE(data->columns()[0].numeric());
  for (std::size_t i = 0; i < spelled.size(); ++i) {
    double expected = 0.0;
    const std::string& number = spelled[i];
    ASSERT_EQ(std::from_chars(number.data(), number.data() + number.size(), expected).ec, std::errc()) << number;
    ASSERT_EQ(std::bit_cast<std::uint64_t>(data->columns()[0].number(i)), std::bit_cast<std::uint64_t>(expected))
        << number;
  }
}

TEST(CsvRead, PipesWorkbooksAndOtherEncodings)
{
  ScratchFolder folder;
  CaughtMessages log;
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::thread writer([&] { std::ofstream(pipe) << "a,b\n1,2\n007,x\n5,1\n"; }); // b needs a second look
  const auto data = read_csv(pipe, log);
  writer.join();
  ASSERT_TRUE(data);
  EXPECT_EQ(column_text(data->columns()[1]), "c:2|x|1");
  folder.write("a.csv", "PK\x03\x04 and so on");
  folder.write("b.csv", "\xD0\xCF\x11\xE0 and so on");
  folder.write("c.csv", std::string("\xFF\xFE"
                                    "a\0,\0b\0",
                                    8));
  for (const char* name : {"a.csv", "b.csv", "c.csv"}) EXPECT_FALSE(read_csv(folder / name, log));
  EXPECT_EQ(log.count(9002), 3);
  EXPECT_NE(log.text(9002).find("workbook"), std::string::npos);
}

TEST(CsvRead, LongNamesAreCutAndMustStayDifferent)
{
  CaughtMessages log;
  const std::string stem(32, 'x');
  EXPECT_FALSE(read_csv_text(stem + "1," + stem + "2\n1,2\n", "t.csv", log));
  EXPECT_EQ(log.count(9004), 1);
}

// Values of every kind come back bit by bit through plain, gzip and zstd files.
TEST(CsvRoundTrip, SameValuesThroughEveryForm)
{
  std::mt19937_64 bits(3);
  DataSet data;
  Column& x = data.add(Column("x", ColumnKind::numeric));
  for (int i = 0; i < 3000; ++i) {
    const double v = std::bit_cast<double>(bits());
    x.append(i % 7 == 0 ? special_missing("_.AQZ"[i % 5]) : std::isinf(v) ? 1.0 : v);
  }
  Column& s = data.add(Column("s", ColumnKind::character));
  const char* texts[] = {"", "a", "a,b", "say \"no\"", "two\nlines", " lead", "\xC3\xA9", "\"", "end\r"};
  for (int i = 0; i < 3000; ++i) s.append(std::string_view(texts[bits() % std::size(texts)]));

  ScratchFolder folder;
  for (const char* name : {"d.csv", "d.csv.gz", "d.csv.zst"}) {
    CaughtMessages log;
    ASSERT_EQ(write_csv(data, folder / name, log), 0);
    const auto back = read_csv(folder / name, log);
    ASSERT_TRUE(back) << name;
    ASSERT_EQ(back->rows(), data.rows());
    for (std::size_t i = 0; i < data.rows(); ++i) {
      const double a = data.columns()[0].number(i), b = back->columns()[0].number(i);
      ASSERT_EQ(std::bit_cast<std::uint64_t>(a), std::bit_cast<std::uint64_t>(b)) << name << " row " << i;
      ASSERT_EQ(data.columns()[1].text(i), back->columns()[1].text(i)) << name << " row " << i;
    }
  }
  EXPECT_LT(std::filesystem::file_size(folder / "d.csv.gz"), std::filesystem::file_size(folder / "d.csv"));
}

TEST(CsvRoundTrip, OneColumnOfMissingValuesKeepsItsRows)
{
  DataSet data;
  data.add(Column("x", ColumnKind::numeric));
  for (int i = 0; i < 3; ++i) data.columns()[0].append_missing();
  DataSet texts;
  texts.add(Column("s", ColumnKind::character));
  for (const char* s : {"", "b", ""}) texts.columns()[0].append(std::string_view(s));
  ScratchFolder folder;
  for (const DataSet* set : {&data, &texts}) {
    CaughtMessages log;
    ASSERT_EQ(write_csv(*set, folder / "d.csv", log), 0);
    const auto back = read_csv(folder / "d.csv", log);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->rows(), 3u);
  }
}

TEST(CsvRead, DamagedCompressedFilesAreFaults)
{
  DataSet data;
  data.add(Column("x", ColumnKind::numeric));
  for (int i = 0; i < 5000; ++i) data.columns()[0].append(i * 0.1);
  ScratchFolder folder;
  for (const char* name : {"d.csv.gz", "d.csv.zst"}) {
    CaughtMessages log;
    ASSERT_EQ(write_csv(data, folder / name, log), 0);
    const std::string bytes = folder.read(name);
    folder.write(name, bytes.substr(0, bytes.size() / 2));
    EXPECT_FALSE(read_csv(folder / name, log)) << name;
    EXPECT_EQ(log.count(9002), 1) << name;
    folder.write(name,
                 bytes + bytes); // two members, one after the other: legal, the second one a row of names too many
    log = {};
    const auto twice = read_csv(folder / name, log);
    ASSERT_TRUE(twice) << name;
    EXPECT_EQ(twice->rows(), 10001u);
  }
}

// Records that straddle the read buffer, quoted and plain, with sizes around its length.
TEST(CsvRead, LongFieldsAcrossTheBuffer)
{
  for (const std::size_t size : {(1u << 18) - 5, (1u << 18) - 1, 1u << 18, (1u << 18) + 1, 600000u}) {
    const std::string field(size, 'z');
    CaughtMessages log;
    const auto data = read_csv_text("a,b\n\"" + field + "\"\"q\",1\n" + field + ",2\r\nx,3\n", "t.csv", log);
    ASSERT_TRUE(data);
    EXPECT_EQ(data->columns()[0].text(0), field + "\"q");
    EXPECT_EQ(data->columns()[0].text(1), field);
    EXPECT_EQ(column_text(data->columns()[1]), "n:1|2|3");
  }
}

// Any bytes give a data set or an error message, and what is accepted survives writing and reading.
TEST(CsvRead, RandomBytesNeverCrash)
{
  std::mt19937 random(17);
  constexpr std::string_view alphabet = "ab1.,,,\"\"\n\n\r 9-eA\xC3\xA9";
  int accepted = 0;
  ScratchFolder folder;
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (std::size_t n = random() % 40; n > 0; --n) text += alphabet[random() % alphabet.size()];
    CaughtMessages log;
    const auto data = read_csv_text(text, "t.csv", log);
    if (!data) {
      ASSERT_TRUE(log.has_errors()) << text;
      continue;
    }
    ++accepted;
    if (round % 20 != 0) continue;
    ColumnKinds kinds;
    for (const Column& c : data->columns()) {
      ASSERT_EQ(c.rows(), data->rows()) << text;
      kinds[wzstrlo(c.name())] = c.kind();
    }
    ASSERT_EQ(write_csv(*data, folder / "r.csv", log), 0);
    const auto back = read_csv(folder / "r.csv", log, {.kinds = kinds, .separator = ',', .decimal = '.'});
    ASSERT_TRUE(back) << text;
    ASSERT_EQ(back->rows(), data->rows()) << text;
    for (std::size_t i = 0; i < data->columns().size(); ++i)
      ASSERT_EQ(column_text(back->columns()[i]), column_text(data->columns()[i])) << text;
  }
  EXPECT_GT(accepted, 1000);
}

} // namespace torvale::host
