// What the parser does when a token does not fit: mistakes with a name of their own, repair, and leaving out a
// statement.
#include "language/step_parser.h"

#include "language/habits.h"
#include "language/lexical.h"

#include <algorithm>

namespace torvale::language {

namespace {

constexpr int most_errors = 100;        // of one step, then the rest of the program is given up
constexpr int most_total_errors = 1000; // of all steps

// Words that begin procedure statements: one of them as a name at a line's start points to a forgotten semicolon.
bool begins_procedure_statement(std::string_view upper)
{
  static constexpr std::string_view words[] = {
      "MODEL",     "RANDOM", "PARMS",     "PARM",     "PARAMETERS", "BOUNDS", "ESTIMATE", "CONTRAST", "PREDICT",
      "REPLICATE", "MCMC", "PRIOR",   "CMPTMODEL", "RESTRICT", "TORVALE",    "RUN",    "QUIT",     "ID",       "BY"};
  return std::find(std::begin(words), std::end(words), upper) != std::end(words);
}

// The word (upper case) before "=" that ends just before `at`; empty when there is none.
std::string option_before(std::string_view text, std::size_t at)
{
  const auto skip_blanks = [&] {
    while (at > 0 && (text[at - 1] == ' ' || text[at - 1] == '\t' || text[at - 1] == '\n' || text[at - 1] == '\r'))
      --at;
  };
  skip_blanks();
  if (at == 0 || text[at - 1] != '=') return {};
  --at;
  skip_blanks();
  const std::size_t end = at;
  while (at > 0 && name_start(text[at - 1])) --at;
  return upper_case(text.substr(at, end - at));
}

} // namespace

void Parser::Implementation::handle_error(const Token& wrong)
{
  if (too_many()) return;
  if (quiet)
    return give_up_statement(
        wrong); // an unclosed quote or a strange character has been reported: what follows from it is not
  if (suspect.symbol != 0 && (!suspect_is_assignment || last.text == "=")) return restart_at_suspect();
  if (statement_tokens == 1 && last.symbol == token_class::NAMEX &&
      instead_of_statement(upper_case(last.text)).empty() && misspelled_statement())
    return;
  const Hint hint = special_hint(wrong);
  std::optional<RepairPlan> plan;
  if (hint.recovery == Recovery::leave_out) plan = RepairPlan{0, 1, {}, {}};
  if (hint.recovery == Recovery::leave_out_option) plan = RepairPlan{0, option_length(), {}, {}};
  if (hint.recovery == Recovery::as_power) plan = RepairPlan{0, 1, {scanner.spellings().mark("**")}, {}};
  if (const int value = repair.first_keyword(*parse); hint.recovery == Recovery::as_value && value != 0)
    plan = RepairPlan{0, 1, {value}, {}};
  if (hint.recovery == Recovery::as_number) plan = RepairPlan{0, 1, {token_class::INT}, {}};
  if (hint.recovery == Recovery::repair) plan = repair.find(*parse, begin, wrong);
  const Token& place = hint.at_last ? last : wrong;
  Diagnostic& d = diagnostics->error(Problem::syntax, place.where, hint.text, std::max<std::int32_t>(1, place.length));
  d.found = found_text(place);
  if (!plan) {
    if (hint.text.empty()) {
      d.text = (wrong.symbol == token_class::ENDJB ? "The statement is not complete at " + d.found
                                                   : d.found + " cannot stand here") +
               ".";
      constexpr std::size_t most_values = 16; // of an option
      d.expected = last.text == "=" ? repair.expected(*parse, most_values) : repair.expected(*parse);
    }
    if (hint.text.empty() && (wrong.symbol > control.classes || wrong.symbol == token_class::NAMEX))
      if (const int near = repair.nearest_keyword(*parse, wrong.text)) d.suggestion = repair.shown(near);
    return give_up_statement(wrong);
  }
  describe_repair(d, *plan);
  if (hint.recovery == Recovery::as_value) d.repair.clear(); // any value serves to read on
  carry_out(*plan);
}

Parser::Implementation::Hint Parser::Implementation::special_hint(const Token& wrong) const
{
  const std::string_view text = request.sources->source(begin.back().source).text;
  const std::size_t at = begin.back().at;
  const char before = at > 0 ? text[at - 1] : '\0', here = at < text.size() ? text[at] : '\0';
  if (here == '=' && before == '!') return {"'!=' is no operator: write ^= or NE.", Recovery::leave_out};
  if (here == '=' && before == '=') return {"'==' is no operator: write = or EQ.", Recovery::leave_out};
  if (here == '&' && before == '&') return {"'&&' is no operator: write & or AND.", Recovery::leave_out};
  if (wrong.text == "^" && repair.takes_operator(*parse))
    return {"'^' is no power: write **, as in x**2. ('^' alone means NOT.)", Recovery::as_power};
  const syntax::STMT* statement = statement_in_work();
  const std::string name = statement ? statement->name : std::string();
  const bool number = wrong.symbol == token_class::INT || wrong.symbol == token_class::NBR;
  const bool word = !wrong.text.empty() && name_start(wrong.text[0]) && wrong.symbol != token_class::ENDJB &&
                    wrong.symbol != token_class::QS;
  const std::string shown = "'" + std::string(wrong.text.substr(0, 40)) + "'";
  if (statement && word && name.rfind("PAR", 0) != 0 && last.text == "=" && parse->accepts(token_class::INT) &&
      !parse->accepts(token_class::NAMEX))
    return {"A number is needed here, not " + shown + ".", Recovery::as_number};
  if (wrong.text == "//")
    return {"'//' begins no comment: comments are /* ... */, or begin with * and end with ;", Recovery::leave_out};
  if (wrong.text == "/" && name == "TORVALE")
    return {"'/' cannot stand here. A path stands in quotes: DATA='folder/file.csv'.", Recovery::give_up};
  if (const std::string_view advice = instead_of_value(option_before(text, at), upper_case(wrong.text));
      !advice.empty())
    return {shown + " cannot stand here. " + std::string(advice), Recovery::as_value};
  if (statement && wrong.symbol == token_class::NAMEX && wrong.where.line == last.where.line &&
      repair.takes_options(*parse) && repair.nearest_keyword(*parse, wrong.text) == 0)
    return {shown + " is no option of " + name + ".", Recovery::leave_out_option};
  if (name == "RANDOM" && wrong.text == "(" && last.symbol == token_class::NAMEX &&
      scanner.spellings().word(upper_case(last.text)) != 0)
    return {"'~' is missing before " + upper_case(last.text) + ".", Recovery::give_up};
  if (name.rfind("PARM", 0) == 0 || name.rfind("PARAM", 0) == 0) {
    if (word && last.text == "=") return {"A value of PARMS is a number, not an expression.", Recovery::give_up};
    if (last.text == "/" && number)
      return {"A value of PARMS is a number: '/' begins the options. Write the quotient as a number.",
              Recovery::give_up};
    if (wrong.text == "(" || wrong.text == "*" || wrong.text == "+")
      return {"A value of PARMS is a number, not an expression.", Recovery::give_up};
  }
  if (name.rfind("BOUND", 0) == 0 && (wrong.text == "*" || wrong.text == "(" || wrong.text == "/" || wrong.text == "+"))
    return {
        "A bound is a number or a parameter, not an expression. Write the model in a parameter that has a plain bound.",
        Recovery::give_up};
  if (wrong.symbol == token_class::ENDJB && values.back().depth > 0)
    return {"An END is missing: " + open_block() + " is still open.", Recovery::give_up};
  if (statement_tokens == 1 && last.symbol == token_class::NAMEX && wrong.symbol != token_class::INT &&
      wrong.symbol != token_class::NBR)
    return no_statement(last.text);
  if (last.symbol == 0 || last.symbol == semicolon) {
    if (word && !instead_of_statement(upper_case(wrong.text)).empty()) {
      Hint hint = no_statement(wrong.text);
      hint.at_last = false;
      return hint;
    }
    if (wrong.symbol == scanner.spellings().word("ELSE"))
      return {"This ELSE has no IF. It follows the one statement behind THEN; several statements need DO; ... END;",
              Recovery::leave_out};
    if (wrong.symbol == scanner.spellings().word("WHEN") || wrong.symbol == scanner.spellings().word("OTHERWISE"))
      return {upper_case(wrong.text) + " stands only inside SELECT; an END before it may have closed the wrong block.",
              Recovery::give_up};
    if (wrong.symbol == scanner.spellings().word("END"))
      return {"This END closes nothing: no DO or SELECT is open.", Recovery::give_up};
  }
  return {};
}

// A name that begins nothing: what it says elsewhere is written otherwise here, or it was meant to be assigned.
Parser::Implementation::Hint Parser::Implementation::no_statement(std::string_view word)
{
  std::string text = "'" + std::string(word) + "' begins no statement";
  const std::string_view advice = instead_of_statement(upper_case(word));
  text += advice.empty() ? ": an assignment is written name = expression." : ". " + std::string(advice);
  return {text, Recovery::give_up, true};
}

std::string Parser::Implementation::found_text(const Token& token) const
{
  if (token.symbol == token_class::ENDJB)
    return token.length > 0                     ? upper_case(token.text)
           : token.text == "end of the program" ? "the end of the program"
                                                : "the next step";
  if (token.symbol == token_class::QS) return "the text '" + std::string(token.text.substr(0, 40)) + "'";
  return "'" + std::string(token.text.substr(0, 40)) + "'";
}

// The innermost block that is open: "the DO of line 5".
std::string Parser::Implementation::open_block() const
{
  for (std::size_t i = values.size(); i-- > 1;)
    if (values[i].depth > values[i - 1].depth && !values[i].token.text.empty())
      return "the " + upper_case(values[i].token.text) + " of line " +
             std::to_string(request.sources->user_position(values[i].token.where).line);
  return "a block";
}

// Tokens of an unknown option at the wrong word: the word alone, or word, '=' and value.
int Parser::Implementation::option_length()
{
  Cursor c = begin;
  scanner.next_copy(*parse, c);
  const Token equals = scanner.next_copy(*parse, c);
  if (equals.symbol == 0 || equals.text != "=") return 1;
  const Token value = scanner.next_copy(*parse, c);
  return value.symbol == 0 || value.symbol == semicolon ? 2 : 3;
}

// The statement's first word is a name, and what follows fits no assignment: a misspelled keyword?
bool Parser::Implementation::misspelled_statement()
{
  LrMachine before = *parse;
  before.unshift();
  const int keyword = repair.meant_statement(before, begin, last.text);
  if (keyword == 0) return false;
  Diagnostic& d = diagnostics->error(Problem::syntax, last.where,
                                     "'" + std::string(last.text) + "' begins no statement.", last.length);
  d.found = "'" + std::string(last.text) + "'";
  d.suggestion = repair.shown(keyword);
  d.repair = d.suggestion + " was put in its place";
  parse->unshift();
  values.pop_back();
  stream.cursor() = begin;
  Token token = last;
  token.symbol = keyword;
  token.text = control.spelling(keyword);
  shift(token);
  return true;
}

void Parser::Implementation::describe_repair(Diagnostic& d, const RepairPlan& plan)
{
  const bool hinted = !d.text.empty(), several = plan.inserted.size() > 1;
  std::string inserted;
  for (int t : plan.inserted) inserted += (inserted.empty() ? "" : " ") + repair.shown(t);
  if (!plan.replacement.empty()) {
    if (!hinted) d.text = d.found + " has no meaning here.";
    d.suggestion = plan.replacement;
    d.repair = plan.replacement + " was put in its place";
  } else if (plan.deleted == 0) {
    std::string missing = inserted;
    const int first = plan.inserted.front();
    const std::string_view spelled = control.spelling(first);
    if (repair.takes_operator(*parse) && (spelled == "*" || spelled == "=" || spelled == "+")) missing = "an operator";
    if (repair.takes_operand(*parse) && first == token_class::NAMEX && !several) missing = "an operand";
    if (!hinted) d.text = missing + (several ? " are" : " is") + " missing before " + d.found + ".";
    d.text[0] = upper_case(d.text[0]);
    d.repair = inserted + (several ? " were inserted" : " was inserted");
  } else {
    const std::string what =
        plan.deleted == 1 ? d.found : std::to_string(plan.deleted) + " words from " + d.found + " on";
    if (!hinted) {
      d.text = d.found + " cannot stand here.";
      d.expected = repair.expected(*parse);
    }
    d.repair = plan.inserted.empty() ? what + (plan.deleted == 1 ? " was left out" : " were left out")
                                     : inserted + " was put in place of " + what;
  }
}

void Parser::Implementation::carry_out(const RepairPlan& plan)
{
  stream.cursor() = begin;
  for (int k = 0; k < plan.deleted; ++k) scanner.next_copy(*parse, stream.cursor());
  for (int t : plan.inserted) {
    Token token;
    token.symbol = t;
    token.where = stream.position(stream.cursor().back());
    token.text = t == token_class::NAMEX ? "_inserted_" : control.spelling(t);
    if (t == token_class::INT || t == token_class::NBR) {
      token.text = "1";
      token.number = 1.0;
    }
    if (!plan.replacement.empty()) token.text = control.spelling(t);
    shift(token);
  }
}

void Parser::Implementation::note_suspect(const Token& token)
{
  if (token.symbol != token_class::NAMEX || statement_tokens == 0 || token.where.line <= last.where.line) return;
  if (suspect.symbol != 0 && !suspect_is_assignment) return;
  if (!parse->accepts(semicolon)) return; // the statement before could not end here
  const bool statement_word = begins_procedure_statement(upper_case(token.text));
  const syntax::STMT* statement = statement_in_work();
  if (!statement_word && !(statement && statement->name.rfind("PAR", 0) == 0)) return;
  suspect = token;
  suspect_at = begin;
  suspect_is_assignment = !statement_word;
}

// A statement word at a line's start was taken for a name, and now the statement makes no sense: the semicolon before
// that word is missing. Reads on from the word.
void Parser::Implementation::restart_at_suspect()
{
  const std::string word = suspect_is_assignment ? std::string(suspect.text) : upper_case(suspect.text);
  diagnostics->error(Problem::syntax, suspect.where, "A semicolon is missing before " + word + ".", suspect.length)
      .found = found_text(suspect);
  Diagnostic& d = diagnostics->list().back();
  d.repair = "the statement was ended before " + word;
  stream.cursor() = suspect_at;
  suspect = {};
  drop_statement();
}

// Leaves out the rest of the statement.
void Parser::Implementation::give_up_statement(const Token& wrong)
{
  stream.cursor() = begin;
  if (wrong.symbol == token_class::ENDJB) {
    // Nothing is left of the step: it ends here, with whatever is open.
    scanner.next(*parse);
    parse->mark_accepted();
    return;
  }
  skip_statement();
  drop_statement();
}

// Moves the stream behind the next semicolon, quotes and comments passed over.
void Parser::Implementation::skip_statement()
{
  while (stream.seek()) {
    Frame& frame = stream.cursor().back();
    const std::string_view text = request.sources->source(frame.source).text;
    const Shape shape = shape_at(text, frame.at);
    if (text[frame.at] == ';') {
      ++frame.at;
      return;
    }
    if (shape == Shape::text)
      frame.at = quote_shape(text, frame.at).end;
    else if (shape == Shape::word)
      frame.at = word_end(text, frame.at);
    else
      ++frame.at;
    if (too_many()) return;
  }
}

// Cuts the stack back to where the statement began, as if it had been read.
void Parser::Implementation::drop_statement()
{
  builder.abandon_statement();
  const int statement = nonterminal("statement"), torvale = nonterminal("torvale_statement");
  std::size_t keep = parse->find_goto(statement);
  int symbol = statement;
  if (keep == 0) {
    keep = parse->find_goto(torvale);
    symbol = torvale;
  }
  parse->cut(keep, symbol);
  values.resize(keep - 1);
  Value v;
  v.depth = values.back().depth;
  values.push_back(v);
  suspect = {};
  statement_tokens = 0;
  quiet = false;
  last.symbol = semicolon;
  settle();
}

bool Parser::Implementation::too_many()
{
  if (stopped) return true;
  if (diagnostics->errors() <= most_errors && earlier_errors + diagnostics->errors() <= most_total_errors) return false;
  diagnostics->error(Problem::too_many_errors, stream.position(stream.cursor().back()),
                     "There are too many errors: the rest of the program is not read.");
  stopped = true;
  stream.cursor().resize(1);
  stream.cursor().back().at = request.sources->source(request.program).text.size();
  parse->mark_accepted();
  return true;
}

} // namespace torvale::language
