// Macros, loops of text, included files.
#include "parse_text.h"

namespace torvale::language::test {

TEST(Macros, ReplaceTheirParameters)
{
  EXPECT_EQ(program_of("%macro m(a=, b = 7, c=x y); &a = &b; &a.1 = &b.&b; t&a.&b = &c; %mend m; %m(a=p, c=q+r) "
                       "%m(b=2, a=z, c=x*y);"),
            "p = 7;\np1 = 77;\ntp7 = q+r;\nz = 2;\nz1 = 22;\ntz2 = x*y;\n");
}

TEST(Macros, RunLoopsOverIntegers)
{
  EXPECT_EQ(program_of("%macro m(n=); retain d&n. .; retain e1 - e&n .; %do i = 1 %to &n; %do j = &i %to 2; x&i&j = "
                       "v&j.&i; %end; %end; %mend; %m(n=2);"),
            "retain d2 .;\nretain e1 . e2 .;\nx11 = v11;\nx12 = v21;\nx22 = v22;\n");
  EXPECT_EQ(program_of("%do k = 3 %to 1 %by -1; y&k = &k; %end; %do k = 2 %to 1; z = &k; %end; a = b&c;"),
            "y3 = 3;\ny2 = 2;\ny1 = 1;\na = b and c;\n");
}

TEST(Macros, LeaveQuotesCommentsAndOtherAmpersandsAlone)
{
  EXPECT_EQ(program_of("%macro m(a=); x = '&a %do' || \"&a.z\"; /* &a %end */ y = p&q; %mend; %m(a=w);"),
            "x = '&a %do'||'wz';\ny = p and q;\n");
}

TEST(Macros, CallEachOther)
{
  EXPECT_EQ(program_of("%macro in(v=); &v = 1; %mend; %macro out(v=); %in(v=&v) %in(v=&v.2) %mend; %out(v=a);"),
            "a = 1;\na2 = 1;\n");
}

TEST(Macros, DefinedAndCalledByGeneratedText)
{
  const auto hook = [](const SEMARG&, syntax::PROCSTR&, TokenStream& stream) {
    xtanch(stream);
    xttpshx(stream);
    for (const char* line :
         {"%macro g(_n_mvr=, _d_mvr= );", "c = 0;", "%do j = 1 %to &_n_mvr;", " c = c + &_d_mvr&j*exp(-k*&_d_mvr._);",
          "%end;", "%mend;", "if e eq 0 then do;", "%g(_n_mvr= 2, _d_mvr=_D);", "end;"})
      xttpshb(stream, line);
    return 0;
  };
  const auto parsed = parse_text("torvale; cmptmodel ncomps=1; z = c; run;", {}, hook);
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_EQ(parsed->program(), "if e = 0 then\n  do;\n    c = 0;\n    c = c+(_D1*exp((-k)*_D_));\n    c = "
                               "c+(_D2*exp((-k)*_D_));\n  end;\nz = c;\n");
}

TEST(Macros, MalformedOnesAreErrorsWithAPlace)
{
  const std::pair<const char*, const char*> cases[] = {
      {"%macro m; x=1;", "no %mend"},
      {"%macro (a=); %mend;", "needs a name"},
      {"%macro m(a); %mend;", "name= or name=default"},
      {"%macro m(a=; x=1; %mend;", "not closed"},
      {"%macro m(a=) x=1; %mend;", "semicolon"},
      {"%mend;", "without %macro"},
      {"%end;", "without %do"},
      {"%do i = 1 %to 3; x = 1;", "no %end"},
      {"%do i = 1; x=1; %end;", "form"},
      {"%do i = 1 %to n; x=1; %end;", "integers"},
      {"%do i = 1 %to 3 %by 0; x=1; %end;", "must not be 0"},
      {"%do i = 1 %to 900000000; x=1; %end;", "at most"},
      {"%nosuch(a=1);", "no macro called"},
      {"%macro m(a=); x=&a; %mend; %m(b=1);", "no parameter called b"},
      {"%macro m(a=); x=&a; %mend; %m(1);", "by name"},
      {"%macro m(a=); x=&a; %mend; %m(a=(1;", "not closed"},
      {"%macro m; %m %mend; %m", "nested more than 64"},
      {"%macro m; %do i = 1 %to 3; %mend; %m", "no %end"},
      {"%include nofile;", "quoted file name"},
  };
  for (const auto& [text, words] : cases) {
    const auto parsed = parse_text(std::string("torvale;\n") + text + "\nrun;");
    EXPECT_GT(parsed->errors(), 0) << text;
    EXPECT_NE(parsed->rendered.find(words), std::string::npos) << text << "\n" << parsed->rendered;
    EXPECT_NE(parsed->rendered.find("line 2"), std::string::npos) << text << "\n" << parsed->rendered;
  }
}

TEST(Macros, ThatGrowWithoutEndAreStopped)
{
  std::string text = "torvale; %macro a0; x = 1; %mend;";
  for (int i = 1; i < 40; ++i)
    text += "%macro a" + std::to_string(i) + "; %a" + std::to_string(i - 1) + " %a" + std::to_string(i - 1) + " %mend;";
  EXPECT_GT(parse_text(text + " %do i = 1 %to 100000; %do j = 1 %to 100000; y = 1; %end; %end; run;")->errors(), 0);
}

TEST(Include, ReadsFilesAndNamesThemInMessages)
{
  const std::map<std::string, std::string> files = {{"a.inc", "x = 1;\ny = ;\n"},
                                                    {"b.inc", "include 'c.inc'; b = 1;"},
                                                    {"c.inc", "c = 1;"},
                                                    {"loop.inc", "include 'loop.inc';"}};
  const auto parsed = parse_text("torvale; include 'b.inc'; %include 'c.inc'; d = 1; run;", {}, {}, files);
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  EXPECT_EQ(parsed->program(), "c = 1;\nb = 1;\nc = 1;\nd = 1;\n");
  const auto wrong = parse_text("torvale;\ninclude 'a.inc'; z = 1; run;", {}, {}, files);
  ASSERT_EQ(wrong->errors(), 1);
  EXPECT_NE(wrong->rendered.find("a.inc, line 2, column 5"), std::string::npos) << wrong->rendered;
  EXPECT_TRUE(parse_text("torvale; include 'none.inc'; run;", {}, {}, files)->has(Problem::include_fault));
  EXPECT_TRUE(parse_text("torvale; include 'loop.inc'; run;", {}, {}, files)->has(Problem::too_deep));
}

} // namespace torvale::language::test
