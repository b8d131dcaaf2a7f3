#include "host/messages.h"
#include "support.h"
#include <regex>
#include <set>
#include <sstream>

// The rule that a machine holds here: whatever message a source raises by number has words, and the arguments of the
// call are those that the words name.
namespace torvale::host {

namespace {

// The text of a call from behind its opening parenthesis to the closing one.
std::string arguments_of(const std::string& source, std::size_t begin)
{
  int depth = 1;
  bool quoted = false;
  for (std::size_t i = begin; i < source.size(); ++i) {
    if (source[i] == '"' && source[i - 1] != '\\') quoted = !quoted;
    if (quoted) continue;
    depth += source[i] == '(' ? 1 : source[i] == ')' ? -1 : 0;
    if (depth == 0) return source.substr(begin, i - begin);
  }
  return {};
}

std::set<std::string> matches(const std::string& text, const char* pattern)
{
  const std::regex expression(pattern);
  std::set<std::string> out;
  for (std::sregex_iterator i(text.begin(), text.end(), expression), end; i != end; ++i) out.insert((*i)[1]);
  return out;
}

std::vector<std::filesystem::path> sources()
{
  std::vector<std::filesystem::path> out;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(TORVALE_SOURCE_DIR "/src"))
    if (entry.path().extension() == ".cpp") out.push_back(entry.path());
  return out;
}

} // namespace

TEST(Catalogue, EveryMessageThatASourceRaisesHasItsWords)
{
  const std::regex call("\\b(?:xpmlog|xpmstr|otbmsg)\\(\\s*([0-9]+),\\s*([0-9]+)\\b");
  int calls = 0;
  for (const auto& path : sources()) {
    std::ifstream in(path);
    const std::string source{std::istreambuf_iterator<char>(in), {}};
    for (std::sregex_iterator i(source.begin(), source.end(), call), end; i != end; ++i, ++calls) {
      const int group = std::stoi((*i)[1]), number = std::stoi((*i)[2]);
      const std::string where = path.filename().string() + ": " + i->str();
      const CatalogueEntry* entry = find_message(group, number);
      ASSERT_TRUE(entry) << where << " is not in catalogue.cpp";
      const std::string text(entry->text);
      const std::string required = std::regex_replace(text, std::regex("\\[[^\\]]*\\{[^\\]]*\\]"), "");
      const std::string arguments = arguments_of(source, static_cast<std::size_t>(i->position() + i->length()));
      const auto given = matches(arguments, "\\{\"(\\w+)\",");
      const auto named = matches(text, "\\{(\\w+)\\}");
      for (const std::string& name : given)
        EXPECT_TRUE(named.contains(name)) << where << " gives " << name << ", the words do not use it";
      if (given.empty() && arguments.find("arguments") != std::string::npos) continue; // built before the call
      for (const std::string& name : matches(required, "\\{(\\w+)\\}"))
        EXPECT_TRUE(given.contains(name)) << where << " does not give " << name;
    }
  }
  EXPECT_GT(calls, 50);
}

} // namespace torvale::host
