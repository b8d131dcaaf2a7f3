#include "compartment/events.h"

#include "compartment/amounts.h"
#include "compartment/constants.h"
#include "compartment/fixed_dose.h"

namespace torvale::compartment {

namespace {

std::string number(auto x)
{
  return std::to_string(static_cast<int>(x));
}

class EventWriter {
public:
  EventWriter(StatementText& text, const Model& model)
      : text_(text), model_(model), events_(model.events), amounts_(text, model),
        oral_(model.administration == Administration::oral)
  {
  }

  void write()
  {
    write_flags(text_, model_);
    write_scales_and_doses(text_, model_);
    write_rates(text_, model_);
    write_exponents(text_, model_);
    write_record();
    write_faults();
    write_passage();
    for (int place = 1; place <= events_.places; ++place) write_place(place);
    write_reset();
    text_.add("if @dosing then do;");
    write_dose();
    text_.add("end;");
    write_results();
  }

private:
  // A variable of the record; missing counts as 0.
  std::string item(EventItem i) const { return events_.has(i) ? "coalesce(" + events_.of(i) + ",0)" : "0"; }
  std::string err() const { return "@" + std::string(model_.family()) + "_err"; }
  std::string kept(const char* what, int place) const { return "@" + std::string(what) + number(place); }

  // What the record asks for. All of it is data.
  void write_record()
  {
    text_.add("@time = " + events_.of(EventItem::time) + "; @before = lag(" + events_.of(EventItem::time) + ");");
    text_.add("@amt = " + item(EventItem::amt) + ";");
    text_.add("@evid = " +
              (events_.has(EventItem::evid) ? "coalesce(" + events_.of(EventItem::evid) + ",@amt>0)"
                                            : std::string("@amt > 0")) +
              ";");
    text_.add("@dosing = @evid = 1 or @evid = 4; @reset = @evid = 3 or @evid = 4;");
    text_.add("_cmpt_used = 1; if @evid ne 0 or " + item(EventItem::mdv) + " = 1 then _cmpt_used = .;");
    text_.add("@cmt = " + item(EventItem::cmt) + ";");
    text_.add(std::string("@into = @cmt; if @cmt = 0 then @into = 1;") + (oral_ ? " @into = @into-1;" : ""));
    text_.add("@speed = " + item(EventItem::rate) + "; @every = " + item(EventItem::ii) +
              "; @more = " + item(EventItem::addl) + "; @ss = " + item(EventItem::ss) + ";");
    text_.add("@endless = @ss > 0 and @every = 0 and @amt = 0 and @speed > 0;");
    text_.add("@passed = 0; if @before ne . and not @reset then @passed = @time-@before;");
  }

  // Data that cannot be meant: the run ends, and the message names subject and record.
  void write_faults()
  {
    const std::string most = number(model_.compartments + (oral_ ? 1 : 0));
    const auto refuse = [&](const std::string& when, const std::string& words) {
      text_.add("if " + when + " then abort '" + words + "';");
    };
    refuse("@time = .", "The time of the event record is missing");
    refuse("not @reset and @time < @before",
           "Time falls from one event record to the next: it may only at EVID 3 and 4");
    refuse("@evid ne 0 and @evid ne 1 and @evid ne 2 and @evid ne 3 and @evid ne 4", "EVID must be 0, 1, 2, 3 or 4");
    refuse("@amt < 0", "The amount of the dose is negative");
    refuse("@evid = 0 and @amt > 0", "An observation (EVID 0) has an amount");
    refuse("@cmt < 0 or @cmt > " + most + " or @cmt ne int(@cmt)", "CMT names a compartment that the model has not");
    refuse("@dosing and @speed ne 0 and @amt = 0 and not @endless",
           "An infusion has no duration: its amount is 0 or missing");
    refuse("@dosing and @speed < 0 and @speed ne -1 and @speed ne -2",
           "RATE must be above 0, 0 for a bolus, -1 for RATE= or -2 for DURN=");
    if (!model_.given(Option::rate)) refuse("@dosing and @speed = -1", "RATE is -1, but CMPTMODEL has no RATE=");
    if (!model_.given(Option::durn)) refuse("@dosing and @speed = -2", "RATE is -2, but CMPTMODEL has no DURN=");
    refuse("@dosing and (@more < 0 or @more ne int(@more))", "ADDL must be a whole number from 0");
    refuse("@dosing and @more > 0 and @every le 0", "ADDL asks for further doses, but II is not above 0");
    refuse("@dosing and @ss > 0 and @every le 0 and not @endless", "SS asks for a steady state, but II is not above 0");
    refuse("@dosing and @ss ne 0 and @ss ne 1 and @ss ne 2", "SS must be 0, 1 or 2");
  }

