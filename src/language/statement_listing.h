#pragma once
// Lists parsed statements for people and tests: every slot and flag of the records, and the programming statements.

#include "syntax/records.h"

#include <string>
#include <vector>

namespace torvale::language {

// One slot, or one flag, of a statement as plain text.
struct ListedSlot {
  int slot = 0;
  std::string option; // the option's first spelling; what the slot holds, where no option fills it
  char type = 0;      // as in STLIST
  unsigned char mode = 0;
  double number = 0.0;            // of type 'n'
  std::vector<std::string> items; // of the other types
};
struct ListedFlag {
  int flag = 0;
  std::string option;
};
struct ListedStatement {
  std::string name;
  syntax::Position where;
  std::vector<ListedSlot> slots;
  std::vector<ListedFlag> flags;
};

std::vector<ListedStatement> list_statements(const syntax::PROCSTR& proc);
// The same as text, one line a slot.
std::string statement_listing(const syntax::SourceMap& sources, const syntax::PROCSTR& proc);
// Programming statements as program text, one statement a line, blocks indented.
std::string program_listing(const syntax::Program& program);

} // namespace torvale::language
