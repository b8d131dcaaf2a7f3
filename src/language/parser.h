#pragma once
// The parser of Torvale programs: reads one step after the other.
//
//   Parser parser(request);
//   for (ParseResult step = parser.parse_step(); step.found; step = parser.parse_step()) ...
//
// A step is the TORVALE statement and all that follows up to RUN, QUIT, the next TORVALE or the end. A step with errors
// has proc.error set and does not keep the next one from being read.

#include "language/diagnostics.h"
#include "language/grammar.h"
#include "language/token_stream.h"
#include "syntax/records.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace torvale::language {

// A variable of the input data set, in its order.
struct InputVariable {
  std::string name;
  bool character = false;
};

struct ParseRequest {
  syntax::SourceMap* sources = nullptr; // holds the program's text; borrowed
  syntax::Arena* arena = nullptr;       // takes the trees; borrowed, must outlive the results
  std::int32_t program = 0;             // index of the program's text in `sources`

  // tvlsem: called at the end of CMPTMODEL (77), MODEL (78), RANDOM, CONTRAST, ESTIMATE, PREDICT, REPLICATE (83), once
  // the semicolon has been read and nothing behind it. May push lines in front of what is left: xtanch, xttpshx,
  // xttpshb. proc.current is the statement. Not called when the step has an error already. A result other than 0 marks
  // the step as wrong.
  std::function<int(const SEMARG& action, syntax::PROCSTR& proc, TokenStream& stream)> tvlsem;

  // Called when the TORVALE statement has been read: gives the variables of its input data set, for name lists such as
  // a--b and a: . Empty when they are not known.
  std::function<std::vector<InputVariable>(const syntax::STMT& torvale)> on_procedure_statement;

  FileReader read_file; // for INCLUDE; may be empty

  // Takes a line for each shift and reduction while trace class 1 (FLOW, TRACE) is on; may be empty.
  std::function<void(const std::string& line)> trace;
};

struct ParseResult {
  bool found = false; // a step was read; false at the end of the program
  syntax::PROCSTR proc;
  std::vector<Diagnostic> diagnostics; // in order of discovery
};

class Parser {
public:
  explicit Parser(ParseRequest request);
  ~Parser();
  ParseResult parse_step();

private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

} // namespace torvale::language
