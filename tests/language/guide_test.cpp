// docs/language.md against the grammar: its option tables are those of the grammar, and its programs parse.
#include "language/grammar.h"
#include "parse_text.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace torvale::language::test {

namespace {

const std::string guide_path = TORVALE_SOURCE_DIR "/docs/language.md";

std::string read_guide()
{
  std::ifstream in(guide_path);
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
  const std::string guide = read_guide(), open = "```torvale\n";
  int programs = 0;
  for (std::size_t at = guide.find(open); at != std::string::npos; at = guide.find(open, at + 1)) {
    const std::size_t begin = at + open.size();
    const auto parsed = parse_text(guide.substr(begin, guide.find("```", begin) - begin));
    EXPECT_EQ(parsed->rendered, "");
    ++programs;
  }
  EXPECT_GE(programs, 3);
}

} // namespace torvale::language::test
