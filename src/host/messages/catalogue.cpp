#include "host/messages/catalogue/topics.h"
#include "optimizer/messages/message_table.h"
#include <algorithm>

namespace torvale::host {

namespace {

// What the optimizer says stands in its own table.
std::span<const CatalogueEntry> optimizer_messages()
{
  static const std::vector<CatalogueEntry> entries = [] {
    std::vector<CatalogueEntry> all;
    for (const optimizer::MessageRow& row : optimizer::message_table()) {
      const Severity severity = row.severity == 1 ? N : row.severity == 2 ? W : E;
      all.push_back({row.group, row.number, row.name, severity, row.words, row.causes, row.advice});
    }
    return all;
  }();
  return entries;
}

struct TopicTable {
  std::string_view name;
  std::span<const CatalogueEntry> (*entries)();
};
constexpr TopicTable tables[] = {
    {"statements", statements_messages},
    {"starting_values", starting_values_messages},
    {"methods", methods_messages},
    {"optimization", optimization_messages},
    {"compartments", compartments_messages},
    {"fit", fit_messages},
    {"files", files_messages},
    {"language", language_messages},
    {"labels", labels_of_tables},
    {"optimizer", optimizer_messages},
};

// Where each entry stands, in a hash table with open addresses.
class Places {
public:
  Places()
  {
    for (const TopicTable& table : tables)
      for (const CatalogueEntry& e : table.entries()) {
        const CatalogueEntry*& place = at(e.group, e.number);
        if (place == nullptr) place = &e; // of several the first counts, as in the sorted catalogue
      }
  }
  const CatalogueEntry* find(int group, int number) { return at(group, number); }

private:
  static constexpr std::size_t most = 4096; // several times as many as there are entries
  // The entry's place, or the free one where it would be.
  const CatalogueEntry*& at(int group, int number)
  {
    std::size_t k = static_cast<std::size_t>(group) * 31 + static_cast<std::size_t>(number);
    while (places_[k % most] != nullptr && (places_[k % most]->group != group || places_[k % most]->number != number))
      ++k;
    return places_[k % most];
  }
  const CatalogueEntry* places_[most] = {};
};

} // namespace

const std::vector<CatalogueTopic>& catalogue_topics()
{
  static const std::vector<CatalogueTopic> topics = [] {
    std::vector<CatalogueTopic> all;
    for (const TopicTable& table : tables) {
      const std::span<const CatalogueEntry> entries = table.entries();
      all.push_back({table.name, {entries.begin(), entries.end()}});
    }
    return all;
  }();
  return topics;
}

const CatalogueEntry* catalogue_entry(int group, int number)
{
  static Places places;
  return places.find(group, number);
}

const std::vector<CatalogueEntry>& catalogue()
{
  static const std::vector<CatalogueEntry> sorted = [] {
    std::vector<CatalogueEntry> all;
    for (const CatalogueTopic& topic : catalogue_topics())
      all.insert(all.end(), topic.entries.begin(), topic.entries.end());
    std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
      return std::pair(a.group, a.number) < std::pair(b.group, b.number);
    });
    return all;
  }();
  return sorted;
}

} // namespace torvale::host
