#include "host/messages/names/labels.h"
#include "model/distribution_labels.h"
#include "optimizer/optimizer.h"
#include "parallel/worker_pool.h"
#include "run/statements/statement_processing.h"

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

host::MessageCode method_text(const NX& n)
{
  switch (n.method) {
  case 0:
    return n.nreff() == 0 ? label::no_integration
           : n.adaptive   ? label::adaptive_gaussian_quadrature
                          : label::gaussian_quadrature;
  case 3:
    return n.adaptive ? label::adaptive_importance_sampling : label::importance_sampling;
  case 4:
    return label::sum_over_support_points;
  case 1:
    return label::first_order;
  default:
    return label::hardy_quadrature;
  }
}

// tech: 1 NONE to 15 NMSIM2, as optimizer.h numbers them.
host::MessageCode technique_text(int tech)
{
  constexpr host::MessageCode labels[] = {label::no_technique,
                                          label::trust_region,
                                          label::newton_raphson_with_line_search,
                                          label::newton_raphson_with_ridging,
                                          label::damped_newton_raphson,
                                          label::newton_raphson,
                                          label::gauss_newton,
                                          label::levenberg_marquardt,
                                          label::double_dogleg,
                                          label::quasi_newton,
                                          label::dual_quasi_newton,
                                          label::hybrid_quasi_newton,
                                          label::conjugate_gradient,
                                          label::simplex,
                                          label::simplex_second_form};
  return labels[tech - 1];
}

} // namespace

void tvlspec(NX& n)
{
  host::Table table("Specifications", host::otbmsg(label::specifications),
                    {{"Descr", CellKind::text, host::otbmsg(label::description), "", ""},
                     {"Value", CellKind::text, host::otbmsg(label::value), "", ""}});
  const auto row = [&](host::MessageCode name, const std::string& value) { table.row({host::xpmstr(name), value}); };

  row(label::data_set, n.data_name);
  row(label::dependent_variable, n.depname);
  row(label::distribution_of_dependent, host::xpmstr(model::distribution_label(n.disttype)));
  if (n.nreff() > 0) {
    std::vector<std::string> effects, distributions, subjects;
    for (auto it = n.reff.rbegin(); it != n.reff.rend(); ++it) {
      effects.insert(effects.end(), it->names.begin(), it->names.end());
      distributions.push_back(host::xpmstr(model::distribution_label(it->distrtype)));
      subjects.push_back(it->subname);
    }
    row(label::random_effects, joined(effects, " "));
    row(label::distribution_of_random_effects, joined(distributions, ", "));
    row(n.nreff() == 1 ? label::subject_variable : label::subject_variables, joined(subjects, " "));
  }
  if (!n.repname.empty()) row(label::replicate_variable, n.repname);
  row(label::optimization_technique, host::xpmstr(technique_text(n.str->tech)));
  if (n.method == 3 && n.nreff() > 0) row(label::random_number_seed, std::to_string(n.seed));
  row(label::integration_method, host::xpmstr(method_text(n)));
  if (n.runThreads) row(label::threads, std::to_string(n.workers != nullptr ? n.workers->contexts() : 1));
  n.host->tables().wobmth(std::move(table));
}

} // namespace torvale::run
