#include "language/repair.h"

#include "language/lexical.h"

#include <algorithm>
#include <cstdlib>

namespace torvale::language {

namespace {

constexpr int enough_tokens = 5;  // that must follow a repair before it is trusted
constexpr int stuck_penalty = 10; // for each of them that does not

// Marks that people forget, best guess first; all cost the same to insert, so this decides between them.
constexpr std::string_view likely_marks[] = {";", ")", "]", "}", ",", "~", "(", "*", "=", "+"};

} // namespace

int edit_distance(std::string_view a, std::string_view b, int limit)
{
  if (std::abs(static_cast<int>(a.size()) - static_cast<int>(b.size())) > limit) return limit + 1;
  const std::size_t n = b.size() + 1;
  std::vector<int> before(n), previous(n), row(n);
  for (std::size_t j = 0; j < n; ++j) previous[j] = static_cast<int>(j);
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = static_cast<int>(i);
    for (std::size_t j = 1; j < n; ++j) {
      row[j] = std::min({previous[j] + 1, row[j - 1] + 1, previous[j - 1] + (a[i - 1] != b[j - 1])});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) row[j] = std::min(row[j], before[j - 2] + 1);
    }
    std::swap(before, previous);
    std::swap(previous, row);
  }
  return previous[n - 1];
}

int Repair::nearest_keyword(const LrMachine& parse, std::string_view word) const
{
  const std::string upper = upper_case(word);
  if (upper.size() < 3) return 0;
  int nearest = 0, distance = upper.size() < 5 ? 1 : 2;
  for (int t = control_.classes + 1; t < control_.maxterminal; ++t) {
    const std::string_view s = control_.spelling(t);
    if (scanner_.spellings().hidden(t) || !name_start(s[0])) continue;
    const int d = edit_distance(upper, s, distance);
    if (d > distance || (nearest != 0 && d == distance)) continue;
    if (!parse.accepts(t)) continue;
    nearest = t;
    distance = d;
  }
  return nearest;
}

std::string Repair::shown(int terminal) const
{
  using namespace token_class;
  switch (terminal) {
  case ENDJB:
    return "the end of the step";
  case NAMEX:
  case VLITERAL:
  case COMPOUND:
    return "a name";
  case QS:
    return "a quoted text";
  case INT:
  case NBR:
    return "a number";
  case FMT:
    return "a format";
  case DATE:
  case TIME:
  case DATETIME:
    return "a date or time";
  case MISSING:
    return "a missing value";
  case HSTDS:
    return "data set options";
  default:
    break;
  }
  std::string s(control_.spelling(terminal));
  if (s.size() > 1 && s.back() == '$') s.pop_back();
  return name_start(s[0]) ? s : "'" + s + "'";
}

bool Repair::takes_operator(const LrMachine& parse) const
{
  const auto can = [&](std::string_view mark) { return parse.accepts(scanner_.spellings().mark(mark)); };
  return can("*") && can("+") && can("**");
}

bool Repair::takes_operand(const LrMachine& parse) const
{
  return parse.accepts(token_class::NAMEX) && parse.accepts(token_class::INT) && parse.accepts(token_class::QS) &&
         parse.accepts(scanner_.spellings().mark("("));
}

bool Repair::takes_options(const LrMachine& parse) const
{
  if (parse.accepts(token_class::NAMEX) || takes_operator(parse) || !parse.accepts(scanner_.spellings().mark(";")))
    return false;
  for (const OptionRow& row : option_rows())
    if (const int t = scanner_.spellings().word(row.words[0]); t != 0 && parse.accepts(t)) return true;
  return false;
}

int Repair::first_keyword(const LrMachine& parse) const
{
  for (int t = control_.classes + 1; t < control_.maxterminal; ++t)
    if (!scanner_.spellings().hidden(t) && name_start(control_.spelling(t)[0]) && parse.accepts(t)) return t;
  return 0;
}

std::vector<std::string> Repair::expected(const LrMachine& parse, std::size_t most) const
{
  const auto can = [&](std::string_view mark) { return parse.accepts(scanner_.spellings().mark(mark)); };
  std::vector<std::string> out;
  const auto add = [&](std::string s) {
    if (out.size() < most && std::find(out.begin(), out.end(), s) == out.end()) out.push_back(std::move(s));
  };
  // Whole families in a word or two, so that the list stays short.
  const bool expression = takes_operand(parse), operators = takes_operator(parse);
  const bool statement = parse.accepts(scanner_.spellings().word("DO"));
  if (statement) {
    add("a statement");
    for (const char* w : {"END", "WHEN", "OTHERWISE", "ELSE"})
      if (parse.accepts(scanner_.spellings().word(w))) add(w);
    if (parse.accepts(token_class::ENDJB)) add("RUN");
    return out;
  }
  if (expression) add("an expression");
  for (std::string_view m : {";", ")", "]", "}", ",", "=", "~", "(", "[", "/", ":"})
    if (!(operators && (m == "=" || m == "/" || m == "~")) && !(expression && (m == "(" || m == "~")) && can(m))
      add("'" + std::string(m) + "'");
  if (operators) add("an operator");
  for (int t = 1; t < control_.maxterminal && out.size() < most; ++t) {
    if (t > token_class::HSTDS && t <= control_.classes) continue;
    if (scanner_.spellings().hidden(t)) continue;
    const std::string_view s = control_.spelling(t);
    const bool word = t > control_.classes && name_start(s[0]);
    const bool word_operator = word && operators &&
                               (s == "OR" || s == "AND" || s == "IN" || s == "NOTIN" || s == "EQ" || s == "NE" ||
                                s == "LT" || s == "LE" || s == "GT" || s == "GE");
    if (word_operator || (expression && (t <= control_.classes || s == "NOT" || s == "IF" || s == "PUT" || s == "OF")))
      continue;
    if (t > control_.classes && !word && (operators || expression || parse.accepts(token_class::INT))) continue;
    if ((t == token_class::DATE || t == token_class::TIME || t == token_class::DATETIME) &&
        parse.accepts(token_class::INT))
      continue;
    if (parse.accepts(t)) add(shown(t));
  }
  return out;
}

