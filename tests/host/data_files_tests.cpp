// Data files as people have them: what each is read as, or which message refuses it.
#include "host/data/libraries.h"
#include "support.h"

namespace torvale::host {

namespace {

struct DataFile {
  const char* what;
  const char* options; // of the data set
  std::string bytes;
  const char* read_as; // per column its name, kind and values; then the numbers of the messages
};

const DataFile files[] = {
    // clang-format off
    {"R: write.csv with row names and NA", "", "\"\",\"subject\",\"dose\",\"conc\"\n\"1\",1,4.02,NA\n\"2\",1,4.02,2.84\n\"3\",2,NA,10.5\n",
     "VAR1 number: 1|2|3; subject number: 1|1|2; dose number: 4.02|4.02|.; conc number: .|2.84|10.5 [9009] [9501]"},
    {"R: write.csv without row names", "", "\"Subject\",\"Sex\",\"y\"\n\"S01\",\"F\",1.5\n\"S02\",NA,NA\n",
     "Subject text: S01|S02; Sex text: F|NA; y number: 1.5|. [9501]"},
    {"R: write.csv2", "", "\"id\";\"y\";\"name\"\n1;0,74;\"a\"\n2;NA;\"b\"\n",
     "id number: 1|2; y number: 0.74|.; name text: a|b [9013] [9501]"},
    {"R: write.table with tabs, no quotes", "", "id\ttime\ty\n1\t0\t1.2e-05\n1\t0.5\t3\n",
     "id number: 1|1; time number: 0|0.5; y number: 1.2e-05|3 [9013]"},
    {"R: factors, logicals", "", "\"g\",\"ok\"\n\"low\",TRUE\n\"high\",FALSE\n",
     "g text: low|high; ok text: TRUE|FALSE"},
    {"R: dates and date-times", "", "\"d\",\"t\"\n2024-02-28,2024-02-28 23:59:59\n2024-02-29,NA\n",
     "d YYMMDD10.: 23434|23435; t ISODT19.: 2024783999|. [9501]"},
    {"R: Inf and NaN", "", "\"x\"\n1\nInf\nNaN\n",
     "x text: 1|Inf|NaN [9010]"},
    {"R: a column of NA only", "", "\"a\",\"b\"\n1,NA\n2,NA\n",
     "a number: 1|2; b number: .|. [9501]"},
    {"Python: to_csv with index and empty fields", "", ",subject,weight\n0,1,70.5\n1,2,\n",
     "VAR1 number: 0|1; subject number: 1|2; weight number: 70.5|. [9009]"},
    {"Python: None and nan", "", "x,s\n1.0,a\nnan,None\n",
     "x number: 1|.; s text: a|None [9501]"},
    {"Python: time stamps with microseconds", "", "t\n2024-01-31 13:30:15.250000\n2024-01-31 13:30:16.000000\n",
     "t ISODT19.: 2022327015.25|2022327016"},
    {"Python: booleans", "", "b\nTrue\nFalse\n",
     "b text: True|False"},
    {"spreadsheet, German: semicolons, decimal commas, CRLF", "", "Patient;Gewicht;Datum\r\n1;70,5;2024-01-31\r\n2;;2024-02-01\r\n",
     "Patient number: 1|2; Gewicht number: 70.5|.; Datum YYMMDD10.: 23406|23407 [9013]"},
    {"spreadsheet, German: dates with points", "", "id;datum\r\n1;31.01.2024\r\n2;01.02.2024\r\n",
     "id number: 1|2; datum text: 31.01.2024|01.02.2024 [9013] [9509]"},
    {"spreadsheet, German: thousands", "", "x;y\r\n1.234,5;1\r\n2.345,5;2\r\n",
     "x text: 1.234,5|2.345,5; y number: 1|2 [9013] [9509]"},
    {"spreadsheet, American: thousands in quotes", "", "x,y\r\n\"1,234.5\",1\r\n\"2,345.5\",2\r\n",
     "x text: 1,234.5|2,345.5; y number: 1|2 [9509]"},
    {"spreadsheet, American: dates with slashes", "", "d,y\r\n1/31/2024,1\r\n2/1/2024,2\r\n",
     "d text: 1/31/2024|2/1/2024; y number: 1|2 [9509]"},
    {"spreadsheet: UTF-8 with a byte order mark", "", "\xEF\xBB\xBFid,name\r\n1,M\xC3\xBCller\r\n",
     "id number: 1; name text: M\xC3\xBCller"},
    {"spreadsheet: a line that names the separator", "", "sep=;\r\na;b\r\n1;2\r\n",
     "a number: 1; b number: 2 [9013]"},
    {"spreadsheet: empty columns at the right", "", "a,b,,\r\n1,2,,\r\n3,4,,\r\n",
     "a number: 1|3; b number: 2|4; VAR3 number: .|.; VAR4 number: .|. [9009] [9009]"},
    {"spreadsheet: empty rows of separators at the end", "", "a,b\r\n1,2\r\n,\r\n,\r\n",
     "a number: 1|.|.; b number: 2|.|."},
    {"spreadsheet: currency", "", "x\r\n$1.50\r\n$2.25\r\n",
     "x text: $1.50|$2.25 [9509]"},
    {"spreadsheet: currency with thousands, debts and a hole", "", "x,y\r\n\"$1,234.50\",1\r\n-$2.25,2\r\n,3\r\n",
     "x text: $1,234.50|-$2.25|; y number: 1|2|3 [9509]"},
    {"simulation: exponents with D", "", "x,y\n0.15D+03,1\n-1.5d-02,2\n2.5,3\n",
     "x text: 0.15D+03|-1.5d-02|2.5; y number: 1|2|3 [9509]"},
    {"spreadsheet: percent signs", "", "p\r\n12%\r\n15%\r\n",
     "p text: 12%|15% [9509]"},
    {"spreadsheet: an error in a cell", "", "x,y\r\n1,2\r\n#N/A,3\r\n",
     "x text: 1|#N/A; y number: 2|3 [9010]"},
    {"spreadsheet: UTF-16 text", "", std::string("\xFF\xFEi\x00" "d\x00\n\x00", 8),
     "[9002]"},
    {"spreadsheet: a workbook under the name of a CSV file", "", std::string("PK\x03\x04\x14\x00\x06\x00", 8),
     "[9002]"},
    {"spreadsheet: an old workbook", "", "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1",
     "[9002]"},
    {"Macintosh line ends", "", "a,b\r1,x\r2,y\r",
     "a number: 1|2; b text: x|y"},
    {"a text of two lines in quotes", "", "id,note\n1,\"first\nsecond\"\n2,\"a \"\"quote\"\"\"\n",
     "id number: 1|2; note text: first\nsecond|a \"quote\""},
    {"Latin 1 text", "", "id,name\n1,M\xFCller\n",
     "id number: 1; name text: M\xC3\xBCller [9510]"},
    {"Latin 1 names, texts in two encodings", "", "id,gr\xF6\xDF" "e\n1,a\n2,M\xFCller\n3,M\xC3\xBCller\n4,\x80\n",
     "id number: 1|2|3|4; gr\xC3\xB6\xC3\x9F" "e text: a|M\xC3\xBCller|M\xC3\xBCller|\xE2\x82\xAC [9510]"},
    {"clinical export: points for missing values", "", "ID TIME DV\n1 0 .\n1 1 4.2\n",
     "ID TIME DV text: 1 0 .|1 1 4.2 [9511]"},
    {"clinical export: columns of fixed width", "separator=' '", "  ID  TIME    DV\n   1   0.0     .  \n   1   1.5   4.2\n  12  10.0  \"x y\"\n",
     "ID number: 1|1|12; TIME number: 0|1.5|10; DV text: |4.2|x y [9010]"},
    {"clinical export: points and commas", "", "ID,TIME,DV\n1,0,.\n1,1,4.2\n2,.A,3\n",
     "ID number: 1|1|2; TIME number: 0|1|.A; DV number: .|4.2|3"},
    {"clinical export: below the limit", "", "ID,DV\n1,3.1\n1,<0.5\n2,4\n",
     "ID number: 1|1|2; DV text: 3.1|<0.5|4 [9010]"},
    {"clinical export: -99 for missing values", "missing=(-99)", "id,y\n1,-99\n2,3.5\n",
     "id number: 1|2; y number: .|3.5 [9501]"},
    {"clinical export: words for missing values", "missing=('n.d.' 'not done')", "id,y\n1,n.d.\n2,3.5\n3,not done\n",
     "id number: 1|2|3; y number: .|3.5|. [9501]"},
    {"clinical export: subjects with leading zeros", "", "subject,y\n001,1\n010,2\n",
     "subject number: 1|10; y number: 1|2 [9011]"},
    {"clinical export: subjects with letters", "", "subject,y\nA-01,1\nA-02,2\n",
     "subject text: A-01|A-02; y number: 1|2"},
    {"clinical export: long numbers of subjects", "", "subject,y\n12345678901234567890,1\n12345678901234567891,2\n",
     "subject number: 12345678901234567168|12345678901234567168; y number: 1|2 [9016]"},
    {"clinical export: clock times", "", "time,y\n08:00,1\n24:00,2\n08:15:30,3\n",
     "time text: 08:00|24:00|08:15:30; y number: 1|2|3 [9010]"},
    {"clinical export: moments with a zone", "", "t\n2024-01-31T13:30:15Z\n2024-02-01T00:00:00Z\n",
     "t ISODT19.: 2022327015|2022364800"},
    {"clinical export: month names", "", "d\n31JAN2024\n01FEB2024\n",
     "d text: 31JAN2024|01FEB2024 [9509]"},
    {"clinical export: dates with a hole", "", "d,y\n2024-01-31,1\n,2\n2024-02-30,3\n",
     "d text: 2024-01-31||2024-02-30; y number: 1|2|3 [9010]"},
    {"clinical export: null", "", "id,y\n1,null\n2,NULL\n3,5\n",
     "id number: 1|2|3; y number: .|.|5 [9501]"},
    {"clinical export: dashes", "", "id,y\n1,-\n2,5\n",
     "id number: 1|2; y number: .|5 [9501]"},
    {"database: bars", "", "id|name|y\n1|Smith, J|2\n2|Doe|3\n",
     "id number: 1|2; name text: Smith, J|Doe; y number: 2|3 [9013]"},
    {"database: bars and blanks around", "", "id | y\n 1 | 2.5\n 2 | 3.5\n",
     "id number: 1|2; y number: 2.5|3.5 [9013]"},
    {"database: an SQL NULL in a column of texts", "", "id,name\n1,NULL\n2,x\n",
     "id number: 1|2; name text: NULL|x"},
    {"data logger: a name for every unit", "", "Time (h),Conc. [mg/L],\"Weight, kg\"\n0,1,70\n1,2,70\n",
     "Time (h) number: 0|1; Conc. [mg/L] number: 1|2; Weight, kg number: 70|70"},
    {"data logger: exponents of the old kind", "", "x\n1.5D+02\n2.5D-01\n",
     "x text: 1.5D+02|2.5D-01 [9509]"},
    {"data logger: plus signs", "", "x\n+1.5\n-2\n",
     "x number: 1.5|-2"},
    {"data logger: hexadecimal", "", "x\n0x1F\n10\n",
     "x text: 0x1F|10 [9010]"},
    {"data logger: blanks between columns", "", "a b\n1 2\n3 4\n",
     "a b text: 1 2|3 4 [9511]"},
    {"data logger: one column whose name has a unit", "", "Time (h)\n0.5\n1\n",
     "Time (h) number: 0.5|1"},
    {"data logger: a comment above", "", "# made by logger 3\na,b\n1,2\n",
     "[9003]"},
    {"by hand: blanks behind commas", "", "id, sex, y\n1, F, 2.5\n2, M, 3\n",
     "id number: 1|2; sex text: F|M; y number: 2.5|3"},
    {"by hand: a missing field", "", "a,b,c\n1,2,3\n4,5\n",
     "[9003]"},
    {"by hand: one field too many", "", "a,b\n1,2\n3,4,5\n",
     "[9003]"},
    {"by hand: the same name twice", "", "y,x,Y\n1,2,3\n",
     "[9004]"},
    {"by hand: a quote that is not closed", "", "a,b\n1,\"x\n2,y\n",
     "[9005]"},
    {"by hand: no rows", "", "a,b\n",
     "a number:; b number:"},
    {"by hand: nothing", "", "",
     "[9008]"},
    {"by hand: empty lines everywhere", "", "\n\na,b\n\n1,2\n\n\n3,4\n\n",
     "a number: 1|3; b number: 2|4"},
    {"by hand: no line end at the end", "", "a,b\n1,2",
     "a number: 1; b number: 2"},
    {"by hand: a letter O among zeros", "", "x\n10\n2O\n30\n",
     "x text: 10|2O|30 [9010]"},
    {"by hand: a decimal comma in a file with commas", "", "x,y\n\"1,5\",2\n\"2,5\",3\n",
     "x text: 1,5|2,5; y number: 2|3 [9509]"},
    {"by hand: points and commas mixed", "", "x;y\n1,5;1\n2.5;2\n",
     "x text: 1,5|2.5; y number: 1|2 [9013] [9502]"},
    {"by hand: semicolons with decimal points", "", "x;y\n1.5;1\n2.5;2\n",
     "x number: 1.5|2.5; y number: 1|2 [9013]"},
    {"by hand: told what the separator is", "separator='*'", "x*y\n1*2\n3*4\n",
     "x number: 1|3; y number: 2|4"},
    {"by hand: told that the comma is decimal", "decimal=','", "x\ty\n1,5\t2\n1.234\t3\n",
     "x text: 1,5|1.234; y number: 2|3 [9013] [9010]"},
    // clang-format on
};

std::string kind_of(const Column& column)
{
  if (!column.numeric()) return "text";
  return column.format().empty() ? "number" : column.format();
}

// What was read, in one line.
std::string reading_of(const std::optional<DataSet>& data, const CaughtMessages& log)
{
  std::string out;
  if (data)
    for (const Column& column : data->columns()) {
      out += (out.empty() ? "" : "; ") + column.name() + " " + kind_of(column) + ":";
      for (std::size_t row = 0; row < column.rows(); ++row) out += (row == 0 ? " " : "|") + column.shown(row);
    }
  for (const Message& message : log.messages())
    if (message.number != 9015) out += (out.empty() ? "" : " ") + ("[" + std::to_string(message.number) + "]");
  return out;
}

} // namespace

TEST(DataFiles, AreReadAsTheyWereMeantOrRefused)
{
  for (const DataFile& file : files) {
    ScratchFolder folder;
    CaughtMessages log;
    folder.write("file.csv", file.bytes);
    Libraries libraries{{folder.path(), folder.path()}};
    const auto options = parse_data_set_options(file.options, log);
    ASSERT_TRUE(options) << file.what;
    EXPECT_EQ(reading_of(libraries.xoopen({"file", false, *options}, log), log), file.read_as) << file.what;
  }
}

} // namespace torvale::host
