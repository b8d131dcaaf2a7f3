#include "language/parser.h"

#include "language/builder.h"
#include "language/lexical.h"
#include "language/repair.h"

#include <algorithm>

namespace torvale::language {

using syntax::same_name;

namespace {

constexpr int most_errors = 100;              // of one step, then the rest of the program is given up
constexpr std::size_t deepest_stack = 12000;  // symbols on the parse stack
constexpr std::size_t longest_name = 32;

// Words that begin procedure statements: one of them as a name at a line's start points to a forgotten semicolon.
bool begins_procedure_statement(std::string_view upper)
{
  static constexpr std::string_view words[] = {"MODEL", "RANDOM", "PARMS", "PARM", "PARAMETERS", "BOUNDS", "ESTIMATE", "CONTRAST",
                                               "PREDICT", "REPLICATE", "MCMC", "CMPTMODEL", "RESTRICT", "TORVALE", "RUN", "QUIT", "ID", "BY"};
  return std::find(std::begin(words), std::end(words), upper) != std::end(words);
}

} // namespace

struct Parser::Implementation {
  ParseRequest request;
  PARSECONTROL control = tvlg();
  Diagnostics* diagnostics = nullptr;   // of the step in work
  TokenStream stream;
  Scanner scanner;
  Builder builder;
  Repair repair;
  int semicolon = 0;
  bool stopped = false;                 // given up

  // The parse of one step.
  std::unique_ptr<LrMachine> parse;
  std::vector<Value> values;            // one for each state but the first
  Token last;                           // shifted last
  int statement_tokens = 0;             // shifted since the last semicolon
  Cursor begin;                         // where the token in work begins
  Cursor suspect_at;                    // where a statement word was taken for a name at a line's start
  Token suspect;
  bool suspect_is_assignment = false;   // any name at a line's start of PARMS: suspect only if what is given to it is no number
  bool quiet = false;                   // what goes wrong in this statement follows from a mistake already reported

  explicit Implementation(ParseRequest r)
    : request(std::move(r)), stream(*request.sources, diagnostics, request.read_file),
      scanner(control, stream, *request.arena, diagnostics), builder(request, scanner, stream, diagnostics), repair(control, scanner)
  {
    semicolon = scanner.spellings().mark(";");
    control.user = this;
    control.semroutine = [](PARSECONTROL&, const SEMARG& action, void* user) {
      return static_cast<Implementation*>(user)->act(action);
    };
    Diagnostics none;
    diagnostics = &none;
    stream.push(request.program, {});
  }

  // The semantic routine: the values of the recognised production are on top of the stack; the last value is the result.
  int act(const SEMARG& action)
  {
    const std::size_t n = static_cast<std::size_t>(action.length);
    builder.act(action, std::span<Value>(values.data() + values.size() - n - 1, n), values.back());
    return 0;
  }

  void reduce(int production)
  {
    const std::size_t n = static_cast<std::size_t>(parse->length(production));
    const int number = parse->action(production);
    if (control.xsyndebug) trace("reduce " + std::string(nonterminal_name(parse->left_side(production) - control.goaltoken)));
    parse->reduce(production);
    if (parse->accepted()) return;
    Value result = n > 0 ? values[values.size() - n] : Value{};
    result.depth = values[values.size() - n - 1].depth;
    values.push_back(result);
    if (number > 0) {
      SEMARG action;
      action.action = control.actmap[number - 1];
      action.production = static_cast<std::int16_t>(production);
      action.length = static_cast<std::int16_t>(n);
      if (const std::int16_t at = control.argndx[number - 1]; at >= 0) {
        action.argn = control.argtbl[at];
        std::copy_n(control.argtbl + at + 1, action.argn, action.arglist);
      }
      control.semroutine(control, action, control.user);
      const auto& classes = current_proc->traces;
      control.xsyndebug = std::find(classes.begin(), classes.end(), 1) != classes.end();
    }
    result = values.back();
    values.resize(values.size() - n - 1);
    values.push_back(result);
  }

