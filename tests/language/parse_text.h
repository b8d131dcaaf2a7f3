#pragma once
// Parses a program text in memory, for the tests of this room.
#include "language/parser.h"
#include "language/statement_listing.h"

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::language::test {

struct ParsedText {
  syntax::SourceMap sources;
  syntax::Arena arena;
  std::vector<ParseResult> steps;
  std::vector<Diagnostic> diagnostics; // of all steps
  std::string rendered;                // the same as text

  const ParseResult& step(std::size_t i = 0) const { return steps.at(i); }
  int errors() const
  {
    int n = 0;
    for (const Diagnostic& d : diagnostics) n += d.severity == Severity::error;
    return n;
  }
  bool has(Problem p) const
  {
    for (const Diagnostic& d : diagnostics)
      if (d.problem == p) return true;
    return false;
  }
  const syntax::STMT& statement(std::string_view name) const
  {
    for (const syntax::STMT& s : step().proc.statements)
      if (s.name == name) return s;
    ADD_FAILURE() << "no statement " << name << "\n" << rendered;
    static const syntax::STMT none;
    return none;
  }
  std::string program(std::size_t i = 0) const { return program_listing(step(i).proc.program); }
};

using Hook = std::function<int(const SEMARG&, syntax::PROCSTR&, TokenStream&)>;

inline std::unique_ptr<ParsedText> parse_text(const std::string& text, std::vector<InputVariable> variables = {},
                                              Hook hook = {}, std::map<std::string, std::string> files = {},
                                              const std::string& name = "test.tvl")
{
  auto parsed = std::make_unique<ParsedText>();
  ParseRequest request;
  request.sources = &parsed->sources;
  request.arena = &parsed->arena;
  request.program = parsed->sources.add(name, text);
  request.on_procedure_statement = [variables](const syntax::STMT&) { return variables; };
  request.tvlsem = std::move(hook);
  request.read_file = [files](const std::string& path, const std::string&) -> std::optional<std::string> {
    const auto found = files.find(path);
    return found == files.end() ? std::nullopt : std::optional(found->second);
  };
  Parser parser(request);
  for (;;) {
    ParseResult step = parser.parse_step();
    for (const Diagnostic& d : step.diagnostics) {
      parsed->rendered += render(parsed->sources, d);
      parsed->diagnostics.push_back(d);
    }
    if (!step.found) break;
    parsed->steps.push_back(std::move(step));
  }
  return parsed;
}

// The program of one step whose TORVALE statement is plain; errors fail the test.
inline std::string program_of(const std::string& statements)
{
  const auto parsed = parse_text("torvale;\n" + statements + "\nrun;\n");
  EXPECT_EQ(parsed->errors(), 0) << parsed->rendered;
  return parsed->steps.empty() ? "" : parsed->program();
}

} // namespace torvale::language::test
