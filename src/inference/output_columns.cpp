#include "inference/output_columns.h"

#include "host/libraries.h"
#include "host/message_names.h"
#include "host/text.h"

namespace torvale::inference {

using host::OutputDataSet;
using model::NX;

OutputDataSet* open_data_set(NX& n, const syntax::StItem& item, const char* statement)
{
  const host::MessagePlace place = n.sources->place(statement, item.where);
  host::DataSetReference reference{item.text, item.quoted, {}};
  if (!item.options.empty()) {
    auto options = host::parse_data_set_options(item.options, n.host->log(), place);
    if (!options) return nullptr;
    reference.options = std::move(*options);
  }
  return n.host->libraries().open_output(reference, n.host->log(), place);
}

void add_result(NX& n, OutputDataSet& out, const std::string& name, const std::string& label)
{
  const std::size_t at = out.add_column(name, host::ColumnKind::numeric, label);
  const std::string& given = out.data().columns()[at].name();
  if (!host::equal_names(given, name.substr(0, host::DataSet::longest_name)))
    n.host->log().xpmlog(message::result_name_taken{.data = out.name(), .name = name, .given = given});
}

void add_test_columns(NX& n, OutputDataSet& out)
{
  add_result(n, out, "StdErrPred", "Standard Error of Prediction");
  add_result(n, out, "DF", "Degrees of Freedom");
  add_result(n, out, "tValue", "t Value");
  add_result(n, out, "Probt", "Pr > |t|");
  add_result(n, out, "Alpha", "Alpha");
  add_result(n, out, "Lower", "Lower Confidence Limit");
  add_result(n, out, "Upper", "Upper Confidence Limit");
}

std::size_t set_test(OutputDataSet& out, std::size_t at, const TVAL& t)
{
  for (const double x : {t.sder, t.dfe, t.tval, t.prob, t.alpha, t.lower, t.upper}) out.set(at++, x);
  return at;
}

} // namespace torvale::inference
