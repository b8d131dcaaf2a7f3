#include "data/subject_tables.h"

#include "evaluation/program_faults.h"
#include "host/messages/names/labels.h"
#include "model/subject_names.h"

#include <algorithm>

namespace torvale::data {

using host::CellKind;
using model::NX;
using model::REFFECT;

namespace {

constexpr std::size_t most_shown = 20; // values of a level, observations of a subject

// The first texts, each followed by a blank; "..." for the rest.
template <class Text> std::string shown(std::size_t count, const Text& text)
{
  std::string out;
  for (std::size_t k = 0; k < std::min(count, most_shown); ++k) out += text(k) + " ";
  return count > most_shown ? out + "..." : out;
}

// PrintReffTable: one row per level, the outermost first.
void PrintReffTable(const NX& n)
{
  host::Table table("REParameters", host::otbmsg(label::subjects_of_random_effects),
                    {{"Subject", CellKind::text, "Subject", "", ""},
                     {"NSub", CellKind::integer, "Subjects", "", ""},
                     {"Values", CellKind::text, "Values", "", ""}});
  for (auto reff = n.reff.rbegin(); reff != n.reff.rend(); ++reff)
    table.row({reff->subname, static_cast<long>(reff->SubInfo.size()),
               shown(reff->SubInfo.size(), [&](std::size_t s) { return model::subject_name(n, reff->SubInfo[s]); })});
  n.host->tables().wobmth(std::move(table));
}

// PrintReffObsTable: one row per subject, with the numbers of its observations in the BY group.
void PrintReffObsTable(const NX& n)
{
  host::Table table("REObsInfo", host::otbmsg(label::observations_of_subjects),
                    {{"Subject", CellKind::text, "Subject", "", ""},
                     {"Values", CellKind::text, "Values", "", ""},
                     {"NObs", CellKind::integer, "Observations", "", ""},
                     {"Indices", CellKind::text, "Indices", "", ""}});
  for (auto reff = n.reff.rbegin(); reff != n.reff.rend(); ++reff)
    for (const auto& subject : reff->SubInfo)
      table.row({reff->subname, model::chain_name(n, subject), static_cast<long>(subject.SubCount),
                 shown(static_cast<std::size_t>(subject.SubCount), [&](std::size_t k) {
                   return std::to_string(
                       evaluation::observation_number(n, subject.first_row + static_cast<std::int64_t>(k)));
                 })});
  n.host->tables().wobmth(std::move(table));
}

} // namespace

void tvlmisc(const NX& n)
{
  PrintReffTable(n);
  PrintReffObsTable(n);
}

} // namespace torvale::data
