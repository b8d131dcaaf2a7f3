#include "host/messages/catalogue/topics.h"
#include "optimizer/messages/message_table.h"
#include <algorithm>

namespace torvale::host {

namespace {

CatalogueTopic topic(std::string_view name, std::span<const CatalogueEntry> entries)
{
  return {name, {entries.begin(), entries.end()}};
}

// What the optimizer says stands in its own table.
CatalogueTopic optimizer_topic()
{
  CatalogueTopic out{"optimizer", {}};
  for (const optimizer::MessageRow& row : optimizer::message_table()) {
    const Severity severity = row.severity == 1 ? N : row.severity == 2 ? W : E;
    out.entries.push_back({row.group, row.number, row.name, severity, row.words, row.causes, row.advice});
  }
  return out;
}

} // namespace

const std::vector<CatalogueTopic>& catalogue_topics()
{
  static const std::vector<CatalogueTopic> topics = {topic("statements", statements_messages()),
                                                     topic("starting_values", starting_values_messages()),
                                                     topic("methods", methods_messages()),
                                                     topic("optimization", optimization_messages()),
                                                     topic("compartments", compartments_messages()),
                                                     topic("fit", fit_messages()),
                                                     topic("files", files_messages()),
                                                     topic("language", language_messages()),
                                                     {"labels", labels_of_tables()},
                                                     optimizer_topic()};
  return topics;
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
