#pragma once

namespace torvale::host {

// The one exception of the program: the end of a step from anywhere. Thrown by xexit, caught by the driver only.
struct HostExit {
  int return_code = 0; // 0, 4, 1008, 1012, 1016, 3000; 1020 utility-file failure; 9999 violated assumption
  int reason_code = 0; // detail, 0 when there is none
};

// xexit: end the step with a return and a reason code.
[[noreturn]] inline void xexit(int return_code, int reason_code)
{
  throw HostExit{return_code, reason_code};
}

} // namespace torvale::host
