// Output statements: PUT and FILE.
#include "language/builder/builder.h"

#include "language/lexical.h"

#include <algorithm>
#include <utility>

namespace torvale::language {

using namespace syntax;
using Kind = PutItem::Kind;

// An item of a PUT statement: its first symbol is `first`.
PutItem& Builder::put_item(Kind kind, const Value& first, Value& result)
{
  PutItem* item = scratch_->make<PutItem>();
  item->kind = kind;
  const Token token = first.token;
  const std::int16_t depth = result.depth;
  result = {};
  result.token = token;
  result.depth = depth;
  result.node = item;
  return *item;
}

// A value, with its format if one follows.
void Builder::put_value(Kind kind, std::span<Value> r, Value& result)
{
  Expr* const value = r[0].expr;
  const Token last = r.back().token;
  PutItem& item = put_item(kind, r[0], result);
  item.value = value;
  if (last.symbol == token_class::FMT) item.format = last.text;
}

void Builder::put_statement(std::span<Value> r, Value& result)
{
  std::vector<PutItem> list;
  for (const Value& v : items(r[1].list)) {
    if (!v.node) continue;
    list.push_back(*static_cast<PutItem*>(v.node));
    if (v.code == 6) list.push_back(list.back()); // "//" is two lines
  }
  if (r.size() > 3 && r[2].node) list.push_back(*static_cast<PutItem*>(r[2].node));
  PutStatement* s = statement<PutStatement>(StatementKind::put, r, result);
  s->items = arena_.copy(list);
}

template <> void Builder::on<Action::put_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_statement(r, result);
}

template <> void Builder::on<Action::put_mark>(const SEMARG& a, std::span<Value> r, Value& result)
{
  static constexpr Kind marks[] = {Kind::next_line, Kind::next_line, Kind::hold,     Kind::next_page,
                                   Kind::all,       Kind::pdv,       Kind::next_line};
  put_item(marks[a.arglist[0]], r[0], result);
  result.code = a.arglist[0];
}

template <> void Builder::on<Action::put_text>(const SEMARG&, std::span<Value> r, Value& result)
{
  const std::string_view text = r[0].token.text;
  put_item(Kind::text, r[0], result).text = text;
}

template <> void Builder::on<Action::put_value>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_value(Kind::value, r, result);
}

template <> void Builder::on<Action::put_named>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_value(Kind::named_value, r, result);
}

template <> void Builder::on<Action::put_column>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_item(Kind::column, r[0], result).value = number_expression(r[1].token);
}

template <> void Builder::on<Action::put_column_name>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_item(Kind::column, r[0], result).value = name_expression(r[1]);
}

template <> void Builder::on<Action::put_column_expression>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_item(Kind::column, r[0], result).value = r[2].expr;
}

template <> void Builder::on<Action::put_advance>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_item(Kind::advance, r[0], result).value = number_expression(r[1].token);
}

template <> void Builder::on<Action::put_advance_name>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_item(Kind::advance, r[0], result).value = name_expression(r[1]);
}

template <> void Builder::on<Action::put_advance_expression>(const SEMARG&, std::span<Value> r, Value& result)
{
  put_item(Kind::advance, r[0], result).value = r[2].expr;
}

template <> void Builder::on<Action::file_option_value>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token value = r[1].token;
  file_value_ =
      value.symbol == token_class::INT ? static_cast<std::int32_t>(std::clamp(value.number, 0.0, 32767.0)) : 0;
  result = r[0];
}

template <> void Builder::on<Action::file_option>(const SEMARG&, std::span<Value> r, Value&)
{
  const std::string word = upper_case(r[1].token.text);
  const std::int32_t value = std::exchange(file_value_, 0);
  if (value > 0 && (word == "LRECL" || word == "LINESIZE" || word == "LS"))
    file_.line_size = value;
  else if (word == "PAD" || word == "NOPAD")
    file_.pad = word == "PAD";
  else if (word == "DROPOVER" || word == "FLOWOVER" || word == "STOPOVER") {
    file_.drop_over = word == "DROPOVER";
    file_.stop_over = word == "STOPOVER";
  } else if (word == "MOD" || word == "OLD")
    file_.append = word == "MOD";
  else
    diagnostics_->warning(Problem::without_effect, r[1].token.where,
                          "This option of FILE has no effect. LRECL=, PAD, DROPOVER, STOPOVER and MOD have one.",
                          r[1].token.length);
}

template <> void Builder::on<Action::file_statement>(const SEMARG&, std::span<Value> r, Value& result)
{
  const Token target = r[1].token;
  FileStatement* s = statement<FileStatement>(StatementKind::file, r, result);
  s->line_size = file_.line_size;
  s->drop_over = file_.drop_over;
  s->stop_over = file_.stop_over;
  s->pad = file_.pad;
  s->append = file_.append;
  file_ = {};
  s->is_name = target.symbol == token_class::QS;
  s->target = target.text;
}

} // namespace torvale::language
