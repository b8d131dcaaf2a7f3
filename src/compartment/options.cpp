#include "compartment/options.h"

#include "compartment/event_data.h"
#include "host/messages/names/compartments.h"
#include "host/values/text.h"
#include "syntax/statement_names.h"

#include <algorithm>

namespace torvale::compartment {

namespace {

using enum syntax::cmptmodel_slot;
using syntax::cmptmodel_slot;

// By slot, from the first name option on.
constexpr std::string_view words[] = {"PCONC",  "SCALE0", "DOSE0", "DOSE1",  "DOSE2", "DOSE3", "TIME",   "VOL",
                                      "CL",     "KE",     "KA",    "VOL2",   "CL2",   "K12",   "K21",    "VOL3",
                                      "CL3",    "K13",    "K31",   "SCALE1", "DURN",  "RATE",  "SCALE2", "K20",
                                      "PCONC2", "SCALE3", "K30",   "PCONC3", "PCONC0"};

// What a family does with an option that is given, or lacks it.
enum class Rule : std::uint8_t {
  needed,       // absent: an error
  free,         //
  ignored,      // given: a warning, and it is as if it were not
  forbidden,    // given: an error
  unusual,      // given: a warning; it is used
  not_recorded, // given: an error, since the data set holds dose records
  recorded,     // given: a warning, ignored: dose records have no place for it
  from_data,    // given: a warning, ignored: the dose records have it
};

// What the user reads when an option breaks a rule.
host::NumberedMessage message_of(Rule rule, std::string_view option, const Model& model)
{
  static constexpr std::string_view administrations[] = {"IVB", "INF", "ORAL"};
  const std::string_view administration = administrations[static_cast<std::size_t>(model.administration) - 1];
  const int parameters = model.clearances ? 2 : 1;
  switch (rule) {
  case Rule::needed:
    return message::compartment_option_needed{.option = option,
                                              .compartments = model.compartments,
                                              .administration = administration,
                                              .parameters = parameters};
  case Rule::ignored:
    return message::compartment_option_ignored{.option = option,
                                               .compartments = model.compartments,
                                               .administration = administration,
                                               .parameters = parameters};
  case Rule::forbidden:
    return message::compartment_option_forbidden{.option = option,
                                                 .compartments = model.compartments,
                                                 .administration = administration,
                                                 .parameters = parameters};
  case Rule::unusual:
    return message::compartment_option_unusual{.option = option, .administration = administration};
  case Rule::not_recorded:
    return message::compartment_option_conflict{.option = option};
  case Rule::recorded:
    return message::compartment_option_from_doses{.option = option};
  default: // Rule::from_data
    return message::compartment_option_from_data{.option = option};
  }
}

bool digits_after(std::string_view name, std::string_view stem)
{
  return name.size() > stem.size() && name.starts_with(stem) &&
         std::all_of(name.begin() + static_cast<std::ptrdiff_t>(stem.size()), name.end(),
                     [](char c) { return c >= '0' && c <= '9'; });
}

// Goes through the options of a family in order.
class FamilyCheck {
public:
  FamilyCheck(const syntax::STMT& statement, const host::MessagePlace& place, host::MessageSink& log, Model& model)
      : statement_(statement), place_(place), log_(log), model_(model)
  {
  }

  bool run()
  {
    if (model_.events.given) return with_events();
    const bool records = model_.records.present;
    ask(time, records ? Rule::from_data : Rule::needed);
    ask(pconc, Rule::needed);
    ask(scale1, Rule::free);
    doses();
    parameters();
    extra_elimination();
    switch (model_.administration) {
    case Administration::bolus:
      for (const Option o : {ka}) ask(o, Rule::ignored);
      for (const Option o : {rate, durn}) ask(o, records ? Rule::unusual : Rule::ignored);
      for (const Option o : {dose0, scale0}) ask(o, Rule::ignored);
      ask(pconc0, Rule::forbidden);
      break;
    case Administration::infusion:
      infusion();
      break;
    case Administration::oral:
      ask(pconc0, records ? Rule::not_recorded : Rule::free);
      for (const Option o : {rate, durn}) ask(o, records ? Rule::unusual : Rule::ignored);
      break;
    }
    peripheral_results();
    smaller_models();
    return ok_;
  }

private:
  // Any route, any compartment: the records say what is given when.
  bool with_events()
  {
    const bool oral = model_.administration == Administration::oral;
    ask(time, Rule::from_data);
    ask(pconc, Rule::needed);
    ask(scale1, Rule::free);
    for (const Option o : {dose0, dose, dose2, dose3}) ask(o, Rule::from_data);
    ask(ka, oral ? Rule::needed : Rule::ignored);
    ask(scale0, oral ? Rule::free : Rule::ignored);
    ask(pconc0, oral ? Rule::free : Rule::forbidden);
    peripheral(scale2, scale3, Rule::free);
    parameters();
    peripheral(k20, k30, Rule::free);
    for (const Option o : {rate, durn}) ask(o, Rule::free);
    peripheral(pconc2, pconc3, Rule::free);
    smaller_models();
    return ok_;
  }

