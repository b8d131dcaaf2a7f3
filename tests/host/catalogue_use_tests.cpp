#include "host/messages/names/starting_values.h"
#include "host/messages/names/statements.h"
#include "support.h"
#include <regex>
#include <set>

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

// Every text of the procedure's group is raised somewhere, but for those whose cause cannot arise here.
TEST(Catalogue, EveryTextIsRaised)
{
  const std::set<std::string> never = {
      // these methods and outputs are to come
      "outr_without_random", "prediction_failed", "subgradient_not_stored",
      // nested levels have exact gradients
      "subgradient_ignored_with_levels", "empirical_ignored_with_levels",
      // rows of starting values have no number that is expected
      "more_starting_values_than_used", "more_starting_rows_than_one", "more_starting_rows_than_expected",
      // memory that is missing ends the step with one message; threads and matrices have no set-up of their own
      "worker_mode_search_without_details", "nested_mode_search_failed", "nested_mode_search_serial",
      "optimizer_setup_failed", "covsing_ignored", "no_memory_for_matrices", "optimizer_printing_failed",
      "covariance_failed", "final_hessian_failed", "starting_hessian_failed", "worker_thread_failed",
      // the grammar refuses the value first
      "admtype_out_of_range"};
  std::string text;
  const auto read = [&](const std::filesystem::path& path) {
    std::ifstream in(path);
    text.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()).push_back('\n');
  };
  for (const auto& path : sources()) read(path);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(TORVALE_SOURCE_DIR "/app"))
    if (entry.path().extension() == ".cpp") read(entry.path());
  std::set<std::string> raised;
  const std::regex name(R"(\bmessage::(\w+))");
  for (std::sregex_iterator i(text.begin(), text.end(), name), end; i != end; ++i) raised.insert((*i)[1]);
  int rows = 0;
  for (const CatalogueTopic& topic : catalogue_topics()) {
    if (topic.name == "optimizer") continue; // it raises its own by number
    for (const CatalogueEntry& e : topic.entries) {
      if (e.group != 503 || e.label) continue;
      ++rows;
      EXPECT_TRUE(raised.contains(std::string(e.name)) || never.contains(std::string(e.name)))
          << e.name << " is never raised";
    }
  }
  EXPECT_GT(rows, 200);
}

// Whoever meets a warning or an error reads what to do about it.
TEST(Catalogue, EveryWarningAndErrorHasARemedy)
{
  for (const CatalogueEntry& e : catalogue()) {
    if (e.severity == Severity::note) continue;
    EXPECT_GE(e.advice.size(), 8u) << e.group << "/" << e.number << " " << e.name;
    EXPECT_TRUE(e.advice.ends_with('.') || e.advice.ends_with(';')) << e.advice;
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
