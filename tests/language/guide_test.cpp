// The pages against the grammar: the option tables of docs/language.md are those of the grammar, programs parse, and
// docs/statements.md shows every statement and option in a program (the tests of whole programs run them).
#include "language/grammar.h"
#include "parse_text.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

namespace torvale::language::test {

namespace {

const std::string guide_path = TORVALE_SOURCE_DIR "/docs/language.md";
const std::string statements_path = TORVALE_SOURCE_DIR "/docs/statements.md";

std::string read_guide(const std::string& path = guide_path)
{
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Full spellings; those that are not advertised only where there is no other.
std::string spellings(const auto& words, const auto& text_of)
{
  std::string full, hidden;
  for (const auto& w : words) {
    std::string s(text_of(w));
    std::string& to = s.back() == '$' && s.size() > 1 ? hidden : full;
    if (&to == &hidden) s.pop_back();
    to += (to.empty() ? "`" : ", `") + s + "`";
  }
  return full.empty() ? hidden : full;
}

std::string limits(const OptionValue& v)
{
  if (v.has_low && v.has_high) return " " + std::to_string(v.low) + " to " + std::to_string(v.high);
  return v.has_low ? " from " + std::to_string(v.low) : "";
}

std::string value_text(const OptionValue& v)
{
  switch (v.kind) {
  case ValueKind::number:
    return "number" + limits(v);
  case ValueKind::count:
  case ValueKind::integer:
    return "whole number" + limits(v);
  case ValueKind::number_or_missing:
    return "number" + limits(v) + " or `.`";
  case ValueKind::count_or_missing:
    return "whole number" + limits(v) + " or `.`";
  case ValueKind::input:
    return "data set";
  case ValueKind::output:
    return "data set to write";
  case ValueKind::name:
    return "name";
  default:
    break;
  }
  std::string text;
  for (std::size_t i = 0; i < v.words.size();) { // words of one code together
    std::vector<std::string_view> group;
    const std::int16_t code = v.words[i].code;
    for (; i < v.words.size() && v.words[i].code == code; ++i) group.push_back(v.words[i].spelling);
    text += (text.empty() ? "" : "; ") + spellings(group, [](std::string_view s) { return s; });
  }
  return text;
}

std::string option_table(std::string_view statement)
{
  std::string out = "| option | value | without it | meaning | shown as |\n|---|---|---|---|---|\n";
  for (const OptionRow& row : option_rows()) {
    if (row.statement != statement || (!row.traces.empty() && row.traces[0] > 100)) continue;
    std::string value, stored;
    for (const OptionValue& v : row.values) {
      value += (value.empty() ? "" : ", or ") + value_text(v);
      const std::string slot = "slot " + std::to_string(v.slot);
      if (stored.find(slot) == std::string::npos) stored += (stored.empty() ? "" : ", ") + slot;
    }
    for (const OptionValue& v : row.bracket) {
      value += ", `[`" + value_text(v) + "`]`";
      stored += ", " + std::to_string(v.slot);
    }
    if (row.optional) value = "none, or " + value;
    for (std::int16_t f : row.flags) stored += (stored.empty() ? "" : ", ") + ("flag " + std::to_string(f));
    out += "| " + spellings(row.words, [](std::string_view s) { return s; }) + " | " + value + " | " +
           std::string(row.initial) + " | " + std::string(row.meaning) + " | " + stored + " |\n";
  }
  return out;
}

// The programs of a page.
std::vector<std::string> programs_of(const std::string& page)
{
  const std::string open = "```torvale\n";
  std::vector<std::string> programs;
  for (std::size_t at = page.find(open); at != std::string::npos; at = page.find(open, at + 1)) {
    const std::size_t begin = at + open.size();
    programs.push_back(page.substr(begin, page.find("```", begin) - begin));
  }
  return programs;
}

// Words in capital letters outside texts.
void collect_words(const std::string& program, std::set<std::string>& words)
{
  std::string word;
  char quote = 0;
  for (const char c : program + " ") {
    if (quote == 0 &&
        (std::isupper(static_cast<unsigned char>(c)) || std::isdigit(static_cast<unsigned char>(c)) || c == '_')) {
      word += c;
      continue;
    }
    words.insert(std::exchange(word, ""));
    if (quote != 0 ? c == quote : c == '\'' || c == '"') quote = quote != 0 ? 0 : c;
  }
}

// The words that can begin a statement: the terminals that the grammar's nonterminal "statement" can start with.
std::set<std::string> statement_words()
{
  const PARSECONTROL control = tvlg();
  const int nonterminals = [&] {
    int n = 0;
    for (int p = 0; p < control.productions; ++p) n = std::max(n, control.lhstbl[p] + 1);
    return n;
  }();
  std::vector<std::set<int>> first(static_cast<std::size_t>(nonterminals));
  std::vector<char> empty(first.size(), 0);
  for (bool grows = true; grows;) {
    grows = false;
    for (int p = 0; p < control.productions; ++p) {
      const std::int16_t* at = control.prdlst + control.prdndx[p];
      const auto left = static_cast<std::size_t>(control.lhstbl[p]);
      int i = at[0];
      bool open = true; // what stands before may be nothing
      for (; i > 0 && open; --i) {
        const int symbol = at[i];
        if (symbol < 0) continue; // an action
        if (symbol < control.goaltoken) {
          grows |= first[left].insert(symbol).second;
          open = false;
        } else {
          const auto right = static_cast<std::size_t>(symbol - control.goaltoken);
          for (const int s : first[right]) grows |= first[left].insert(s).second;
          open = empty[right] != 0;
        }
      }
      if (open && !empty[left]) empty[left] = 1, grows = true;
    }
  }
  std::set<std::string> words;
  for (int n = 0; n < nonterminals; ++n)
    if (nonterminal_name(n) == "statement" || nonterminal_name(n) == "step")
      for (const int s : first[static_cast<std::size_t>(n)])
        for (int k = control.classes + 1; k < control.goaltoken; ++k) { // behind the token classes
          const std::string_view spelling = control.symmap[k - 1] == s ? control.spelling(k) : "";
          if (!spelling.empty() && spelling.back() != '$' &&
              (std::isalpha(static_cast<unsigned char>(spelling[0])) || spelling[0] == '_'))
            words.insert(std::string(spelling));
        }
  return words;
}

} // namespace

// To write the tables anew: TORVALE_WRITE_GOLDEN=1 language_tests --gtest_filter=Guide.*
TEST(Guide, OptionTablesAreThoseOfTheGrammar)
{
  const std::string guide = read_guide();
  std::string expected;
  std::size_t at = 0;
  int tables = 0;
  const std::string open = "<!-- options ", close = "<!-- end -->";
  for (std::size_t mark = guide.find(open); mark != std::string::npos; mark = guide.find(open, at)) {
    const std::size_t name = mark + open.size(), name_end = guide.find(' ', name),
                      line_end = guide.find('\n', mark) + 1;
    expected += guide.substr(at, line_end - at) + option_table(guide.substr(name, name_end - name));
    at = guide.find(close, mark);
    ASSERT_NE(at, std::string::npos);
    ++tables;
  }
  expected += guide.substr(at);
  EXPECT_EQ(tables, 9);
  if (std::getenv("TORVALE_WRITE_GOLDEN"))
    std::ofstream(guide_path) << expected;
  else
    EXPECT_TRUE(guide == expected) << "docs/language.md is behind the grammar: TORVALE_WRITE_GOLDEN=1 language_tests "
                                      "--gtest_filter=Guide.* writes it anew";
}

TEST(Guide, ProgramsParseWithoutAMessage)
{
  const auto programs = programs_of(read_guide());
  for (const std::string& program : programs) EXPECT_EQ(parse_text(program)->rendered, "");
  EXPECT_GE(programs.size(), 3u);
}

TEST(Guide, EveryStatementAndOptionIsShownAtWork)
{
  // What a statement of a name was given: slots, with their numbers, flags and traces.
  struct Shown {
    std::set<int> slots, flags;
    std::set<std::pair<int, int>> codes;
  };
  std::map<std::string, Shown> shown;
  std::set<std::string> words;
  std::set<int> traces;
  for (const std::string& program : programs_of(read_guide(statements_path))) {
    collect_words(program, words);
    const auto parsed = parse_text(program, {}, {}, {{"include/decay.txt", "decay = c0;\n"}});
    EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
    for (const auto& step : parsed->steps) {
      for (const int t : step.proc.traces) traces.insert(t);
      for (const syntax::STMT& s : step.proc.statements) {
        Shown& of = shown[s.name.starts_with("PAR") ? "PARMS" : s.name];
        for (int k = 0; k <= s.nfld; ++k) {
          if (!s.given(k)) continue;
          of.slots.insert(k);
          of.codes.emplace(k, static_cast<int>(s.slot(k).number));
        }
        for (int f = 0; f < 256; ++f)
          if (s.flag(f)) of.flags.insert(f);
      }
    }
  }
  for (const OptionRow& row : option_rows()) {
    const Shown& of = shown[row.statement == "EVENTS" ? "CMPTMODEL" : std::string(row.statement)];
    const std::string option = std::string(row.statement) + " " + std::string(row.words[0]);
    for (const OptionValue& value : row.values) {
      EXPECT_TRUE(of.slots.contains(value.slot)) << option;
      for (const OptionWord& word : value.words)
        EXPECT_TRUE(value.kind != ValueKind::word || row.words[0] == "COVARIANCE" ||
                    of.codes.contains({value.slot, word.code}))
            << option << "=" << word.spelling;
    }
    for (const std::int16_t flag : row.flags) EXPECT_TRUE(of.flags.contains(flag)) << option;
    if (row.values.empty() && row.flags.empty() && row.traces[0] < 100) {
      EXPECT_TRUE(words.contains(std::string(row.words[0].substr(0, row.words[0].find('$'))))) << option;
    }
  }
  for (int distribution = 0; distribution < 8; ++distribution)
    EXPECT_TRUE(shown["MODEL"].codes.contains({4, distribution})) << distribution;
  for (const std::string& word : statement_words()) {
    // Parsed so that a message can name them.
    if (word == "DECLARE" || word == "STRUCT")
      EXPECT_GT(parse_text("TORVALE; " + word + (word == "STRUCT" ? " x DOUBLE y;" : " HASH h();") + " RUN;")->errors(),
                0);
    else
      EXPECT_TRUE(words.contains(word)) << word;
  }
  EXPECT_GT(statement_words().size(), 40u);
}

} // namespace torvale::language::test
