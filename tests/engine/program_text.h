#pragma once
// Programming statements from text, by the parser of the language room.

#include "language/parser.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace torvale::test {

struct ProgramText {
  syntax::SourceMap sources;
  syntax::Arena arena;
  language::ParseResult step;
};

// The statements of one step. Fails the test when they do not parse.
inline std::unique_ptr<ProgramText> parse_program(const std::string& statements)
{
  auto parsed = std::make_unique<ProgramText>();
  language::ParseRequest request;
  request.sources = &parsed->sources;
  request.arena = &parsed->arena;
  request.program = parsed->sources.add("program.tvl", "torvale;\n" + statements + "\nrun;\n");
  language::Parser parser(std::move(request));
  parsed->step = parser.parse_step();
  EXPECT_FALSE(parsed->step.proc.error) << statements;
  return parsed;
}

} // namespace torvale::test
