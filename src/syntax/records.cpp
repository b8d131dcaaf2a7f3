#include "syntax/records.h"

namespace torvale::syntax {

const STLIST& STMT::slot(int n) const
{
  static const STLIST empty;
  if (n < 0 || static_cast<std::size_t>(n) >= fld.size()) return empty;
  return fld[static_cast<std::size_t>(n)];
}

int FindStmt(PROCSTR& proc, std::string_view label, STMT** stmt)
{
  int count = 0;
  STMT* last = nullptr;
  for (STMT& s : proc.statements) {
    if (!same_name(std::string_view(s.name).substr(0, label.size()), label)) continue;
    ++count;
    last = &s;
  }
  if (stmt) *stmt = last;
  return count;
}

} // namespace torvale::syntax
