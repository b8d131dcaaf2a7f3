#pragma once
#include <string_view>
#include <vector>

// The catalogue of messages: words, severity and advice of each number stand in one table, a file for each topic
// (catalogue/). The build makes the names of messages from it (host/messages/names/TOPIC.h); only what shows messages
// reads it at run time.
namespace torvale::host {

enum class Severity { note, warning, error };

// What the catalogue says of one message.
struct CatalogueEntry {
  int group;
  int number;
  std::string_view name; // message::name, label::name, ... in the sources
  Severity severity;
  std::string_view text;   // {name} is an argument; [ ... {name} ... ] is dropped when an argument in it is not given
  std::string_view causes; // usual causes; may be empty
  std::string_view advice; // what to try; may be empty
  bool label = false;      // words of a table
};

struct CatalogueTopic {
  std::string_view name; // of the file in catalogue/, and of the header that the build makes
  std::vector<CatalogueEntry> entries;
};

const std::vector<CatalogueTopic>& catalogue_topics();

// The whole catalogue, sorted by group and number.
const std::vector<CatalogueEntry>& catalogue();

} // namespace torvale::host
