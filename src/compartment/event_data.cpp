#include "compartment/event_data.h"

#include "host/messages/names/compartments.h"
#include "host/values/text.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace torvale::compartment {

namespace {

using syntax::cmptmodel_flag, syntax::cmptmodel_slot, syntax::events_slot;

constexpr int first_slot = static_cast<int>(events_slot::time), last_slot = static_cast<int>(events_slot::places);
constexpr std::string_view words[] = {"TIME", "AMT", "EVID", "CMT", "RATE", "II", "ADDL", "SS", "MDV"};
constexpr int most_places = 50;         // each costs as much as the amounts themselves
constexpr int doses_of_unknown_end = 3; // that many further doses may begin before such a dose is over

const Variable* find(std::span<const Variable> data, std::string_view name)
{
  const std::string wanted = host::wzstrup(name);
  for (const Variable& v : data)
    if (host::wzstrup(v.name) == wanted) return &v;
  return nullptr;
}

// The variables of the records that the statement names, or that have the usual names; empty where the data have none.
void find_variables(const syntax::STMT& statement, std::span<const Variable> data, Events& events)
{
  for (std::size_t k = 0; k < std::size(words); ++k) {
    const int slot = first_slot + static_cast<int>(k);
    const std::string name = statement.given(slot) ? statement.slot(slot).list.front().text : std::string(words[k]);
    const Variable* const v = find(data, name);
    if (v != nullptr && !v->character) events.name[k] = v->name;
  }
}

bool has_events(const syntax::STMT& statement)
{
  bool named = statement.flag(cmptmodel_flag::events);
  for (int slot = first_slot; slot <= last_slot; ++slot) named = named || statement.given(slot);
  return named;
}

// The columns of the records; what is missing, or has no column, is 0.
class Records {
public:
  Records(std::span<const Variable> data, const Events& events) : events_(events)
  {
    for (std::size_t k = 0; k < columns_.size(); ++k)
      if (const Variable* const v = events.name[k].empty() ? nullptr : find(data, events.name[k])) {
        columns_[k] = v->values;
        rows_ = std::max(rows_, v->values.size());
      }
  }

  std::size_t rows() const { return rows_; }
  double at(EventItem i, std::size_t row) const
  {
    const auto& column = columns_[static_cast<std::size_t>(i)];
    return row < column.size() && !std::isnan(column[row]) ? column[row] : 0.0;
  }
  bool resets(std::size_t row) const { return at(EventItem::evid, row) == 3.0 || at(EventItem::evid, row) == 4.0; }
  bool doses(std::size_t row) const
  {
    const double evid = at(EventItem::evid, row);
    return events_.has(EventItem::evid) ? evid == 1.0 || evid == 4.0 : at(EventItem::amt, row) > 0.0;
  }
  // When the last of a dose's inputs ends, without lags; a length that only the parameters tell counts as 0.
  double end(std::size_t row, double share) const
  {
    const double rate = at(EventItem::rate, row), amount = at(EventItem::amt, row);
    if (rate > 0.0 && amount == 0.0) return INFINITY; // at steady state for ever
    return at(EventItem::time, row) + at(EventItem::addl, row) * at(EventItem::ii, row) +
           (rate > 0.0 ? amount / rate * share : 0.0);
  }

private:
  const Events& events_;
  std::array<std::span<const double>, static_cast<std::size_t>(EventItem::count_)> columns_;
  std::size_t rows_ = 0;
};

// Goes through the records in the order of the file, which is that of time within a subject; where time falls another
// subject begins, or a reset. (A subject that is not told from the one before can only ask for more places.)
class RecordScan {
public:
  RecordScan(std::span<const Variable> data, Events& events) : events_(events), records_(data, events) {}

  void run()
  {
    for (std::size_t row = 0; row < records_.rows(); ++row) {
      const double time = records_.at(EventItem::time, row);
      if (!(time >= last_time_) || records_.resets(row)) acting_.clear();
      last_time_ = time;
      if (records_.doses(row)) add(row, time);
    }
  }

private:
  struct Acting {
    double end;
    int doses_left; // of unknown end: goes when so many doses have come
  };

