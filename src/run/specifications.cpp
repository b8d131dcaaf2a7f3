#include "optimizer/optimizer.h"
#include "parallel/worker_pool.h"
#include "run/statement_processing.h"

namespace torvale::run {

using host::CellKind;
using model::NX;

namespace {

std::string joined(const std::vector<std::string>& parts, const char* between)
{
  std::string out;
  for (const auto& part : parts) out += (out.empty() ? "" : between) + part;
  return out;
}

int method_text(const NX& n)
{
  switch (n.method) {
  case 0:
    return n.nreff() == 0 ? 65 : n.adaptive ? 61 : 62;
  case 3:
    return n.adaptive ? 67 : 68;
  case 4:
    return 69;
  case 1:
    return 63;
  default:
    return 64;
  }
}

} // namespace

void tvlspec(NX& n)
{
  host::Table table("Specifications", host::otbmsg(503, 30),
                    {{"Descr", CellKind::text, host::otbmsg(503, 31), "", ""},
                     {"Value", CellKind::text, host::otbmsg(503, 32), "", ""}});
  const auto words = [](int number) { return host::xpmstr(503, number); };
  const auto row = [&](int label, const std::string& value) { table.row({words(label), value}); };

  row(35, n.data_name);
  row(36, n.depname);
  row(37, words(40 + n.disttype));
  if (n.nreff() > 0) {
    std::vector<std::string> effects, distributions, subjects;
    for (auto it = n.reff.rbegin(); it != n.reff.rend(); ++it) {
      effects.insert(effects.end(), it->names.begin(), it->names.end());
      distributions.push_back(words(40 + it->distrtype));
      subjects.push_back(it->subname);
    }
    row(52, joined(effects, " "));
    row(53, joined(distributions, ", "));
    row(n.nreff() == 1 ? 55 : 507, joined(subjects, " "));
  }
  if (!n.repname.empty()) row(56, n.repname);
  row(150, words(150 + n.str->tech));
  if (n.method == 3 && n.nreff() > 0) row(97, std::to_string(n.seed));
  row(60, words(method_text(n)));
  if (n.runThreads) row(650, std::to_string(n.workers != nullptr ? n.workers->contexts() : 1));
  n.host->tables().wobmth(std::move(table));
}

} // namespace torvale::run