int Repair::tokens_that_follow(LrMachine parse, Cursor cursor, int enough)
{
  const int semicolon = scanner_.spellings().mark(";");
  for (int n = 0; n < enough; ++n) {
    const Token token = scanner_.next_copy(parse, cursor);
    if (token.symbol == 0) return enough; // a macro: nothing speaks against it
    if (!parse.consume(token.symbol)) return n;
    if (token.symbol == semicolon || parse.accepted()) return enough;
  }
  return enough;
}

void Repair::consider(const LrMachine& parse, const Cursor& from, RepairPlan plan)
{
  if (plan.cost >= control_.valcost) return;
  LrMachine trial = parse;
  for (int t : plan.inserted)
    if (!trial.consume(t)) return;
  const int follow = tokens_that_follow(trial, from, enough_tokens);
  if (follow == 0) return;
  const int rank = plan.cost + stuck_penalty * (enough_tokens - follow);
  if (rank >= control_.valcost || (best_ && rank >= best_rank_)) return;
  best_ = std::move(plan);
  best_rank_ = rank;
}

int Repair::meant_statement(const LrMachine& parse, const Cursor& next, std::string_view word)
{
  const int keyword = nearest_keyword(parse, word);
  LrMachine trial = parse;
  return keyword != 0 && trial.consume(keyword) && tokens_that_follow(trial, next, 1) == 1 ? keyword : 0;
}

std::optional<RepairPlan> Repair::find(const LrMachine& parse, const Cursor& begin, const Token& wrong)
{
  best_.reset();
  const int semicolon = scanner_.spellings().mark(";");
  const auto insert_cost = [&](int symbol) { return static_cast<int>(control_.inscost[symbol - 1]); };
  const auto delete_cost = [&](int symbol) { return static_cast<int>(control_.delcost[symbol - 1]); };

  // What can be inserted here: first the likely marks, then every terminal that can be shifted.
  std::vector<int> terminals;
  if (const int to = scanner_.spellings().word("TO"); wrong.symbol == token_class::INT && parse.accepts(to))
    terminals.push_back(to);
  for (std::string_view m : likely_marks) terminals.push_back(scanner_.spellings().mark(m));
  for (int t = 1; t < control_.maxterminal; ++t)
    if (!scanner_.spellings().hidden(t) && std::find(terminals.begin(), terminals.end(), t) == terminals.end())
      terminals.push_back(t);
  // Of words only those that people leave out: any other would only hide the mistake.
  const auto word = [&](int t) { return t > control_.classes && name_start(control_.spelling(t)[0]); };
  const auto forgotten = [&](int t) {
    const std::string_view s = control_.spelling(t);
    return s == "THEN" || s == "END" || s == "TO";
  };
  std::erase_if(terminals,
                [&](int t) { return t == token_class::ENDJB || (word(t) && !forgotten(t)) || !parse.accepts(t); });

  // A misspelled keyword is worth more than anything that makes sense of the rest.
  Cursor behind = begin;
  const Token again = scanner_.next_copy(parse, behind);
  if (again.symbol == token_class::NAMEX)
    if (const int keyword = nearest_keyword(parse, wrong.text)) {
      RepairPlan plan{delete_cost(again.symbol) + insert_cost(keyword), 1, {keyword}, shown(keyword)};
      LrMachine trial = parse;
      if (trial.consume(keyword) && tokens_that_follow(trial, behind, 2) == 2) return plan;
    }

  for (int t : terminals) consider(parse, begin, {insert_cost(t), 0, {t}, {}});
  // The cheapest text of each nonterminal that can stand here, from the tables.
  for (const std::int16_t* pair = control_.prslst + control_.prsndx[parse.top()];
       pair < control_.prslst + control_.prsndx[parse.top() + 1]; pair += 2) {
    if (pair[0] < control_.goaltoken) continue;
    const std::int16_t* text = control_.instbl + control_.insndx[pair[0] - control_.goaltoken];
    if (text[0] > 1 && std::none_of(text + 1, text + 1 + text[0], word))
      consider(parse, begin, {insert_cost(pair[0]), 0, {text + 1, text + 1 + text[0]}, {}});
  }
  for (int t : terminals) { // two insertions: the second must make the wrong token fit
    if (insert_cost(t) * 2 >= control_.valcost) continue;
    LrMachine one = parse;
    if (!one.consume(t)) continue;
    for (std::string_view m : likely_marks) {
      const int second = scanner_.spellings().mark(m);
      if (one.accepts(second)) consider(parse, begin, {insert_cost(t) + insert_cost(second), 0, {t, second}, {}});
    }
  }
  // Deletions, alone and with one insertion in their place; never of a semicolon.
  Cursor cursor = begin;
  int cost = 0;
  for (int deleted = 1; deleted <= enough_tokens; ++deleted) {
    const Token token = scanner_.next_copy(parse, cursor);
    if (token.symbol == 0 || token.symbol == semicolon || token.symbol == token_class::ENDJB) break;
    cost += delete_cost(token.symbol);
    if (cost >= control_.valcost) break;
    consider(parse, cursor, {cost, deleted, {}, {}});
    if (deleted == 1)
      for (int t : terminals) consider(parse, cursor, {cost + insert_cost(t), 1, {t}, {}});
  }
  return best_;
}

} // namespace torvale::language
