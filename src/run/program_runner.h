#pragma once
// Runs a whole program: its steps one after the other.

#include "host/host.h"
#include "model/run_record.h"

#include <functional>
#include <string>
#include <vector>

namespace torvale::run {

struct ProgramRequest {
  std::string name;                              // file name of the program, for messages
  std::string folder;                            // folder that INCLUDE paths are relative to
  std::string text;                              // the program
  int threads = 0;                               // workers when the program does not say
  long seed = 0;                                 // seed when the program does not say; 0 the clock
  bool check_only = false;                       // parse and compile only
  bool hash_data = false;                        // tell the hash of the input file
  bool pictures = false;                         // draw pictures of every fit
  std::function<void(const model::NX&)> observe; // called with the record of each step that ran, before it is gone
};

struct ProgramResult {
  int exit_code = 0;                   // ExitCode
  std::vector<std::string> statements; // per step, with check_only: the statement records by slot and flag
};

ProgramResult run_program(host::Host& host, const ProgramRequest& request);

} // namespace torvale::run
