#pragma once
// Options that are accepted and change nothing: kept so that programs which carry them run. A note names those given.

#include "model/run_record.h"
#include "syntax/statement_names.h"

#include <span>
#include <variant>

namespace torvale::run {

struct IdleOption {
  std::variant<syntax::torvale_slot, syntax::torvale_flag> place;
  const char* name; // as docs/language.md has it

  bool given_in(const syntax::STMT& procedure) const
  {
    if (const auto* slot = std::get_if<syntax::torvale_slot>(&place)) return procedure.given(*slot);
    return procedure.flag(std::get<syntax::torvale_flag>(place));
  }
};

std::span<const IdleOption> idle_options();

// Message 503/9436 with the idle options that the statement gives.
void note_idle_options(model::NX& n, const syntax::STMT& procedure);

// The same of the options of quadrature points, where the method or the distribution of the effects has no such points.
void note_idle_points(model::NX& n, const syntax::STMT& procedure);

} // namespace torvale::run