  void fail(const host::NumberedMessage& problem)
  {
    log_.xpmlog(problem, place_);
    ok_ = false;
  }

  void ask(Option o, Rule rule)
  {
    if (!ok_) return;
    const bool given = statement_.given(static_cast<int>(o));
    if (given && rule != Rule::ignored && rule != Rule::recorded && rule != Rule::from_data) take(o);
    if (rule == Rule::free || given == (rule == Rule::needed)) return;
    log_.xpmlog(message_of(rule, option_word(o), model_), place_);
    ok_ = rule != Rule::needed && rule != Rule::forbidden && rule != Rule::not_recorded;
  }

  void take(Option o)
  {
    const syntax::StItem& item = statement_.slot(static_cast<int>(o)).list.front();
    std::string& value = model_.value[static_cast<std::size_t>(o)];
    if (item.kind == syntax::StItem::Kind::number) {
      value = host::shortest(item.number);
      if (item.number < 0.0) value = "(" + value + ")";
      const bool result = o == pconc || o == pconc2 || o == pconc3 || o == pconc0;
      if (result) fail(message::compartment_result_not_a_name{.option = option_word(o), .value = value});
    } else {
      syntax::Expr name;
      name.kind = syntax::ExprKind::variable;
      name.name = item.text;
      value = syntax::to_text(name);
    }
  }

  void doses()
  {
    const bool records = model_.records.present;
    switch (model_.administration) {
    case Administration::bolus:
      ask(dose, records ? Rule::from_data : Rule::free);
      peripheral(dose2, dose3, records ? Rule::recorded : Rule::free);
      peripheral(scale2, scale3, Rule::free);
      break;
    case Administration::infusion:
      ask(dose, records ? Rule::from_data : Rule::free);
      peripheral(dose2, dose3, Rule::ignored);
      peripheral(scale2, scale3, Rule::ignored);
      break;
    case Administration::oral:
      ask(ka, Rule::needed);
      ask(dose0, records ? Rule::from_data : Rule::free);
      ask(dose, records ? Rule::recorded : Rule::free);
      ask(scale0, records ? Rule::recorded : Rule::free);
      peripheral(dose2, dose3, records ? Rule::recorded : Rule::free);
      peripheral(scale2, scale3, records ? Rule::recorded : Rule::free);
      if (ok_ && !records && model_.given(dose) && !model_.given(dose0))
        log_.xpmlog(message::oral_dose_into_compartment, place_);
      break;
    }
  }

  void peripheral(Option second, Option third, Rule rule)
  {
    if (model_.compartments > 1) ask(second, rule);
    if (model_.compartments > 2) ask(third, rule);
  }

  void parameters()
  {
    constexpr Option rates[] = {ke, k12, k21, k13, k31};
    constexpr Option clearances[] = {cl, vol, cl2, vol2, cl3, vol3};
    const std::span<const Option> r(rates, static_cast<std::size_t>(2 * model_.compartments - 1));
    const std::span<const Option> c(clearances, static_cast<std::size_t>(2 * model_.compartments));
    for (const Option o : model_.clearances ? c : r) ask(o, Rule::needed);
    for (const Option o : model_.clearances ? r : c) ask(o, Rule::ignored);
    if (ok_ && model_.clearances && !model_.given(scale1))
      log_.xpmlog(message::concentration_is_amount{.volume = model_.text(vol)}, place_);
  }

  void extra_elimination()
  {
    const bool infusion = model_.administration == Administration::infusion;
    peripheral(k20, k30, infusion ? Rule::ignored : model_.records.present ? Rule::recorded : Rule::free);
  }

  void infusion()
  {
    ask(rate, Rule::free);
    ask(durn, Rule::free);
    if (ok_ && !model_.records.present) {
      if (!model_.given(rate) && !model_.given(durn)) return fail(message::infusion_needs_rate_or_duration);
      if (model_.given(rate) && model_.given(durn)) log_.xpmlog(message::rate_and_duration_given, place_);
    }
    for (const Option o : {ka, dose0, scale0}) ask(o, Rule::ignored);
    for (const Option o : {pconc0, pconc2, pconc3}) ask(o, Rule::forbidden);
  }

