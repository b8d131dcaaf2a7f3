// PUT and FILE: the lines that a program writes for one lane. Written when asked, never in tiles: an evaluation visits
// every record many times, at many points, in no order that a reader could follow.

#include "engine/execution/checked_run.h"
#include "engine/execution/frame_state.h"
#include "host/values/text.h"

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

std::size_t as_distance(double v)
{
  return v == 0.0 ? 0 : as_column(v);
}

} // namespace

bool has_put(const CMPGLOBAL& gcmp)
{
  return std::any_of(gcmp.effects.begin(), gcmp.effects.end(),
                     [](const Effect& e) { return e.kind == Effect::Kind::put; });
}

namespace {

// What the values of an effect are made of.
void add_wanted(const Effect& e, const TextPool& texts, std::vector<NodeId>& wanted)
{
  wanted.push_back(e.guard);
  for (const Effect::Item& item : e.items) {
    if (item.number != no_node) wanted.push_back(item.number);
    texts.numbers_of(item.text, wanted);
  }
}

// The PUT and FILE statements of one record, in the order in which a run of the program comes to them.
class PutRun {
public:
  PutRun(const std::vector<const Effect*>& effects, const TextPool& texts, CheckedRun& run, std::vector<PutLine>& lines)
      : effects_(effects), texts_(texts), run_(run), lines_(lines)
  {
  }

  // Effects first..last-1, which stand in the passes of `loop` or of loops within it.
  void write(std::size_t first, std::size_t last, std::int32_t loop)
  {
    for (std::size_t k = first; k < last; ++k) {
      const std::int32_t inner = run_.nesting().step_into(loop, effects_[k]->loop);
      if (inner == loop) {
        execute(*effects_[k]);
        continue;
      }
      const std::size_t begin = k;
      std::vector<NodeId> wanted;
      for (; k < last && run_.nesting().within(effects_[k]->loop, inner); ++k) add_wanted(*effects_[k], texts_, wanted);
      run_.each_pass(inner, wanted, [&] { write(begin, k, inner); });
      --k;
    }
  }

  void end()
  {
    if (held_) finish();
    held_ = false;
  }

private:
  void execute(const Effect& e)
  {
    if (!(run_.value(e.guard) != 0.0)) return;
    if (e.kind == Effect::Kind::file) {
      end(); // a held line stays where it was begun
      const auto& file = *static_cast<const syntax::FileStatement*>(e.owner);
      target_ = std::string(file.target);
      file_ = &file;
      is_file_ = file.is_name || !(syntax::same_name(file.target, "LOG") || syntax::same_name(file.target, "PRINT"));
      return;
    }
    held_ = false;
    for (const Effect::Item& item : e.items) write(item);
    if (!held_) finish();
  }

  void write(const Effect::Item& item)
  {
    const std::string value = item.text != no_text     ? text_in_format(run_.text_value(item.text), item.format)
                              : item.number != no_node ? text_from_number(run_.value(item.number), item.format)
                                                       : std::string();
    switch (item.item->kind) {
    case PutItem::Kind::text:
      return line_.write(std::string(item.item->text));
    case PutItem::Kind::value:
      return line_.write(value + " ");
    case PutItem::Kind::named_value:
    case PutItem::Kind::all:
    case PutItem::Kind::pdv:
      return line_.write(item.name + "=" + value + " ");
    case PutItem::Kind::column:
      line_.column = as_column(run_.value(item.number)) - 1;
      return;
    case PutItem::Kind::advance:
      line_.column += as_distance(run_.value(item.number));
      return;
    case PutItem::Kind::next_line:
    case PutItem::Kind::next_page:
      return finish();
    case PutItem::Kind::hold:
      held_ = true;
      return;
    }
  }

  void finish()
  {
    const std::size_t size = file_ != nullptr && file_->line_size > 0 ? static_cast<std::size_t>(file_->line_size) : 0;
    std::string text = std::move(line_.text);
    line_ = {};
    if (file_ != nullptr && file_->stop_over && host::display_width(text) > size && size > 0) return emit(text);
    while (size > 0 && host::display_width(text) > size) {
      std::string rest = text;
      const std::string begin = first_characters(rest, size);
      if (file_->drop_over) rest.clear();
      if (rest.empty()) {
        text = begin;
        break;
      }
      emit(begin);
      text = rest;
    }
    if (size > 0 && file_->pad) text = host::padded_right(text, size);
    emit(text);
  }

  void emit(const std::string& text)
  {
    const bool append = file_ != nullptr && file_->append, stop = file_ != nullptr && file_->stop_over;
    lines_.push_back({target_, is_file_, append, stop ? file_->line_size : 0, text});
  }

  // Takes that many characters off the front.
  static std::string first_characters(std::string& text, std::size_t count)
  {
    std::size_t at = 0;
    for (; at < text.size() && (count > 0 || (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80); ++at)
      count -= (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80;
    std::string first = text.substr(0, at);
    text.erase(0, at);
    return first;
  }

  const std::vector<const Effect*>& effects_;
  const TextPool& texts_;
  CheckedRun& run_;
  std::vector<PutLine>& lines_;
  std::string target_ = "LOG";
  bool is_file_ = false;
  const syntax::FileStatement* file_ = nullptr;
  Line line_;
  bool held_ = false;
};

} // namespace

void Frame::run_put(std::int64_t row, int point, std::vector<PutLine>& lines)
{
  const State& s = *state_;
  std::vector<const Effect*> effects;
  std::vector<NodeId> wanted;
  for (const Effect& e : s.gcmp.effects) {
    if (e.fatal()) continue;
    effects.push_back(&e);
    add_wanted(e, s.gcmp.text, wanted);
    for (std::int32_t loop = e.loop; loop != 0; loop = s.gcmp.graph.loop_at(loop).parent)
      wanted.push_back(s.gcmp.graph.loop_at(loop).condition);
  }
  CheckedRun run(s.gcmp, *s.data, s.theta.data(), s.ran, s.ran_stride, point);
  run.start(row, wanted);
  PutRun put(effects, s.gcmp.text, run, lines);
  put.write(0, effects.size(), 0);
  put.end();
}

} // namespace torvale::engine
