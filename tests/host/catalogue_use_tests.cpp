#include "host/message_names.h"
#include "support.h"

// Messages by name: what a caller may leave out, and what does not compile.
namespace torvale::host {

namespace {

template <class Message, class... Values>
concept Raised = requires(Values... values)
{
  NumberedMessage(Message{values...});
};

} // namespace

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
