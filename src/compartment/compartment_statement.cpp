#include "compartment/compartment_statement.h"

#include "compartment/dose_records.h"
#include "compartment/events.h"
#include "compartment/fixed_dose.h"

namespace torvale::compartment {

std::vector<std::string> zcmpt(const syntax::STMT& statement, std::span<const Variable> data, int earlier,
                               bool writes_log, const host::MessagePlace& place, host::MessageSink& log)
{
  Model model;
  model.earlier = earlier;
  if (!read_model(statement, data, place, log, model)) return {};
  StatementText text(model);
  if (model.events.given) {
    write_events(text, model);
  } else if (model.records.present) {
    text.add(std::string("_cmpt_file_log = ") + (writes_log ? "1;" : "0;"));
    write_dose_records(text, model);
  } else {
    write_fixed_dose(text, model);
  }
  return text.take();
}

} // namespace torvale::compartment
