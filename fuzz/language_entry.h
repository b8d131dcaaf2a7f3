#pragma once
// One input of the language fuzzer: any bytes are a program. The same entry replays the committed corpus in the tests.
#include "language/parser.h"
#include "language/statement_listing.h"

#include <cstdint>
#include <string>

namespace torvale::fuzz {

// The programming statements of every step, without the expressions that MODEL and RANDOM keep.
struct ParsedPrograms {
  std::string text;
  bool clean = true; // no errors and no steps left
};

inline ParsedPrograms parse_program(const std::string& text)
{
  using namespace language;
  ParsedPrograms out;
  syntax::SourceMap sources;
  syntax::Arena arena;
  ParseRequest request;
  request.sources = &sources;
  request.arena = &arena;
  request.program = sources.add("fuzz.tvl", text);
  request.on_procedure_statement = [](const syntax::STMT&) {
    return std::vector<InputVariable>{{"id", false}, {"x1", false}, {"name", true}, {"x2", false}, {"y", false}};
  };
  // MODEL pushes statements that use its dependent variable, CMPTMODEL a macro and its call.
  request.tvlsem = [](const SEMARG& action, syntax::PROCSTR& proc, TokenStream& stream) {
    if (action.action != 77 && action.action != 78) return 0;
    if (xtanch(stream) != 0 || xttpshx(stream) != 0) return 1;
    if (action.action == 78) {
      const auto& dependent = proc.current->slot(1).list;
      xttpshb(stream,
              "if " + (dependent.empty() ? std::string("y") : "'q'n") + " = . then _ll = .; else do; _ll = 1; end;");
    } else {
      xttpshb(stream, "%macro _M(_n_mvr=, _d_mvr=); %do i = 1 %to &_n_mvr; c = c + &_d_mvr&i; %end; %mend;");
      xttpshb(stream, "%_M(_n_mvr= 2, _d_mvr=d)");
    }
    return 0;
  };
  request.read_file = [&](const std::string& path, const std::string&) -> std::optional<std::string> {
    if (path == "self") return text.substr(0, text.size() / 2);
    return std::nullopt;
  };
  Parser parser(request);
  for (;;) {
    const ParseResult step = parser.parse_step();
    bool wrong = false;
    for (const Diagnostic& d : step.diagnostics) {
      (void)render(sources, d);
      wrong = wrong || d.severity == Severity::error;
    }
    out.clean = out.clean && !wrong;
    if (!step.found) break;
    if (wrong && !step.proc.error) __builtin_trap(); // a repaired step must not run
    (void)statement_listing(sources, step.proc);
    syntax::Program program;
    for (syntax::Statement* s : step.proc.program.statements)
      if (s->kind != syntax::StatementKind::site) program.statements.push_back(s);
    if (!step.proc.error) out.text += "torvale;\n" + program_listing(program) + "run;\n";
  }
  return out;
}

// Parses; and what parses without errors is written as text, which must parse again to the same text.
inline void language_input(const std::uint8_t* data, std::size_t size)
{
  const ParsedPrograms first = parse_program(std::string(reinterpret_cast<const char*>(data), size));
  if (!first.clean || first.text.empty()) return;
  const ParsedPrograms second = parse_program(first.text);
  if (!second.clean || second.text != first.text) __builtin_trap();
}

} // namespace torvale::fuzz
