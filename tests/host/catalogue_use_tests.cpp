#include "host/messages.h"
#include "support.h"
#include <set>

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

// The names that stand in `text` between `open` and `close`, as {name} or {"name",.
std::set<std::string> names_between(const std::string& text, const std::string& open, const std::string& close)
{
  std::set<std::string> out;
  for (std::size_t i = text.find(open); i != std::string::npos; i = text.find(open, i + 1)) {
    const std::size_t begin = i + open.size();
    const std::size_t end = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789", begin);
    if (end > begin && end != std::string::npos && text.compare(end, close.size(), close) == 0)
      out.insert(text.substr(begin, end - begin));
  }
  return out;
}

// The words without the stretches that fall away when an argument is not given.
std::string required_words(const std::string& text)
{
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::size_t close = text[i] == '[' ? text.find(']', i) : std::string::npos;
    if (close != std::string::npos && text.find('{', i) < close)
      i = close;
    else
      out += text[i];
  }
  return out;
}

// Reads "digits" from i on; false when there are none.
bool read_number(const std::string& source, std::size_t& i, int& number)
{
  while (i < source.size() && (source[i] == ' ' || source[i] == '\n' || source[i] == ',')) ++i;
  const std::size_t begin = i;
  for (number = 0; i < source.size() && source[i] >= '0' && source[i] <= '9'; ++i)
    number = 10 * number + (source[i] - '0');
  return i > begin;
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
  int calls = 0;
  for (const auto& path : sources()) {
    std::ifstream in(path);
    const std::string source{std::istreambuf_iterator<char>(in), {}};
    for (const std::string routine : {"xpmlog(", "xpmstr(", "otbmsg("})
      for (std::size_t at = source.find(routine); at != std::string::npos; at = source.find(routine, at + 1)) {
        std::size_t i = at + routine.size();
        int group = 0, number = 0;
        if (!read_number(source, i, group) || !read_number(source, i, number))
          continue; // a declaration, a computed number
        ++calls;
        const std::string where = path.filename().string() + ": " + source.substr(at, i - at);
        const CatalogueEntry* entry = find_message(group, number);
        ASSERT_TRUE(entry) << where << " is not in catalogue.cpp";
        const std::string text(entry->text), arguments = arguments_of(source, i);
        const auto given = names_between(arguments, "{\"", "\",");
        const auto named = names_between(text, "{", "}");
        for (const std::string& name : given)
          EXPECT_TRUE(named.contains(name)) << where << ": the words do not use " << name;
        if (given.empty() && arguments.find("arguments") != std::string::npos) continue; // built before the call
        for (const std::string& name : names_between(required_words(text), "{", "}"))
          EXPECT_TRUE(given.contains(name)) << where << " does not give " << name;
      }
  }
  EXPECT_GT(calls, 50);
}

} // namespace torvale::host
