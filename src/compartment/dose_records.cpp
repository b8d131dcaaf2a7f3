#include "compartment/dose_records.h"

#include "compartment/constants.h"
#include "compartment/dose_codes.h"
#include "compartment/solution.h"

#include <map>
#include <tuple>

namespace torvale::compartment {

namespace {

using enum syntax::cmptmodel_slot;

std::string number(auto x)
{
  return std::to_string(static_cast<int>(x));
}

// What cannot be served ends the run; the data alone decide.
struct Fault {
  int number;
  const char* text;
};
constexpr Fault needs_rate{
    1, "The input data set indicates an infusion type of dosing. You must specify the RATE= option in "
       "the CMPTMODEL statement. The procedure will exit."};
constexpr Fault needs_duration{2, "The input data set indicates an infusion type of dosing. You must specify the DURN= "
                                  "option in the CMPTMODEL statement. The procedure will exit."};
constexpr Fault rate_not_positive{3, "Values for the RATE variable must be positive. The procedure will exit."};
constexpr Fault needs_oral{
    4, "The input data set indicates an oral dosing. You must specify the ADMTYPE= ORAL option in the "
       "CMPTMODEL statement to fit an oral dose model. The procedure will exit."};
constexpr Fault unknown_code{5, "The value of _CMPT_TYPE_ is not the code of a dose record. The procedure will exit."};
constexpr Fault needs_intravenous{
    6, "The input data set indicates an intravenous dosing. You must specify the ADMTYPE= IVB or "
       "INF option in the CMPTMODEL statement. The procedure will exit."};
constexpr Fault too_many{
    7, "_CMPT_DOSE_CNT_ or _CMPT_SSDOSE_CNT_ is above the number of dose variables in the data set. The "
       "procedure will exit."};
constexpr Fault faults[] = {needs_rate,   needs_duration,    rate_not_positive, needs_oral,
                            unknown_code, needs_intravenous, too_many};

// One dose as expressions of the program.
struct DoseTerms {
  std::string amount, time, rate, interval;
  bool is_numbered = false;
};

class RecordWriter {
public:
  RecordWriter(StatementText& text, const Model& model)
      : text_(text), model_(model), oral_(model.administration == Administration::oral)
  {
    for (const Variable& v : model.records.names)
      infusions_ = infusions_ || v.name.starts_with("_CMPT_RATE") || v.name.starts_with("_CMPT_SSRATE");
    infusions_ = !oral_ && (infusions_ || model.given(rate) || model.given(durn) ||
                            model.administration == Administration::infusion);
  }

  void write()
  {
    write_flags(text_, model_);
    write_scales_and_doses(text_, model_);
    write_rates(text_, model_);
    write_course_options();
    write_exponents(text_, model_);
    text_.add("$PCONC = .;");
    write_arrays();
    write_time_check();
    write_code();
    text_.add("_cmpt_total = 0;");
    write_sum("_cmpt_history", "", "_CMPT_DOSE_CNT_", model_.records.doses, &RecordWriter::write_dose);
    write_sum("_cmpt_steady", "SS", "_CMPT_SSDOSE_CNT_", model_.records.steady, &RecordWriter::write_steady_dose);
    for (const Fault& f : faults) text_.add("if _cmpt_fault = " + number(f.number) + " then abort '" + f.text + "';");
    text_.add("if @" + err() + " eq 0 and @" + merr() + " eq 0 and _cmpt_history+_cmpt_steady > 0 then");
    text_.add("$PCONC = _cmpt_total/@scale1;");
    text_.add("else $PCONC = .;");
  }

private:
  std::string err() const { return std::string(model_.family()) + "_err"; }
  std::string merr() const { return std::string(model_.family()) + "_merr"; }
  // A variable of the data set; missing when it lacks it.
  std::string data(const std::string& name) const { return model_.records.has(name) ? name : "."; }
  std::string data_variable(const std::string& name) const { return model_.records.has(name) ? name : "_cmpt_absent"; }
  void fault(const std::string& when, const Fault& f)
  {
    text_.add("if " + when + " then _cmpt_fault = " + number(f.number) + ";");
  }

  // @rate and @durn: -101 when the option is not given. An option that is not above 0 makes the input invalid.
  void write_course_options()
  {
    if (oral_) return;
    for (const Option o : {rate, durn}) {
      const std::string name = o == rate ? "@rate" : "@durn";
      text_.add(name + " = " + (model_.given(o) ? model_.text(o) : "-101") + ";");
      if (model_.given(o)) text_.add("if " + name + " le 0 then @" + err() + " = 1;");
    }
  }