  void trace(const std::string& line) const
  {
    if (request.trace) request.trace(line);
  }

  // Reductions that need no token, with their actions: the end of a statement happens here, before anything is read.
  void settle()
  {
    while (!parse->accepted())
      if (const auto only = parse->forced_reduction()) reduce(*only);
      else return;
  }

  void shift(const Token& token)
  {
    while (true) {
      if (const auto only = parse->forced_reduction()) {
        reduce(*only);
        continue;
      }
      const int next = *parse->entry(parse->top(), token.symbol);
      if (next > 0) break;
      reduce(-next);
    }
    if (control.xsyndebug) trace("shift " + std::string(control.spelling(token.symbol)) + " " + std::string(token.text));
    parse->shift(token.symbol);
    Value v;
    v.token = token;
    v.depth = values.back().depth;
    values.push_back(v);
    last = token;
    ++statement_tokens;
    if (token.symbol == semicolon) {
      suspect = {};
      statement_tokens = 0;
      quiet = false;
    }
    settle();
  }

  // --- errors

  std::string found_text(const Token& token) const
  {
    if (token.symbol == token_class::ENDJB) return token.length > 0 ? upper_case(token.text) : token.text == "end of the program" ? "the end of the program" : "the next step";
    if (token.symbol == token_class::QS) return "the text '" + std::string(token.text.substr(0, 40)) + "'";
    return "'" + std::string(token.text.substr(0, 40)) + "'";
  }

  // Mistakes that have a name of their own, and how to read on from them.
  enum class Recovery {
    repair,         // look for the cheapest one
    leave_out,      // the wrong token
    leave_out_option, // the wrong word, and the value given to it
    as_number,      // put a number in its place
    give_up,        // leave out the statement
  };
  struct Hint {
    std::string text;
    Recovery recovery = Recovery::repair;
  };
  Hint special_hint(const Token& wrong) const
  {
    const std::string_view text = request.sources->source(begin.back().source).text;
    const std::size_t at = begin.back().at;
    const char before = at > 0 ? text[at - 1] : '\0', here = at < text.size() ? text[at] : '\0';
    if (here == '=' && before == '!') return {"'!=' is no operator: write ^= or NE.", Recovery::leave_out};
    if (here == '=' && before == '=') return {"'==' is no operator: write = or EQ.", Recovery::leave_out};
    if (here == '&' && before == '&') return {"'&&' is no operator: write & or AND.", Recovery::leave_out};
    const syntax::STMT* statement = builder_statement();
    const std::string name = statement ? statement->name : std::string();
    const bool number = wrong.symbol == token_class::INT || wrong.symbol == token_class::NBR;
    const bool word = !wrong.text.empty() && name_start(wrong.text[0]) && wrong.symbol != token_class::ENDJB && wrong.symbol != token_class::QS;
    const std::string shown = "'" + std::string(wrong.text.substr(0, 40)) + "'";
    if (statement && word && name.rfind("PAR", 0) != 0 && last.text == "=" && parse->accepts(token_class::INT) && !parse->accepts(token_class::NAMEX))
      return {"A number is needed here, not " + shown + ".", Recovery::as_number};
    if (statement && wrong.symbol == token_class::NAMEX && wrong.where.line == last.where.line && repair.takes_options(*parse) && repair.nearest_keyword(*parse, wrong.text) == 0)
      return {shown + " is no option of " + name + ".", Recovery::leave_out_option};
    if (name == "RANDOM" && wrong.text == "(" && last.symbol == token_class::NAMEX && scanner.spellings().word(upper_case(last.text)) != 0)
      return {"'~' is missing before " + upper_case(last.text) + ".", Recovery::give_up};
    if (name.rfind("PARM", 0) == 0 || name.rfind("PARAM", 0) == 0) {
      if (word && last.text == "=") return {"A value of PARMS is a number, not an expression.", Recovery::give_up};
      if (last.text == "/" && number) return {"A value of PARMS is a number: '/' begins the options. Write the quotient as a number.", Recovery::give_up};
      if (wrong.text == "(" || wrong.text == "*" || wrong.text == "+") return {"A value of PARMS is a number, not an expression.", Recovery::give_up};
    }
    if (name.rfind("BOUND", 0) == 0 && (wrong.text == "*" || wrong.text == "(" || wrong.text == "/" || wrong.text == "+"))
      return {"A bound is a number or a parameter, not an expression. Write the model in a parameter that has a plain bound.", Recovery::give_up};
    if (wrong.symbol == token_class::ENDJB && values.back().depth > 0) return {"An END is missing: " + open_block() + " is still open.", Recovery::give_up};
    if (statement_tokens == 1 && last.symbol == token_class::NAMEX && wrong.symbol != token_class::INT && wrong.symbol != token_class::NBR)
      return {"'" + std::string(last.text) + "' begins no statement: an assignment is written name = expression.", Recovery::give_up};
    if (last.symbol == 0 || last.symbol == semicolon) {
      if (wrong.symbol == scanner.spellings().word("ELSE"))
        return {"This ELSE has no IF. It follows the one statement behind THEN; several statements need DO; ... END;", Recovery::leave_out};
      if (wrong.symbol == scanner.spellings().word("WHEN") || wrong.symbol == scanner.spellings().word("OTHERWISE"))
        return {upper_case(wrong.text) + " stands only inside SELECT; an END before it may have closed the wrong block.", Recovery::give_up};
      if (wrong.symbol == scanner.spellings().word("END")) return {"This END closes nothing: no DO or SELECT is open.", Recovery::give_up};
    }
    return {};
  }

