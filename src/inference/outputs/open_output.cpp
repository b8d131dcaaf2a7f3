#include "inference/outputs/open_output.h"

#include "host/data/libraries.h"
#include "host/messages/names/statements.h"
#include "host/values/text.h"

namespace torvale::inference {

using host::ColumnKind;
using host::OutputDataSet;
using model::NX;

int open_output(NX& n, const syntax::StItem& item, const char* statement, OutputDataSet*& out)
{
  const host::MessagePlace place = n.sources->place(statement, item.where);
  host::DataSetReference reference{item.text, item.quoted, {}};
  if (!item.options.empty()) {
    auto options = host::parse_data_set_options(item.options, n.host->log(), place);
    if (!options) return 3000;
    reference.options = std::move(*options);
  }
  int code = 0;
  out = n.host->libraries().open_output(reference, n.host->log(), place, &code);
  return code;
}

void add_output_column(NX& n, OutputDataSet& out, const std::string& name, const std::string& label)
{
  const std::size_t at = out.add_column(name, ColumnKind::numeric, label);
  const std::string& given = out.data().columns()[at].name();
  if (!host::equal_names(given, name.substr(0, host::DataSet::longest_name)))
    n.host->log().xpmlog(message::result_name_taken{.data = out.name(), .name = name, .given = given});
}

std::size_t set_by_variables(const NX& n, std::size_t row, OutputDataSet& out)
{
  std::size_t at = 0;
  for (const auto& by : n.bylist) out.set_from(at++, *n.fid->find(by.name), n.rows.begin + row);
  return at;
}

} // namespace torvale::inference