  void write_arrays()
  {
    text_.add("_cmpt_absent = .;");
    for (const char* const steady : {"", "SS"}) {
      const int count = *steady == '\0' ? model_.records.doses : model_.records.steady;
      for (const char* const what : {"DOSE", "DTIME", "RATE", "II"}) {
        const bool interval = what[0] == 'I';
        if (interval && *steady == '\0') continue;
        const std::string stem = std::string("_CMPT_") + (interval ? "" : steady) + what;
        std::string elements;
        for (int k = 1; k <= count; ++k) elements += " " + data_variable(stem + number(k));
        text_.add("array " + array_of(stem) + "[" + number(count) + "]" + elements + ";");
      }
    }
  }
  std::string array_of(const std::string& stem) const
  {
    return stem + "_LIST" + (model_.earlier > 0 ? number(model_.earlier + 1) : ""); // each model declares its own
  }

  void write_time_check()
  {
    text_.add("@" + merr() + " = 0;");
    const auto check = [&](const std::string& time) {
      return "if " + time + " ne . and " + time + " < 0 then @" + merr() + " = 1;";
    };
    for (const char* const stem : {"_CMPT_DTIME", "_CMPT_SSDTIME"}) {
      const std::string name = stem;
      if (model_.records.has(name + "_")) text_.add(check(name + "_"));
      const int count = name == "_CMPT_DTIME" ? model_.records.doses : model_.records.steady;
      text_.add("do @j = 1 to " + number(count) + ";");
      text_.add(check(array_of(name) + "[@j]"));
      text_.add("end;");
    }
  }

  // _cmpt_history, _cmpt_steady (0 none, 1 the single dose, 2 the numbered ones) and _cmpt_route, from the code.
  void write_code()
  {
    text_.add("_cmpt_fault = 0; _cmpt_history = 0; _cmpt_steady = 0; _cmpt_route = 0;");
    std::map<std::tuple<Doses, Doses, Route>, std::string> groups;
    for (const DoseCode& c : dose_codes()) {
      std::string& list = groups[{c.history, c.steady, c.route}];
      list += (list.empty() ? "'" : ",'") + std::string(c.code) + "'";
    }
    text_.add("select(_CMPT_TYPE_);");
    for (const auto& [meaning, list] : groups) {
      const auto& [history, steady, route] = meaning;
      text_.add("when(" + list + ") do; _cmpt_history = " + number(history) + "; _cmpt_steady = " + number(steady) +
                "; _cmpt_route = " + number(route) + "; end;");
    }
    text_.add("otherwise _cmpt_fault = " + number(unknown_code.number) + ";");
    text_.add("end;");
    const std::string oral = number(Route::oral), family = number(Route::family);
    if (oral_)
      fault("_cmpt_route ne 0 and _cmpt_route ne " + oral + " and _cmpt_route ne " + family, needs_intravenous);
    else
      fault("_cmpt_route = " + oral, needs_oral);
  }

  using DoseStep = void (RecordWriter::*)(const DoseTerms&);
  // Adds to _cmpt_total what the single dose or the numbered doses give.
  void write_sum(const std::string& which, const std::string& steady, const std::string& count, int most, DoseStep step)
  {
    const std::string stem = "_CMPT_" + steady;
    const auto interval = [&](const std::string& of) { return steady.empty() ? "." : of; };
    text_.add("if " + which + " = 1 then do;");
    (this->*step)(
        {data(stem + "DOSE_"), data(stem + "DTIME_"), data(stem + "RATE_"), interval(data("_CMPT_II_")), false});
    text_.add("_cmpt_total = _cmpt_total+@amount;");
    text_.add("end;");
    text_.add("else if " + which + " = 2 then do;");
    fault(data(count) + " > " + number(most), too_many);
    text_.add("if not (" + data(count) + " >= 1) then _cmpt_total = .;");
    text_.add("do @j = 1 to " + number(most) + ";");
    text_.add("if @j le " + data(count) + " then do;");
    const auto element = [&](const std::string& of) { return array_of(of) + "[@j]"; };
    (this->*step)(
        {element(stem + "DOSE"), element(stem + "DTIME"), element(stem + "RATE"), interval(element("_CMPT_II")), true});
    text_.add("_cmpt_total = _cmpt_total+@amount;");
    text_.add("end;");
    text_.add("end;");
    text_.add("end;");
  }

