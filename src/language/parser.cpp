#include "language/parser.h"

#include "language/lexical.h"
#include "language/step_parser.h"

#include <algorithm>

namespace torvale::language {

using syntax::same_name;

namespace {

constexpr std::size_t deepest_stack = 6000; // symbols on the parse stack
constexpr std::size_t longest_name = 32;

} // namespace

Parser::Implementation::Implementation(ParseRequest r)
    : request(std::move(r)), stream(*request.sources, diagnostics, request.read_file),
      scanner(control, stream, *request.arena, diagnostics), builder(request, scanner, stream, diagnostics),
      repair(control, scanner)
{
  semicolon = scanner.spellings().mark(";");
  control.user = this;
  control.semroutine = [](PARSECONTROL&, const SEMARG& action, void* user) {
    return static_cast<Implementation*>(user)->act(action);
  };
  stream.cursor().push_back({request.program, 0});
}

ParseResult Parser::Implementation::parse_step()
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
  diagnostics = nullptr;
  earlier_errors += found.errors();
  if (found.errors() > 0) result.proc.error = true;
  result.diagnostics = std::move(found.list());
  return result;
}

// Moves to the next TORVALE statement. False at the end of the program.
bool Parser::Implementation::find_step()
{
  bool told = false;
  while (stream.seek()) {
    Frame& frame = stream.cursor().back();
    const std::string_view text = request.sources->source(frame.source).text;
    const std::string word = upper_case(text.substr(frame.at, dotted_end(text, frame.at) - frame.at));
    if (word == "TORVALE") return true;
    const syntax::Position where = stream.position(frame);
    if (text[frame.at] == '*') {
      frame.at = std::min(text.find(';', frame.at), text.size() - 1) + 1;
      continue;
    }
    if (!told && word != "RUN" && word != "QUIT" && word != "CMT" && text[frame.at] != ';') {
      Diagnostic& d = diagnostics->error(Problem::before_first_step, where,
                                         "A step begins with the TORVALE statement; this one stands before it.",
                                         static_cast<std::int32_t>(std::max<std::size_t>(1, word.size())));
      const std::string first = word.substr(0, word.find('.'));
      if (edit_distance(first, "TORVALE", 2) <= 2)
        d.suggestion = first == word ? "TORVALE" : "TORVALE " + word.substr(first.size() + 1);
      told = true;
    }
    skip_statement();
    if (stopped) return false;
  }
  return false;
}

void Parser::Implementation::read_token()
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
  if (token.symbol == token_class::NAMEX || token.symbol == token_class::VLITERAL ||
      token.symbol == token_class::COMPOUND)
    check_name(token);
  if (values.size() > deepest_stack) {
    diagnostics->error(Problem::too_deep, token.where,
                       "Statements or expressions are nested too deeply here: split them.");
    give_up_statement(token);
    return;
  }
  if (!parse->accepts(token.symbol)) return handle_error(token);
  // "RUN;" taken for the last name of a list: nobody calls a variable so at a line's start.
  if (token.symbol == semicolon && suspect.symbol != 0 && suspect.begin == last.begin &&
      (same_name(last.text, "RUN") || same_name(last.text, "QUIT")))
    return restart_at_suspect();
  note_suspect(token);
  shift(token);
}

void Parser::Implementation::check_name(const Token& token)
{
  if (token.symbol == token_class::COMPOUND || token.text.size() <= longest_name) return;
  diagnostics->error(Problem::name_too_long, token.where,
                     "The name " + std::string(token.text.substr(0, 60)) + " has " + std::to_string(token.text.size()) +
                         " characters: a name has at most 32.",
                     token.length);
}

// The semantic routine: the values of the recognised production are on top of the stack; the last value is the result.
int Parser::Implementation::act(const SEMARG& action)
{
  const std::size_t n = static_cast<std::size_t>(action.length);
  builder.act(action, std::span<Value>(values.data() + values.size() - n - 1, n), values.back());
  return 0;
}

void Parser::Implementation::reduce(int production)
{
  const std::size_t n = static_cast<std::size_t>(parse->length(production));
  const int number = parse->action(production);
  if (control.xsyndebug)
    trace("reduce " + std::string(nonterminal_name(parse->left_side(production) - control.goaltoken)));
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

// Reductions that need no token, with their actions: the end of a statement happens here, before anything is read.
void Parser::Implementation::settle()
{
  while (!parse->accepted())
    if (const auto only = parse->forced_reduction())
      reduce(*only);
    else
      return;
}

void Parser::Implementation::shift(const Token& token)
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

void Parser::Implementation::trace(const std::string& line) const
{
  if (request.trace) request.trace(line);
}

int Parser::Implementation::nonterminal(std::string_view name) const
{
  for (int s = 0;; ++s)
    if (nonterminal_name(s) == name) return control.goaltoken + s;
}

Parser::Parser(ParseRequest request) : implementation_(std::make_unique<Implementation>(std::move(request))) {}
Parser::~Parser() = default;
ParseResult Parser::parse_step()
{
  return implementation_->parse_step();
}

} // namespace torvale::language
