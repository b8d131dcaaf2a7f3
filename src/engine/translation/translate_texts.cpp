// Functions of texts: one table of those that give a text, one of those that give a number.

#include "engine/translation/translate.h"

#include "engine/functions/dates.h"
#include "engine/functions/names.h"

#include <algorithm>
#include <cmath>

namespace torvale::engine {

using namespace syntax;

struct TextRow {
  std::string_view name;
  TextOp op;
  int texts_least, texts_most; // leading text arguments
  int numbers_least, numbers_most;
};

static constexpr TextRow text_rows[] = {
    {"SUBSTR", TextOp::substring, 1, 1, 1, 2},    {"SUBSTRN", TextOp::substring, 1, 1, 1, 2},
    {"UPCASE", TextOp::upper, 1, 1, 0, 0},        {"LOWCASE", TextOp::lower, 1, 1, 0, 0},
    {"PROPCASE", TextOp::proper, 1, 1, 0, 0},     {"TRIM", TextOp::trim, 1, 1, 0, 0},
    {"TRIMN", TextOp::trim, 1, 1, 0, 0},          {"LEFT", TextOp::left, 1, 1, 0, 0},
    {"STRIP", TextOp::strip, 1, 1, 0, 0},         {"REVERSE", TextOp::reverse, 1, 1, 0, 0},
    {"COMPRESS", TextOp::compress, 1, 2, 0, 0},   {"TRANWRD", TextOp::replace, 3, 3, 0, 0},
    {"TRANSLATE", TextOp::translate, 3, 3, 0, 0}, {"REPEAT", TextOp::repeat, 1, 1, 1, 1},
};

struct QuestionRow {
  std::string_view name;
  TextQuestion question;
  int texts_least, texts_most;
};

static constexpr QuestionRow question_rows[] = {
    {"LENGTH", TextQuestion::length, 1, 1},    {"LENGTHN", TextQuestion::length_zero, 1, 1},
    {"INDEX", TextQuestion::index, 2, 2},      {"FIND", TextQuestion::index, 2, 2},
    {"INDEXC", TextQuestion::index_any, 2, 2}, {"VERIFY", TextQuestion::verify, 2, 2},
    {"COUNT", TextQuestion::count, 2, 2},      {"COUNTW", TextQuestion::words, 1, 2},
    {"RANK", TextQuestion::rank, 1, 1},
};

// PUT and INPUT: values and texts by formats.
Value Translator::converted(const Expr& e, const std::string& name)
{
  const auto wrong = [&](const std::string& why) {
    return Value{fail(message::wrong_arguments, e.where, why), no_text};
  };
  const std::size_t count = e.args.size();
  if (count < 1 || count > 2) return wrong(name + " takes a value and a format.");
  std::string format;
  if (count == 2) {
    const Expr& given = *e.args[1]; // 8.2 scans as a number where no format is expected
    const bool named = given.kind == ExprKind::text || given.kind == ExprKind::variable;
    format = named ? std::string(given.name) : to_text(given);
    if (const std::string fault = format_fault(format); !fault.empty()) return wrong(fault);
  }
  const Value v = value_of(*e.args[0]);
  if (name == "PUT") {
    if (v.is_text() && format.empty()) return v;
    if (v.is_text()) return wrong("PUT with a format takes a number; a text is written by itself.");
    TextNode n;
    n.op = TextOp::put;
    n.number = v.number;
    n.length = 32;
    n.characters = std::move(format);
    return Value{no_node, text_.make(std::move(n))};
  }
  std::string error;
  const TextId by = format.empty() ? no_text : text_.constant(format);
  const NodeId n = text_.ask(TextQuestion::to_number, as_text(v, e.where), by, false, &error);
  return n == no_node ? Value{fail(message::unsupported, e.where, error), no_text} : Value{n, no_text};
}

// INTCK and INTNX: the unit and the place are constant texts.
Value Translator::interval_function(const Expr& e, const std::string& name)
{
  const auto wrong = [&](const std::string& why) {
    return Value{fail(message::wrong_arguments, e.where, why), no_text};
  };
  const std::size_t count = e.args.size(), most = name == "INTCK" ? 3 : 4;
  const bool unit_known = count >= 3 && count <= most && e.args[0]->kind == ExprKind::text;
  if (!unit_known || (count == 4 && e.args[3]->kind != ExprKind::text))
    return wrong(name + " takes a unit in quotes, a date and a " +
                 (name == "INTCK" ? "date." : "number, and a place in quotes."));
  const NodeId from = number_of(*e.args[1]), second = number_of(*e.args[2]);
  std::string error;
  const NodeId n = name == "INTCK" ? interval_count(graph_, e.args[0]->name, from, second, &error)
                                   : interval_step(graph_, e.args[0]->name, from, second,
                                                   count == 4 ? e.args[3]->name : std::string_view(), &error);
  return n == no_node ? wrong(error) : Value{n, no_text};
}

Value Translator::wrong_count(const Expr& e, const std::string& takes)
{
  return Value{fail(message::wrong_arguments, e.where, upper(e.name) + " takes " + takes + "."), no_text};
}

Value Translator::text_made(const TextRow& row, const Expr& e)
{
  const int count = static_cast<int>(e.args.size()), texts = std::min(count, row.texts_most);
  const int least = row.texts_least + row.numbers_least, most = row.texts_most + row.numbers_most;
  if (count < least || count > most)
    return wrong_count(e, std::to_string(least) + " to " + std::to_string(most) + " arguments");
  TextNode n;
  n.op = row.op;
  TextId* const sides[] = {&n.a, &n.b, &n.c};
  for (int k = 0; k < texts; ++k) *sides[k] = text_of(*e.args[static_cast<std::size_t>(k)]);
  if (count > texts) n.number = number_of(*e.args[static_cast<std::size_t>(texts)]);
  if (count > texts + 1) n.number2 = number_of(*e.args[static_cast<std::size_t>(texts) + 1]);
  n.length = row.op == TextOp::repeat || row.op == TextOp::replace ? 200 : text_.length(n.a);
  if (row.op == TextOp::substring && n.number2 != no_node && graph_.is_constant(n.number2) &&
      graph_.value(n.number2) >= 1.0)
    n.length = std::min(n.length, static_cast<std::int32_t>(std::fmin(graph_.value(n.number2), 32767.0)));
  return Value{no_node, text_.make(std::move(n))};
}

Value Translator::question_asked(const QuestionRow& row, const Expr& e)
{
  const int count = static_cast<int>(e.args.size());
  if (count < row.texts_least || count > row.texts_most)
    return wrong_count(e, std::to_string(row.texts_least) + " to " + std::to_string(row.texts_most) + " texts");
  const TextId a = text_of(*e.args[0]);
  const TextId b = count > 1 ? text_of(*e.args[1]) : no_text;
  std::string error;
  const NodeId n = text_.ask(row.question, a, b, false, &error);
  return Value{n == no_node ? fail(message::unsupported, e.where, error) : n, no_text};
}

// SCAN: word number k of a text.
Value Translator::scanned_word(const Expr& e)
{
  const std::size_t count = e.args.size();
  if (count < 2 || count > 3) return wrong_count(e, "a text, the number of a word and, if wanted, separators");
  TextNode n;
  n.op = TextOp::word;
  n.a = text_of(*e.args[0]);
  n.number = number_of(*e.args[1]);
  n.b = count == 3 ? text_of(*e.args[2]) : text_.constant(" .<(+&!$*);^-/,%|");
  n.length = text_.length(n.a);
  return Value{no_node, text_.make(std::move(n))};
}

// CAT joins texts as they are, CATT without trailing blanks, CATS without any around; CATX puts its first between them.
Value Translator::texts_joined(const Expr& e, const std::string& name)
{
  const std::vector<Value> all = arguments(e);
  const bool separated = name == "CATX";
  if (all.size() < (separated ? 2u : 1u)) return wrong_count(e, "at least one text");
  const auto part = [&](const Value& v) {
    const TextId t = as_text(v, e.where);
    if (name == "CAT") return t;
    TextNode n;
    n.op = name == "CATT" ? TextOp::trim : TextOp::strip;
    n.a = t;
    n.length = text_.length(t);
    return text_.make(std::move(n));
  };
  TextId joined = part(all[separated ? 1 : 0]);
  const auto append = [&](TextId t) {
    TextNode n;
    n.op = TextOp::concatenate;
    n.a = joined;
    n.b = t;
    n.length = text_.length(joined) + text_.length(t);
    joined = text_.make(std::move(n));
  };
  for (std::size_t k = separated ? 2 : 1; k < all.size(); ++k) {
    if (separated) append(as_text(all[0], e.where));
    append(part(all[k]));
  }
  return Value{no_node, joined};
}

NodeId Translator::is_blank(TextId t)
{
  std::string error; // a comparison with a constant uses no numbers of its own
  return text_.ask(TextQuestion::equal, t, text_.constant(""), false, &error);
}

// MISSING of a text: blank. Nothing when the argument is a number.
std::optional<Value> Translator::missing_text(const Expr& e)
{
  const Value v = value_of(*e.args[0]);
  if (!v.is_text()) return std::nullopt;
  return Value{is_blank(v.text), no_text};
}

// COALESCEC: the first that is not blank.
Value Translator::first_text(const Expr& e)
{
  Value chosen{no_node, as_text(value_of(*e.args.back()), e.where)};
  for (std::size_t k = e.args.size() - 1; k-- > 0;) {
    const Value t{no_node, as_text(value_of(*e.args[k]), e.where)};
    chosen = choose(is_blank(t.text), chosen, t);
  }
  return chosen;
}

std::optional<Value> Translator::text_function(const Expr& e)
{
  const std::string name = upper(e.name);
  for (const TextRow& row : text_rows)
    if (row.name == name) return text_made(row, e);
  for (const QuestionRow& row : question_rows)
    if (row.name == name) return question_asked(row, e);
  if (name == "SCAN") return scanned_word(e);
  if (name == "CAT" || name == "CATS" || name == "CATT" || name == "CATX") return texts_joined(e, name);
  if (name == "PUT" || name == "INPUT") return converted(e, name);
  if (name == "INTCK" || name == "INTNX") return interval_function(e, name);
  if (name == "MISSING" && !e.args.empty()) return missing_text(e);
  if (name == "COALESCEC" && !e.args.empty()) return first_text(e);
  return std::nullopt;
}

} // namespace torvale::engine
