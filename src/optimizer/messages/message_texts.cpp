#include "optimizer/messages/message_table.h"
#include "optimizer/optimizer.h"

namespace torvale::optimizer {

const char* message_text(int group, int number)
{
  for (const MessageRow& row : message_table())
    if (row.group == group && row.number == number) return row.words;
  return nullptr;
}

} // namespace torvale::optimizer
