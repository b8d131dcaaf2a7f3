// Procedure statements: lists into cells, and the end of each statement.
#include "language/builder/builder.h"

#include "language/lexical.h"
#include "syntax/statement_names.h"

namespace torvale::language {

using namespace syntax;
using Form = Value::Form;

STLIST& Builder::cell(int slot, char type, Position where)
{
  STLIST& c = proc_->current->fld[static_cast<std::size_t>(slot)];
  c.type = type;
  c.where = where;
  return c;
}

StItem Builder::item(StItem::Kind kind, Position where)
{
  StItem i;
  i.kind = kind;
  i.where = where;
  return i;
}

void Builder::add_names(STLIST& to, const std::vector<Name>& list, int group)
{
  for (const Name& n : list) {
    StItem i = item(StItem::Kind::name, n.where);
    i.text = std::string(n.text);
    i.group = group;
    to.list.push_back(std::move(i));
  }
}

void Builder::add_expressions(const std::vector<Expr*>& list, Position where)
{
  STLIST& c = cell(estimate_slot::expressions, 'l', where); // the same slot in CONTRAST and PREDICT
  for (Expr* e : list) {
    StItem i = item(StItem::Kind::expression, e->where);
    i.expr = e;
    c.list.push_back(std::move(i));
  }
}

void Builder::open_statement(const SEMARG& a, std::span<Value> r)
{
  STMT s;
  s.name = upper_case(r[0].token.text);
  s.nfld = a.arglist[0];
  s.fld.resize(static_cast<std::size_t>(s.nfld) + 1);
  s.where = r[0].token.where;
  proc_->statements.push_back(std::move(s));
  proc_->current = &proc_->statements.back();
  given_.clear();
}

// The TORVALE statement's record. Where that statement was beyond repair and has been dropped, an empty one stands in:
// the step is refused, and what follows is read for its own mistakes.
STMT& Builder::procedure_record()
{
  constexpr int largest_slot = 110;
  if (proc_->statements.empty()) {
    STMT s;
    s.name = "TORVALE";
    s.nfld = largest_slot;
    s.fld.resize(largest_slot + 1);
    proc_->statements.push_back(std::move(s));
  }
  return proc_->statements.front();
}

// MODEL pushes many statements, of which only the first would be conditional; the others declare what holds for the
// step.
void Builder::check_top_level(const Value& head)
{
  if (head.depth > 0)
    diagnostics_->error(Problem::misplaced_statement, head.token.where,
                        upper_case(head.token.text) +
                            " cannot stand inside DO, SELECT or behind THEN or ELSE: it is no programming statement.",
                        head.token.length);
}

// The statement's semicolon has been read: its action may push text now.
void Builder::close_statement(const SEMARG& a, std::span<Value> r, Value& result)
{
  STMT& s = *proc_->current;
  s.end = r.back().token.where;
  check_top_level(r[0]);
  const bool custom = for_procedure(static_cast<Action>(a.action));
  if (custom && request_.tvlsem && diagnostics_->errors() == 0 && !proc_->error) {
    stream_.set_generator(s.name, s.where);
    if (request_.tvlsem(a, *proc_, stream_) != 0) proc_->error = true;
    stream_.set_generator({}, {});
  }
  proc_->current = nullptr;
  const Token first = r[0].token;
  const std::int16_t depth = result.depth;
  result = Value{};
  result.token = first;
  result.depth = depth;
}

void Builder::end_torvale(std::span<Value> r)
{
  proc_->current->end = r.back().token.where;
  if (request_.on_procedure_statement) variables_ = request_.on_procedure_statement(*proc_->current);
  proc_->current = nullptr;
}

// MODEL and RANDOM, which number their slots alike: head, names, '~', distribution, '(', arguments, ')', ...: slots 1,
// 2, 4 and the site of the expressions.
void Builder::end_distribution(std::span<Value> r)
{
  STMT& s = *proc_->current;
  add_names(cell(model_slot::dependent, 'l', r[1].token.where), names_of(r[1]), -1);
  cell(model_slot::distribution, 'n', r[3].token.where).number = r[3].code;
  std::vector<Expr*> all;
  STLIST& arguments = cell(model_slot::arguments, 'l', r[5].token.where);
  int bracket = 0;
  for (const Value& v : items(r[5].list)) {
    const bool group = v.expr == nullptr;
    const std::vector<Expr*> list = group ? expressions(v.list) : std::vector<Expr*>{v.expr};
    for (Expr* e : list) {
      StItem i = item(StItem::Kind::expression, e->where);
      i.expr = e;
      i.group = group ? bracket : -1;
      arguments.list.push_back(std::move(i));
      all.push_back(e);
    }
    if (group) ++bracket;
  }
  ExpressionSite* site = arena_.make<ExpressionSite>();
  site->kind = StatementKind::site;
  site->where = s.where;
  site->end = r.back().token.where;
  site->statement = arena_.text(s.name);
  site->expressions = arena_.copy(all);
  proc_->program.statements.push_back(site);
  if (s.name == "RANDOM" && !s.given(random_slot::subject))
    diagnostics_->error(Problem::missing_part, s.where,
                        "RANDOM needs SUBJECT= with the variable that tells the subjects apart.", 6);
}

// SUBJECT=name or SUBJECT=name(outer names): group 0 is the subject's own variable, 1 the outer ones.
void Builder::subject(std::span<Value> r)
{
  if (proc_->current->given(random_slot::subject))
    diagnostics_->warning(Problem::given_twice, r[0].token.where,
                          "SUBJECT is given twice in this statement: the last one holds.", r[0].token.length);
  STLIST& c = cell(random_slot::subject, 'l', r[2].token.where);
  c.list.clear();
  add_names(c, one_name(r[2]), 0);
  if (r.size() > 3) add_names(c, names(r[4].list), 1);
}

void Builder::end_labelled(const Value& label, const std::vector<Expr*>& list)
{
  add_expressions(list, label.token.where);
  StItem i = item(StItem::Kind::text, label.token.where);
  i.text = std::string(label.token.text);
  i.quoted = true;
  if (i.text.find_first_not_of(' ') == std::string::npos && !list.empty()) i.text = to_text(*list[0]);
  cell(estimate_slot::label, 't', label.token.where).list = {std::move(i)};
}

void Builder::end_by(std::span<Value> r)
{
  if (by_given_) {
    diagnostics_->error(Problem::given_twice, r[0].token.where, "There are two BY statements: a step takes one.", 2);
    return;
  }
  by_given_ = true;
  STLIST& c = procedure_record().fld[static_cast<std::size_t>(torvale_slot::by)];
  c.type = 'l';
  c.where = r[0].token.where;
  for (const Value& v : items(r[1].list)) {
    if (v.code == 3) {
      c.mode = 1;
      continue;
    }
    StItem i = item(StItem::Kind::name, v.token.where);
    i.text = std::string(v.token.text);
    i.descending = v.code == 2;
    c.list.push_back(std::move(i));
  }
  if (c.list.empty()) diagnostics_->error(Problem::missing_part, r[0].token.where, "BY needs a variable.", 2);
}

template <> void Builder::on<Action::end_step>(const SEMARG&, std::span<Value>, Value&) {}

template <> void Builder::on<Action::open_statement>(const SEMARG& a, std::span<Value> r, Value&)
{
  open_statement(a, r);
}

template <> void Builder::on<Action::code>(const SEMARG& a, std::span<Value>, Value& result)
{
  result.code = a.arglist[0];
}

template <> void Builder::on<Action::option>(const SEMARG& a, std::span<Value> r, Value&)
{
  option(a, r);
}

template <> void Builder::on<Action::data_set_options>(const SEMARG&, std::span<Value> r, Value& result)
{
  List* list = new_list();
  append(*list, r[1]);
  result.list = list;
}

template <> void Builder::on<Action::plain_argument>(const SEMARG&, std::span<Value>, Value&) {}

template <> void Builder::on<Action::bracket_argument>(const SEMARG&, std::span<Value> r, Value& result)
{
  result.list = r[1].list;
  result.expr = nullptr;
}

template <> void Builder::on<Action::subject>(const SEMARG&, std::span<Value> r, Value&)
{
  subject(r);
}

template <> void Builder::on<Action::end_torvale>(const SEMARG&, std::span<Value> r, Value&)
{
  end_torvale(r);
}

template <> void Builder::on<Action::end_model>(const SEMARG& a, std::span<Value> r, Value& result)
{
  end_distribution(r);
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_random>(const SEMARG& a, std::span<Value> r, Value& result)
{
  end_distribution(r);
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_procedure_statement>(const SEMARG& a, std::span<Value> r, Value& result)
{
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_estimate>(const SEMARG& a, std::span<Value> r, Value& result)
{
  end_labelled(r[1], {r[2].expr});
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_contrast>(const SEMARG& a, std::span<Value> r, Value& result)
{
  end_labelled(r[1], expressions(r[2].list));
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_predict>(const SEMARG& a, std::span<Value> r, Value& result)
{
  if (r[1].expr) add_expressions({r[1].expr}, r[1].token.where);
  if (!proc_->current->given(predict_slot::out))
    diagnostics_->error(Problem::missing_part, r[0].token.where,
                        "PREDICT needs OUT= with the data set that takes the predictions.", 7);
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_prior>(const SEMARG& a, std::span<Value> r, Value& result)
{
  if (r[1].expr) add_expressions({r[1].expr}, r[1].token.where);
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_id>(const SEMARG&, std::span<Value> r, Value&)
{
  check_top_level(r[0]);
  STLIST& c = procedure_record().fld[static_cast<std::size_t>(torvale_slot::id)];
  if (!c.given()) c.where = r[0].token.where;
  c.type = 'l';
  add_names(c, names_of(r[1]), -1);
}

template <> void Builder::on<Action::by_variable>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = 1;
}

template <> void Builder::on<Action::by_descending>(const SEMARG&, std::span<Value> r, Value& result)
{
  result = r[1];
  result.code = 2;
}

template <> void Builder::on<Action::by_not_sorted>(const SEMARG&, std::span<Value>, Value& result)
{
  result.code = 3;
}

template <> void Builder::on<Action::end_by>(const SEMARG&, std::span<Value> r, Value&)
{
  check_top_level(r[0]);
  end_by(r);
}

template <> void Builder::on<Action::end_replicate>(const SEMARG& a, std::span<Value> r, Value& result)
{
  add_names(cell(replicate_slot::variable, 'l', r[1].token.where), one_name(r[1]), -1);
  close_statement(a, r, result);
}

template <> void Builder::on<Action::end_compartment_model>(const SEMARG& a, std::span<Value> r, Value& result)
{
  close_statement(a, r, result);
}

} // namespace torvale::language
