#pragma once
#include "host/messages/catalogue.h"
#include <span>

// The topics of the catalogue, one file each in this folder.
//
// One entry: group, number, name, severity, text, usual causes, what to try. The last two may be "". Order does not
// matter. The name says what happened; the build makes message::name of it (host/messages/names/TOPIC.h), with a member
// for each argument. Text: {name} is an argument; a stretch [ ... {name} ... ] falls away when its argument is not
// given.
namespace torvale::host {

inline constexpr Severity N = Severity::note, W = Severity::warning, E = Severity::error;

std::span<const CatalogueEntry> statements_messages();
std::span<const CatalogueEntry> starting_values_messages();
std::span<const CatalogueEntry> methods_messages();
std::span<const CatalogueEntry> optimization_messages();
std::span<const CatalogueEntry> compartments_messages();
std::span<const CatalogueEntry> fit_messages();
std::span<const CatalogueEntry> files_messages();
std::span<const CatalogueEntry> language_messages();
std::span<const CatalogueEntry> labels_of_tables();

// One entry of the catalogue, or null: found where it stands in its table, so that no run makes the catalogue for a few
// messages.
const CatalogueEntry* catalogue_entry(int group, int number);

} // namespace torvale::host
