#include "optimizer/messages/message_rows.h"

namespace torvale::optimizer {

std::span<const MessageRow> message_table()
{
  return rows::message_rows;
}

} // namespace torvale::optimizer