  // The innermost block that is open: "the DO of line 5".
  std::string open_block() const
  {
    for (std::size_t i = values.size(); i-- > 1;)
      if (values[i].depth > values[i - 1].depth && !values[i].token.text.empty())
        return "the " + upper_case(values[i].token.text) + " of line " + std::to_string(request.sources->user_position(values[i].token.where).line);
    return "a block";
  }
  const syntax::STMT* builder_statement() const { return current_proc ? current_proc->current : nullptr; }
  syntax::PROCSTR* current_proc = nullptr;

  void handle_error(const Token& wrong)
  {
    if (too_many()) return;
    if (quiet) return give_up_statement(wrong); // an unclosed quote or a strange character has been reported: what follows from it is not
    if (suspect.symbol != 0 && (!suspect_is_assignment || last.text == "=")) return restart_at_suspect();
    if (statement_tokens == 1 && last.symbol == token_class::NAMEX && misspelled_statement()) return;
    const Hint hint = special_hint(wrong);
    std::optional<RepairPlan> plan;
    if (hint.recovery == Recovery::leave_out) plan = RepairPlan{0, 1, {}, {}};
    if (hint.recovery == Recovery::leave_out_option) plan = RepairPlan{0, option_length(), {}, {}};
    if (hint.recovery == Recovery::as_number) plan = RepairPlan{0, 1, {token_class::INT}, {}};
    if (hint.recovery == Recovery::repair) plan = repair.find(*parse, begin, wrong);
    const bool first_word = hint.text.find(" begins no statement") != std::string::npos;
    const Token& place = first_word ? last : wrong;
    Diagnostic& d = diagnostics->error(Problem::syntax, place.where, hint.text, std::max<std::int32_t>(1, place.length));
    d.found = found_text(place);
    if (!plan) {
      if (hint.text.empty()) {
        d.text = (wrong.symbol == token_class::ENDJB ? "The statement is not complete at " + d.found : d.found + " cannot stand here") + ".";
        d.expected = repair.expected(*parse);
      }
      if (hint.text.empty() && (wrong.symbol > control.classes || wrong.symbol == token_class::NAMEX))
        if (const int near = repair.nearest_keyword(*parse, wrong.text)) d.suggestion = repair.shown(near);
      return give_up_statement(wrong);
    }
    describe_repair(d, *plan);
    carry_out(*plan);
  }