  void peripheral_results()
  {
    if (model_.administration == Administration::infusion) return;
    peripheral(pconc2, pconc3, model_.records.present ? Rule::not_recorded : Rule::free);
  }

  // What only models with more compartments have.
  void smaller_models()
  {
    if (model_.compartments < 2) {
      for (const Option o : {cl2, vol2, k12, k21}) ask(o, Rule::ignored);
    }
    if (model_.compartments < 3) {
      for (const Option o : {cl3, vol3, k13, k31}) ask(o, Rule::ignored);
    }
    if (model_.compartments < 2) {
      for (const Option o : {k20, dose2, scale2}) ask(o, Rule::ignored);
    }
    if (model_.compartments < 3) {
      for (const Option o : {k30, dose3, scale3}) ask(o, Rule::ignored);
    }
    if (model_.compartments < 2) ask(pconc2, Rule::forbidden);
    if (model_.compartments < 3) ask(pconc3, Rule::forbidden);
  }

  const syntax::STMT& statement_;
  const host::MessagePlace& place_;
  host::MessageSink& log_;
  Model& model_;
  bool ok_ = true;
};

} // namespace

std::string_view option_word(Option option)
{
  return words[static_cast<std::size_t>(option) - static_cast<std::size_t>(pconc)];
}

std::string_view Model::family() const
{
  return administration == Administration::bolus ? "ivb" : administration == Administration::infusion ? "inf" : "oral";
}

bool DoseVariables::has(std::string_view name) const
{
  return std::any_of(names.begin(), names.end(), [&](const Variable& v) { return v.name == name; });
}

// Numbered doses count by stem and digits: the single dose's variable, whose name ends in _, is none of them.
DoseVariables dose_variables(std::span<const Variable> data)
{
  DoseVariables found;
  int doses = 0, steady = 0;
  for (const Variable& v : data) {
    const std::string name = host::wzstrup(v.name);
    if (!name.starts_with("_CMPT_")) continue;
    found.names.push_back({name, v.character});
    found.present = found.present || name == "_CMPT_TYPE_";
    doses += digits_after(name, "_CMPT_DTIME") ? 1 : 0;
    steady += digits_after(name, "_CMPT_SSDTIME") ? 1 : 0;
  }
  found.doses = std::max(doses, 1);
  found.steady = std::max(steady, 1);
  return found;
}

bool read_model(const syntax::STMT& statement, std::span<const Variable> data, const host::MessagePlace& place,
                host::MessageSink& log, Model& model)
{
  const auto whole = [&](cmptmodel_slot slot, int most, host::MessageCode absent, int& value) {
    if (!statement.given(slot)) {
      log.xpmlog(absent, place);
      return false;
    }
    const double x = statement.slot(slot).number;
    if (!(x >= 1.0 && x < most + 1.0)) { // a missing value is none of them
      if (slot == cmptmodel_slot::ncomps)
        log.xpmlog(message::ncomps_out_of_range{.found = x}, place);
      else
        log.xpmlog(message::parmtype_out_of_range{.found = x}, place);
      return false;
    }
    value = static_cast<int>(x);
    return true;
  };
  model.records = dose_variables(data);
  for (const Variable& v : model.records.names)
    if (v.name == "_CMPT_TYPE_" && !v.character) {
      log.xpmlog(message::dose_types_not_texts, place);
      return false;
    }
  int administration = 0, parameters = 0;
  if (!whole(cmptmodel_slot::ncomps, 3, message::no_ncomps, model.compartments) ||
      !whole(cmptmodel_slot::admtype, 3, message::no_admtype, administration) ||
      !whole(cmptmodel_slot::parmtype, 2, message::no_parmtype, parameters))
    return false;
  model.administration = static_cast<Administration>(administration);
  model.clearances = parameters == 2;
  if (!read_events(statement, data, place, log, model.events)) return false;
  if (model.events.given) {
    model.records.present = false;
    const bool by_cmt = model.events.has(EventItem::cmt);
    log.xpmlog(message::event_records{.doses = administration == 3 ? "the depot" : "the central compartment",
                                      .cmt = by_cmt ? "where CMT is 0 or missing" : "since there is no CMT"},
               place);
  }
  return FamilyCheck(statement, place, log, model).run();
}

} // namespace torvale::compartment
