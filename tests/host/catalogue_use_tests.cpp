#include "host/message_names.h"
#include "support.h"
#include <regex>

// Sources call messages, slots and flags by name, so that a wrong one does not compile: a machine holds it here.
namespace torvale::host {

namespace {

std::vector<std::filesystem::path> sources()
{
  std::vector<std::filesystem::path> out;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(TORVALE_SOURCE_DIR "/src"))
    if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") out.push_back(entry.path());
  return out;
}

template <class Message, class... Values>
concept Raised = requires(Values... values)
{
  NumberedMessage(Message{values...});
};

} // namespace

TEST(Catalogue, SourcesCallMessagesSlotsAndFlagsByName)
{
  const std::regex numbers(R"((xpmlog|xpmstr|otbmsg)\([0-9]+, *[0-9]+|\b(slot|flag|given|number_or)\([0-9]+)");
  EXPECT_TRUE(std::regex_search(std::string("log.xpmlog(503, 71)"), numbers));
  EXPECT_TRUE(std::regex_search(std::string("s.number_or(86, 0)"), numbers));
  for (const auto& path : sources()) {
    std::ifstream in(path);
    int line = 0;
    for (std::string text; ++line, std::getline(in, text);)
      EXPECT_FALSE(std::regex_search(text, numbers)) << path << ":" << line << ": " << text;
  }
}

TEST(Catalogue, ArgumentsOutsideBracketsMustBeGiven)
{
  static_assert(std::is_default_constructible_v<message::no_usable_observation>);
  static_assert(!std::is_default_constructible_v<message::seed_too_large>);
  static_assert(Raised<message::repeated_statement, const char*>);
  static_assert(Raised<message::repeated_statement, const char*, int>);
  static_assert(!Raised<message::repeated_statement, const char*, int, int>);
  const NumberedMessage bare = message::repeated_statement{.statement = "PARMS"};
  EXPECT_EQ(bare.code().number, 12);
  EXPECT_EQ(xpmstr(bare), "There is more than one PARMS statement.");
  EXPECT_EQ(xpmstr(message::repeated_statement{.statement = "PARMS", .first = 3}),
            "There is more than one PARMS statement; the first is in line 3.");
  EXPECT_EQ(xpmstr(message::bounds_name_no_parameter{.name = "a", .near = ""}),
            "BOUNDS names a, which is not a parameter."); // an empty text is as good as none
}

} // namespace torvale::host