  // Tokens of an unknown option at the wrong word: the word alone, or word, '=' and value.
  int option_length()
  {
    Cursor c = begin;
    scanner.next_copy(*parse, c);
    const Token equals = scanner.next_copy(*parse, c);
    if (equals.symbol == 0 || equals.text != "=") return 1;
    const Token value = scanner.next_copy(*parse, c);
    return value.symbol == 0 || value.symbol == semicolon ? 2 : 3;
  }

  // The statement's first word is a name, and what follows fits no assignment: a misspelled keyword?
  bool misspelled_statement()
  {
    LrMachine before = *parse;
    before.unshift();
    const int keyword = repair.meant_statement(before, begin, last.text);
    if (keyword == 0) return false;
    Diagnostic& d = diagnostics->error(Problem::syntax, last.where, "'" + std::string(last.text) + "' begins no statement.", last.length);
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

  void describe_repair(Diagnostic& d, const RepairPlan& plan)
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
      const std::string what = plan.deleted == 1 ? d.found : std::to_string(plan.deleted) + " words from " + d.found + " on";
      if (!hinted) {
        d.text = d.found + " cannot stand here.";
        d.expected = repair.expected(*parse);
      }
      d.repair = plan.inserted.empty() ? what + (plan.deleted == 1 ? " was left out" : " were left out") : inserted + " was put in place of " + what;
    }
  }

  void carry_out(const RepairPlan& plan)
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

  // A statement word at a line's start was taken for a name, and now the statement makes no sense: the semicolon before
  // that word is missing. Reads on from the word.
  void restart_at_suspect()
  {
    const std::string word = suspect_is_assignment ? std::string(suspect.text) : upper_case(suspect.text);
    diagnostics->error(Problem::syntax, suspect.where, "A semicolon is missing before " + word + ".", suspect.length).found = found_text(suspect);
    Diagnostic& d = diagnostics->list().back();
    d.repair = "the statement was ended before " + word;
    stream.cursor() = suspect_at;
    suspect = {};
    drop_statement();
  }

  // Leaves out the rest of the statement.
  void give_up_statement(const Token& wrong)
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
  void skip_statement()
  {
    while (stream.seek()) {
      Frame& frame = stream.cursor().back();
      const std::string_view text = request.sources->source(frame.source).text;
      const Shape shape = shape_at(text, frame.at);
      if (text[frame.at] == ';') {
        ++frame.at;
        return;
      }
      if (shape == Shape::text) frame.at = quote_shape(text, frame.at).end;
      else if (shape == Shape::word) frame.at = word_end(text, frame.at);
      else ++frame.at;
      if (too_many()) return;
    }
  }

  // Cuts the stack back to where the statement began, as if it had been read.
  void drop_statement()
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

  int nonterminal(std::string_view name) const
  {
    for (int s = 0;; ++s)
      if (nonterminal_name(s) == name) return control.goaltoken + s;
  }

  bool too_many()
  {
    if (stopped) return true;
    if (diagnostics->errors() <= most_errors) return false;
    diagnostics->error(Problem::too_many_errors, stream.position(stream.cursor().back()), "There are more than 100 errors: the rest of the program is not read.");
    stopped = true;
    stream.cursor().resize(1);
    stream.cursor().back().at = request.sources->source(request.program).text.size();
    parse->mark_accepted();
    return true;
  }

  // --- steps

