#pragma once
// Options that are accepted and change nothing: kept so that programs which carry them run. A note names those given.

#include "model/run_record.h"

#include <span>

namespace torvale::run {

struct IdleOption {
  int slot = -1; // of the TORVALE statement; -1: the flag
  int flag = -1;
  const char* name; // as docs/language.md has it
};

std::span<const IdleOption> idle_options();

// Message 503/9436 with the idle options that the statement gives.
void note_idle_options(model::NX& n, const syntax::STMT& procedure);

} // namespace torvale::run