  // The amounts @q, carried over the interval with the parameters of this record.
  void write_passage()
  {
    for (int k = amounts_.first(); k <= amounts_.last(); ++k) text_.add("retain " + Amounts::of("@q", k) + " 0;");
    amounts_.pass("@q", "@passed", "@p");
    for (int k = amounts_.first(); k <= amounts_.last(); ++k)
      text_.add(Amounts::of("@q", k) + " = " + Amounts::of("@p", k) + ";");
  }

  // Fills the group with the amount in the compartment `into`, 0 in the others.
  void put_into(const std::string& name, const std::string& into, const std::string& amount)
  {
    for (int k = amounts_.first(); k <= amounts_.last(); ++k)
      text_.add(Amounts::of(name, k) + " = 0; if " + into + " = " + number(k) + " then " + Amounts::of(name, k) +
                " = " + amount + ";");
  }

  // A place: `left` doses of @size each into compartment @where, the first at @start, @step apart, each running for
  // @length with the rate @flow (a bolus for 0).
  void write_place(int place)
  {
    for (const char* const what : {"left", "size", "start", "flow", "length", "where", "step"})
      text_.add("retain " + kept(what, place) + " 0;");
    text_.add("if " + kept("left", place) + " > 0 and " + kept("start", place) + " le @time then do;");
    if (!events_.trains) {
      write_acting(place, kept("start", place));
      text_.add("if " + kept("start", place) + "+" + kept("length", place) + " le @time then " + kept("left", place) +
                " = 0;");
    } else {
      const std::string start = kept("start", place), step = kept("step", place), left = kept("left", place);
      const auto begun = [&](const std::string& by) { // doses whose time is at most `by`
        return "@over = 0; if " + start + " le " + by + " then @over = 1; if @over and " + step +
               " > 0 then @over = floor((" + by + "-" + start + ")/" + step + ")+1; if @over > " + left +
               " then @over = " + left + ";";
      };
      text_.add(begun("@time"));
      text_.add("do @i = 0 to @over-1;");
      write_acting(place, start + "+@i*" + step);
      text_.add("end;");
      text_.add(begun("(@time-" + kept("length", place) + ")"));
      text_.add(start + " = " + start + "+@over*" + step + "; " + left + " = " + left + "-@over;");
    }
    text_.add("end;");
  }

  // One dose of a place that has begun: what it brings within the interval is there at its end.
  void write_acting(int place, const std::string& start)
  {
    text_.add("@from = " + start + ";");
    put_into("@b", kept("where", place), kept("size", place));
    if (!events_.infusions) {
      amounts_.pass("@b", "@time-@from", "@p");
      return amounts_.add("@q", "@p");
    }
    text_.add("@to = @from+" + kept("length", place) + ";");
    text_.add("if @time < @to then @to = @time;");
    text_.add("if " + kept("length", place) + " > 0 and @from < @time-@passed then @from = @time-@passed;");
    text_.add("if @from < @to or " + kept("length", place) + " = 0 then do;");
    put_into("@r", kept("where", place), kept("flow", place));
    amounts_.fill("@r", "@to-@from", "@z");
    text_.add("if " + kept("length", place) + " > 0 then do;");
    for (int k = amounts_.first(); k <= amounts_.last(); ++k)
      text_.add(Amounts::of("@b", k) + " = " + Amounts::of("@z", k) + ";");
    text_.add("end;");
    amounts_.pass("@b", "@time-@to", "@p");
    amounts_.add("@q", "@p");
    text_.add("end;");
  }

  void clear()
  {
    amounts_.set_all("@q", "0");
    for (int place = 1; place <= events_.places; ++place) text_.add(kept("left", place) + " = 0;");
  }

  void write_reset()
  {
    text_.add("if @reset then do;");
    clear();
    text_.add("end;");
  }