  // Moves to the next TORVALE statement. False at the end of the program.
  bool find_step()
  {
    bool told = false;
    while (stream.seek()) {
      Frame& frame = stream.cursor().back();
      const std::string_view text = request.sources->source(frame.source).text;
      const std::string word = upper_case(text.substr(frame.at, word_end(text, frame.at) - frame.at));
      if (word == "TORVALE") return true;
      const syntax::Position where = stream.position(frame);
      if (text[frame.at] == '*') {
        frame.at = std::min(text.find(';', frame.at), text.size() - 1) + 1;
        continue;
      }
      if (!told && word != "RUN" && word != "QUIT" && word != "CMT" && text[frame.at] != ';') {
        Diagnostic& d = diagnostics->error(Problem::before_first_step, where, "A step begins with the TORVALE statement; this one stands before it.",
                                           static_cast<std::int32_t>(std::max<std::size_t>(1, word.size())));
        if (edit_distance(word, "TORVALE", 2) <= 2) d.suggestion = "TORVALE";
        told = true;
      }
      skip_statement();
      if (stopped) return false;
    }
    return false;
  }

  void read_token()
  {
    const int errors_before = diagnostics->errors();
    const Token token = scanner.next(*parse);
    begin = stream.cursor();
    begin.back().at = token.begin;
    if (token.symbol == token_class::unknown_character) { // reported by the scanner
      quiet = true;
      return;
    }
    if (token.symbol == token_class::QS && diagnostics->errors() > errors_before) quiet = true;
    if (token.symbol == token_class::NAMEX || token.symbol == token_class::VLITERAL || token.symbol == token_class::COMPOUND) check_name(token);
    if (values.size() > deepest_stack) {
      diagnostics->error(Problem::too_deep, token.where, "Statements or expressions are nested too deeply here: split them.");
      give_up_statement(token);
      return;
    }
    if (!parse->accepts(token.symbol)) return handle_error(token);
    // "RUN;" taken for the last name of a list: nobody calls a variable so at a line's start.
    if (token.symbol == semicolon && suspect.symbol != 0 && suspect.begin == last.begin && (same_name(last.text, "RUN") || same_name(last.text, "QUIT")))
      return restart_at_suspect();
    note_suspect(token);
    shift(token);
  }

  void note_suspect(const Token& token)
  {
    if (token.symbol != token_class::NAMEX || statement_tokens == 0 || token.where.line <= last.where.line) return;
    if (suspect.symbol != 0 && !suspect_is_assignment) return;
    if (!parse->accepts(semicolon)) return; // the statement before could not end here
    const bool statement_word = begins_procedure_statement(upper_case(token.text));
    const syntax::STMT* statement = builder_statement();
    if (!statement_word && !(statement && statement->name.rfind("PAR", 0) == 0)) return;
    suspect = token;
    suspect_at = begin;
    suspect_is_assignment = !statement_word;
  }

  void check_name(const Token& token)
  {
    if (token.symbol == token_class::COMPOUND || token.text.size() <= longest_name) return;
    diagnostics->error(Problem::name_too_long, token.where,
                       "The name " + std::string(token.text.substr(0, 60)) + " has " + std::to_string(token.text.size()) + " characters: a name has at most 32.",
                       token.length);
  }

  ParseResult parse_step()
  {
    ParseResult result;
    Diagnostics found;
    diagnostics = &found;
    if (!stopped && find_step()) {
      result.found = true;
      current_proc = &result.proc;
      parse = std::make_unique<LrMachine>(control);
      values.assign(1, Value{});
      last = {};
      statement_tokens = 0;
      quiet = false;
      suspect = {};
      builder.begin(result.proc);
      settle();
      while (!parse->accepted()) read_token();
      if (!stopped) builder.finish();
      current_proc = nullptr;
      result.proc.current = nullptr;
    }
    if (found.errors() > 0) result.proc.error = true;
    result.diagnostics = std::move(found.list());
    return result;
  }
};

Parser::Parser(ParseRequest request) : implementation_(std::make_unique<Implementation>(std::move(request))) {}
Parser::~Parser() = default;
ParseResult Parser::parse_step() { return implementation_->parse_step(); }

} // namespace torvale::language
