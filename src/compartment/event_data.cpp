#include "compartment/event_data.h"

#include "host/message_names.h"
#include "host/text.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <cmath>

namespace torvale::compartment {

namespace {

using syntax::cmptmodel_flag, syntax::cmptmodel_slot, syntax::events_slot;

constexpr int first_slot = static_cast<int>(events_slot::time), last_slot = static_cast<int>(events_slot::places);
constexpr std::string_view words[] = {"TIME", "AMT", "EVID", "CMT", "RATE", "II", "ADDL", "SS", "MDV"};
constexpr int doses_of_unknown_end = 3; // that many further doses may begin before such a dose is over

const Variable* find(std::span<const Variable> data, std::string_view name)
{
  const std::string wanted = host::wzstrup(name);
  for (const Variable& v : data)
    if (host::wzstrup(v.name) == wanted) return &v;
  return nullptr;
}

// Goes through the records in the order of the file, which is that of time within a subject; where time falls another
// subject begins, or a reset. (A subject that is not told from the one before can only ask for more places.)
class RecordScan {
public:
  RecordScan(std::span<const Variable> data, Events& events) : events_(events)
  {
    for (std::size_t k = 0; k < columns_.size(); ++k)
      if (const Variable* const v = events.name[k].empty() ? nullptr : find(data, events.name[k])) {
        columns_[k] = v->values;
        rows_ = std::max(rows_, v->values.size());
      }
  }

  void run()
  {
    for (std::size_t row = 0; row < rows_; ++row) {
      const double time = at(EventItem::time, row), evid = at(EventItem::evid, row), amount = at(EventItem::amt, row);
      if (!(time >= last_time_) || evid == 3.0 || evid == 4.0) acting_.clear();
      last_time_ = time;
      const bool dose = events_.has(EventItem::evid) ? evid == 1.0 || evid == 4.0 : amount > 0.0;
      if (dose) add(row, time, amount);
    }
  }

private:
  struct Acting {
    double end;
    int doses_left; // of unknown end: goes when so many doses have come
  };

  double at(EventItem i, std::size_t row) const
  {
    const auto& column = columns_[static_cast<std::size_t>(i)];
    return row < column.size() && !std::isnan(column[row]) ? column[row] : 0.0;
  }

  void add(std::size_t row, double time, double amount)
  {
    const double rate = at(EventItem::rate, row), more = at(EventItem::addl, row), every = at(EventItem::ii, row);
    const bool steady = at(EventItem::ss, row) > 0.0;
    events_.infusions = events_.infusions || rate != 0.0;
    events_.steady = events_.steady || steady;
    events_.steady_overlap = events_.steady_overlap || (steady && rate != 0.0);
    events_.trains = events_.trains || more > 0.0 || (steady && rate != 0.0);
    std::erase_if(acting_, [&](const Acting& a) { return a.end < time || a.doses_left == 0; });
    for (Acting& a : acting_) --a.doses_left;
    const bool waits = !events_.lag.empty() || rate != 0.0 || more > 0.0;
    if (!waits) return;
    // A bioavailability may double the course of an infusion.
    const bool unknown = !events_.lag.empty() || rate < 0.0 || (steady && rate > 0.0 && amount == 0.0);
    const double length = rate > 0.0 ? amount / rate * (events_.bioavailability.empty() ? 1.0 : 2.0) : 0.0;
    const double end = time + more * every + length;
    acting_.push_back({unknown ? INFINITY : end, unknown ? doses_of_unknown_end + static_cast<int>(more) : -1});
    events_.places = std::max(events_.places, static_cast<int>(acting_.size()));
  }

  Events& events_;
  std::array<std::span<const double>, static_cast<std::size_t>(EventItem::count_)> columns_;
  std::size_t rows_ = 0;
  double last_time_ = -INFINITY;
  std::vector<Acting> acting_;
};

} // namespace

bool read_events(const syntax::STMT& statement, std::span<const Variable> data, const host::MessagePlace& place,
                 host::MessageSink& log, Events& events)
{
  bool named = false;
  for (int slot = first_slot; slot <= last_slot; ++slot) named = named || statement.given(slot);
  events.given = statement.flag(cmptmodel_flag::events) || named;
  if (!events.given) return true;
  for (std::size_t k = 0; k < std::size(words); ++k) {
    const int slot = first_slot + static_cast<int>(k);
    const std::string name = statement.given(slot) ? statement.slot(slot).list.front().text : std::string(words[k]);
    const Variable* const v = find(data, name);
    if (v != nullptr && !v->character) {
      events.name[k] = v->name;
    } else if (statement.given(slot) || k < 2) { // no dose without time and amount
      log.xpmlog(message::event_variable_unknown{.option = words[k], .name = name}, place);
      return false;
    }
  }
  const auto text = [&](cmptmodel_slot slot) {
    if (!statement.given(slot)) return std::string();
    const syntax::StItem& item = statement.slot(slot).list.front();
    return item.kind == syntax::StItem::Kind::number ? host::shortest(item.number) : item.text;
  };
  events.bioavailability = text(cmptmodel_slot::f);
  events.lag = text(cmptmodel_slot::alag);
  RecordScan(data, events).run();
  if (statement.given(events_slot::places))
    events.places = static_cast<int>(statement.slot(events_slot::places).number);
  return true;
}

} // namespace torvale::compartment