  void write_dose()
  {
    text_.add("@size = @amt" + (events_.bioavailability.empty() ? "" : "*" + events_.bioavailability) + ";");
    text_.add("@lag = " + (events_.lag.empty() ? std::string("0") : events_.lag) + "; if @endless then @lag = 0;");
    if (!events_.bioavailability.empty()) text_.add("if " + events_.bioavailability + " < 0 then " + err() + " = 1;");
    if (!events_.lag.empty()) text_.add("if @lag < 0 then " + err() + " = 1;");
    text_.add("@flow = 0; @length = 0;");
    if (events_.infusions) {
      text_.add("if @endless then do; @flow = @speed; @length = 1e30; end;");
      text_.add("else if @speed > 0 then do; @flow = @speed; @length = @size/@flow; end;");
      if (model_.given(Option::rate))
        text_.add("else if @speed = -1 then do; @flow = $RATE; if @flow le 0 then " + err() +
                  " = 1; @length = @size/@flow; end;");
      if (model_.given(Option::durn))
        text_.add("else if @speed = -2 then do; @length = $DURN; if @length le 0 then " + err() +
                  " = 1; @flow = @size/@length; end;");
    }
    text_.add("@older = 0;"); // doses of the steady state that still run, or are still to come
    if (events_.steady) write_steady();
    text_.add("@wait = 1+@more+@older; @first = @time+@lag-@older*@every;");
    text_.add("if not (@lag > 0) and @length = 0 then do;"); // a bolus at once
    put_into("@b", "@into", "@size");
    amounts_.add("@q", "@b");
    text_.add("@wait = @more; @first = @time+@every;");
    text_.add("end;");
    for (int place = 1; place <= events_.places; ++place) {
      text_.add("if @wait > 0 and " + kept("left", place) + " le 0 then do;");
      for (const auto& [what, from] : {std::pair{"left", "@wait"},
                                       {"size", "@size"},
                                       {"start", "@first"},
                                       {"flow", "@flow"},
                                       {"length", "@length"},
                                       {"where", "@into"},
                                       {"step", "@every"}})
        text_.add(kept(what, place) + " = " + from + ";");
      text_.add("@wait = 0;");
      text_.add("end;");
    }
    // No place is left. A lag may be at fault that a far point of the random effects makes long: such a point has no
    // value. Otherwise the data are.
    if (!events_.lag.empty() || model_.given(Option::rate) || model_.given(Option::durn)) {
      text_.add("if @wait > 0 then do;");
      amounts_.set_all("@q", ".");
      text_.add("end;");
    } else {
      text_.add(
          "if @wait > 0 then abort 'More doses act or wait at the same time than there are places for: give more by "
          "PLACES= of EVENTS, or sort the data by subject and time';");
    }
  }

  // What the doses before this one have left, when there have been such doses for ever.
  void write_steady()
  {
    text_.add("if @ss > 0 then do;");
    text_.add("if @ss = 1 then do;");
    clear();
    text_.add("end;");
    if (events_.infusions) {
      text_.add("if @endless then do;");
      put_into("@b", "@into", "@flow");
      amounts_.balance("@b");
      text_.add("end;");
      text_.add("else do;");
    } else {
      text_.add("do;");
    }
    // Of the doses that came every so often the last to arrive did so @since ago; a lag of several intervals leaves
    // @late of them to come.
    text_.add("@late = floor(@lag/@every); @since = (@late+1)*@every-@lag;");
    text_.add("@older = @late;");
    put_into("@b", "@into", "@size");
    if (events_.infusions) {
      text_.add("@running = 0; if @length > @since then @running = ceil((@length-@since)/@every);");
      text_.add("@older = @late+@running;");
      put_into("@r", "@into", "@flow");
      amounts_.fill("@r", "@length", "@z");
      text_.add("if @length > 0 then do;");
      for (int k = amounts_.first(); k <= amounts_.last(); ++k)
        text_.add(Amounts::of("@b", k) + " = " + Amounts::of("@z", k) + ";");
      text_.add("end;");
    }
    amounts_.repeat("@b", "@every");
    amounts_.pass("@b", events_.infusions ? "@since+@running*@every-@length" : "@since", "@p");
    for (int k = amounts_.first(); k <= amounts_.last(); ++k)
      text_.add(Amounts::of("@b", k) + " = " + Amounts::of("@p", k) + ";");
    if (events_.infusions) {
      text_.add("do @i = 0 to @running-1;");
      amounts_.fill("@r", "@since+@i*@every", "@z");
      amounts_.add("@b", "@z");
      text_.add("end;");
    }
    text_.add("end;");
    amounts_.add("@q", "@b");
    text_.add("end;");
  }

  void write_results()
  {
    // What is invalid at one record is in the amounts of those that follow.
    text_.add("if " + err() + " ne 0 then do;");
    amounts_.set_all("@q", ".");
    text_.add("end;");
    for (const Result& r : results(model_))
      text_.add(model_.text(r.option) + " = " + Amounts::of("@q", r.compartment) + "/" +
                Amounts::of("@scale", r.compartment) + ";");
    // An observation may name the compartment that it was made in.
    for (int k = amounts_.first(); k <= amounts_.last(); ++k)
      if (k != 1)
        text_.add("if not @dosing and @cmt > 0 and @into = " + number(k) + " then $PCONC = " + Amounts::of("@q", k) +
                  "/" + Amounts::of("@scale", k) + ";");
  }

  StatementText& text_;
  const Model& model_;
  const Events& events_;
  Amounts amounts_;
  const bool oral_;
};

} // namespace

void write_events(StatementText& text, const Model& model)
{
  EventWriter(text, model).write();
}

} // namespace torvale::compartment
