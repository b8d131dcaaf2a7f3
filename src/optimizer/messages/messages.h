#pragma once

#include "optimizer/messages/message_rows.h"
#include "optimizer/minstr.h"

#include <initializer_list>

namespace torvale::optimizer {

inline constexpr int severity_note = 1;
inline constexpr int severity_warning = 2;
inline constexpr int severity_error = 3;

// Hands a message to the sink of the record; nothing happens without one.
inline void send_message(MINSTR* str, MessageKey message, int severity, std::initializer_list<double> values = {})
{
  if (str->message != nullptr) {
    str->message(str, message.group, message.number, severity, values.size() == 0 ? nullptr : values.begin(),
                 static_cast<int>(values.size()));
  }
}

} // namespace torvale::optimizer
