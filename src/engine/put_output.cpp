// PUT and FILE: the lines that a program writes for one lane. Written when asked, never in tiles: an evaluation visits
// every record many times, at many points, in no order that a reader could follow.

#include "engine/checked_run.h"
#include "engine/frame_state.h"

#include <algorithm>

namespace torvale::engine {

using syntax::PutItem;

namespace {

// One line being written: text at the column where the pointer stands.
struct Line {
  std::string text;
  std::size_t column = 0; // from 0

  void write(const std::string& s)
  {
    if (text.size() < column + s.size()) text.resize(column + s.size(), ' ');
    text.replace(column, s.size(), s);
    column += s.size();
  }
};

std::size_t as_column(double v)
{
  return v >= 1.0 ? static_cast<std::size_t>(std::min(v, 32767.0)) : 1;
}

} // namespace

bool has_put(const CMPGLOBAL& gcmp)
{
  return std::any_of(gcmp.effects.begin(), gcmp.effects.end(),
                     [](const Effect& e) { return e.kind == Effect::Kind::put; });
}

void Frame::run_put(std::int64_t row, int point, std::vector<PutLine>& lines)
{
  const State& s = *state_;
  std::vector<NodeId> wanted;
  for (const Effect& e : s.gcmp.effects) {
    if (e.fatal()) continue;
    wanted.push_back(e.guard);
    for (const Effect::Item& item : e.items)
      if (item.number != no_node) wanted.push_back(item.number);
  }
  CheckedRun run(s.gcmp, *s.data, s.theta.data(), s.ran, s.ran_stride, point);
  run.start(row, wanted);
  PutLine target{"LOG", false, {}};
  Line line;
  const auto finish = [&] {
    lines.push_back({target.target, target.is_file, line.text});
    line = {};
  };
  bool held = false;
  for (const Effect& e : s.gcmp.effects) {
    if (e.fatal() || !(run.value(e.guard) != 0.0)) continue;
    if (e.kind == Effect::Kind::file) {
      const auto& file = *static_cast<const syntax::FileStatement*>(e.owner);
      target.target = std::string(file.target);
      target.is_file =
          file.is_name || !(syntax::same_name(file.target, "LOG") || syntax::same_name(file.target, "PRINT"));
      continue;
    }
    held = false;
    for (const Effect::Item& item : e.items) {
      const std::string value = item.text != no_text     ? run.text_value(item.text)
                                : item.number != no_node ? text_from_number(run.value(item.number), item.item->format)
                                                         : std::string();
      switch (item.item->kind) {
      case PutItem::Kind::text:
        line.write(std::string(item.item->text));
        break;
      case PutItem::Kind::value:
        line.write(value + " ");
        break;
      case PutItem::Kind::named_value:
      case PutItem::Kind::all:
      case PutItem::Kind::pdv:
        line.write(item.name + "=" + value + " ");
        break;
      case PutItem::Kind::column:
        line.column = as_column(run.value(item.number)) - 1;
        break;
      case PutItem::Kind::advance:
        line.column += as_column(run.value(item.number));
        break;
      case PutItem::Kind::next_line:
      case PutItem::Kind::next_page:
        finish();
        break;
      case PutItem::Kind::hold:
        held = true;
        break;
      }
    }
    if (!held) finish();
  }
  if (held) finish();
}

} // namespace torvale::engine