  void add(std::size_t row, double time)
  {
    const double rate = records_.at(EventItem::rate, row), more = records_.at(EventItem::addl, row);
    const bool steady = records_.at(EventItem::ss, row) > 0.0;
    events_.infusions = events_.infusions || rate != 0.0;
    events_.steady = events_.steady || steady;
    events_.steady_overlap = events_.steady_overlap || (steady && rate != 0.0);
    events_.trains = events_.trains || more > 0.0 || (steady && (rate != 0.0 || !events_.lag.empty()));
    std::erase_if(acting_, [&](const Acting& a) { return a.end < time || a.doses_left == 0; });
    for (Acting& a : acting_) --a.doses_left;
    const bool waits = !events_.lag.empty() || rate != 0.0 || more > 0.0;
    if (!waits) return;
    // A bioavailability may double the course of an infusion.
    const double end = records_.end(row, events_.bioavailability.empty() ? 1.0 : 2.0);
    const bool unknown = !events_.lag.empty() || rate < 0.0 || std::isinf(end);
    acting_.push_back({unknown ? INFINITY : end, unknown ? doses_of_unknown_end + static_cast<int>(more) : -1});
    events_.places = std::max(events_.places, static_cast<int>(acting_.size()));
  }

  Events& events_;
  Records records_;
  double last_time_ = -INFINITY;
  std::vector<Acting> acting_;
};

} // namespace

bool read_events(const syntax::STMT& statement, std::span<const Variable> data, const host::MessagePlace& place,
                 host::MessageSink& log, Events& events)
{
  events.given = has_events(statement);
  if (!events.given) return true;
  find_variables(statement, data, events);
  for (std::size_t k = 0; k < std::size(words); ++k) {
    const int slot = first_slot + static_cast<int>(k);
    if (!events.name[k].empty() || !(statement.given(slot) || k < 2)) continue; // no dose without time and amount
    const std::string name = statement.given(slot) ? statement.slot(slot).list.front().text : std::string(words[k]);
    log.xpmlog(message::event_variable_unknown{.option = words[k], .name = name}, place);
    return false;
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
  else if (events.places > most_places) {
    log.xpmlog(message::too_many_doses_at_once{.count = events.places}, place);
    return false;
  }
  return true;
}

std::optional<Crossing> dose_across_subjects(const syntax::STMT& statement, std::span<const Variable> data,
                                             std::span<const std::size_t> outer, std::span<const std::size_t> inner)
{
  if (!has_events(statement)) return std::nullopt;
  Events events;
  find_variables(statement, data, events);
  const Records records(data, events);
  struct Acting {
    double end;
    std::size_t dose;
  };
  std::map<std::size_t, std::map<std::size_t, Acting>> acting; // by outer subject: the last end of each inner one
  for (std::size_t row = 0; row < records.rows(); ++row) {
    auto& inside = acting[outer[row]];
    for (const auto& [subject, dose] : inside)
      if (subject != inner[row] && dose.end > records.at(EventItem::time, row) && !records.resets(row))
        return Crossing{dose.dose, row};
    if (records.resets(row)) inside.clear(); // whatever acted, ends
    if (!records.doses(row)) continue;
    double end = records.end(row, 1.0);
    if (records.at(EventItem::addl, row) > 0.0) end = std::nextafter(end, INFINITY); // the last one acts when it comes
    const auto [at, first] = inside.try_emplace(inner[row], Acting{end, row});
    if (!first && end > at->second.end) at->second = {end, row};
  }
  return std::nullopt;
}

std::optional<std::size_t> falling_time(const syntax::STMT& statement, std::span<const Variable> data,
                                        std::span<const std::size_t> subject)
{
  if (!has_events(statement)) return std::nullopt;
  Events events;
  find_variables(statement, data, events);
  const Variable* const time = find(data, events.of(EventItem::time));
  if (time == nullptr) return std::nullopt;
  const Records records(data, events);
  for (std::size_t row = 1; row < records.rows(); ++row)
    if (time->values[row] < time->values[row - 1] && subject[row] == subject[row - 1] && !records.resets(row))
      return row;
  return std::nullopt;
}

} // namespace torvale::compartment