  // @mrate: 0 a bolus, above 0 the rate in the data, -1 RATE=, -2 DURN=. Then @trate and @tdurn, rate and duration.
  void write_course(const DoseTerms& dose)
  {
    text_.add("@mrate = 0;");
    const std::string by_option = model_.given(rate) ? "-1" : "-2";
    const auto when = [&](Route route, const std::string& value) {
      text_.add("if _cmpt_route = " + number(route) + " then @mrate = " + value + ";");
    };
    when(Route::data_rate, dose.rate);
    when(Route::duration, "-2");
    when(Route::option_rate, "-1");
    if (model_.administration == Administration::infusion) when(Route::family, by_option);
    if (dose.is_numbered) // each dose has a rate of its own
      text_.add("if " + dose.rate + " ne . and @mrate ne 0 then @mrate = " + dose.rate + ";");
    text_.add("@trate = @mrate;");
    text_.add("if @mrate = -1 then @trate = @rate;");
    text_.add("else if @mrate = -2 then @trate = " + dose.amount + "/@durn;");
    if (!model_.given(rate)) fault("@mrate = -1", needs_rate);
    if (!model_.given(durn)) fault("@mrate = -2", needs_duration);
    fault("@mrate < 0 and @mrate ne -1 and @mrate ne -2", rate_not_positive);
    text_.add("@tdurn = 0; if @trate > 0 then @tdurn = " + dose.amount + "/@trate;");
    text_.add("@bolus = " + dose.amount + "; if @trate ne 0 then @bolus = 0;");
  }

  // What has arrived in compartment j when the input has ended.
  std::string arrived(const Response& filling, int j) const
  {
    return (j == 1 ? "(@bolus+@trate*" : "(@trate*") + filling.amount(j, 1) + ")";
  }

  void write_dose(const DoseTerms& dose)
  {
    if (oral_) {
      const Response response(text_, model_, Input::depot, dose.time, "@w");
      return text_.add("@amount = " + dose.amount + "*" + response.amount(1, 1) + ";");
    }
    if (!infusions_) {
      const Response response(text_, model_, Input::dose, dose.time, "@w");
      return text_.add("@amount = " + dose.amount + "*" + response.amount(1, 1) + ";");
    }
    write_course(dose);
    text_.add("@during = " + dose.time + "; if @tdurn < @during then @during = @tdurn;");
    text_.add("@after = " + dose.time + "-@during;");
    const Response filling(text_, model_, Input::infusion, "@during", "@v"),
        emptying(text_, model_, Input::dose, "@after", "@w");
    std::string sum;
    for (int j = 1; j <= model_.compartments; ++j)
      sum += (j == 1 ? "" : "+") + emptying.amount(1, j) + "*" + arrived(filling, j);
    text_.add("@amount = " + sum + ";");
  }

  // Doses with the same interval for ever, the last of them the given time ago. Infusions longer than the interval
  // overlap: @more of them still run.
  void write_steady_dose(const DoseTerms& dose)
  {
    text_.add("@amount = .;");
    text_.add("if " + dose.interval + " > 0 then do;");
    std::string since = dose.time;
    if (oral_) {
      text_.add("@depot = -" + dose.amount + "/expm1(-@ka*" + dose.interval + ");");
      const Response carried(text_, model_, Input::depot, dose.interval, "@v");
      for (int j = 1; j <= model_.compartments; ++j)
        text_.add("@x" + number(j) + " = @depot*" + carried.amount(j, 1) + ";");
    } else if (infusions_) {
      write_course(dose);
      text_.add("@more = 0; if @tdurn > " + since + " then @more = ceil((@tdurn-" + since + ")/" + dose.interval +
                ");");
      const Response filling(text_, model_, Input::infusion, "@tdurn", "@v");
      for (int j = 1; j <= model_.compartments; ++j) text_.add("@x" + number(j) + " = " + arrived(filling, j) + ";");
      text_.add("@after = " + since + "+@more*" + dose.interval + "-@tdurn;");
    } else {
      for (int j = 1; j <= model_.compartments; ++j)
        text_.add("@x" + number(j) + " = " + (j == 1 ? dose.amount : "0") + ";");
    }
    write_steady_state(text_, model_, dose.interval, "@x");
    const Response emptying(text_, model_, Input::dose, infusions_ ? "@after" : since, "@w");
    std::string sum;
    for (int j = 1; j <= model_.compartments; ++j)
      sum += (j == 1 ? "" : "+") + emptying.amount(1, j) + "*@x" + number(j);
    if (oral_) {
      const Response depot(text_, model_, Input::depot, since, "@v");
      sum += "+@depot*" + depot.amount(1, 1);
    }
    text_.add("@amount = " + sum + ";");
    if (infusions_) write_running(dose);
    text_.add("end;");
  }

  void write_running(const DoseTerms& dose)
  {
    text_.add("do @k = 0 to @more-1;");
    const Response running(text_, model_, Input::infusion, dose.time + "+@k*" + dose.interval, "@v");
    text_.add("@amount = @amount+@trate*" + running.amount(1, 1) + ";");
    text_.add("end;");
  }

  StatementText& text_;
  const Model& model_;
  const bool oral_;
  bool infusions_ = false; // some dose may be an infusion
};

} // namespace

void write_dose_records(StatementText& text, const Model& model)
{
  RecordWriter(text, model).write();
}

} // namespace torvale::compartment
