#pragma once
// What a program of the likelihood yields, while the programs are made.

#include "model/run_record.h"

#include <map>
#include <vector>

namespace torvale::evaluation {

// Outputs: symbols by place; a place without a symbol is identically zero.
struct Outputs {
  std::vector<engine::CMPSYM*> symbols;
  explicit Outputs(int places) : symbols(static_cast<std::size_t>(places), nullptr) {}
  // Those of `next` behind these.
  Outputs& append(const Outputs& next)
  {
    symbols.insert(symbols.end(), next.symbols.begin(), next.symbols.end());
    return *this;
  }
  engine::CMPSYM*& at(long place) { return symbols[static_cast<std::size_t>(place)]; }

  // The program; `more` are outputs behind those that have places.
  model::ModelProgram specialise(engine::CMPGLOBAL& gcmp, const std::vector<engine::CMPSYM*>& more = {}) const
  {
    model::ModelProgram program;
    std::vector<engine::CMPSYM*> wanted;
    program.places = static_cast<int>(symbols.size());
    for (std::size_t k = 0; k < symbols.size(); ++k) {
      if (symbols[k] == nullptr) continue;
      program.outputs.push_back(static_cast<int>(k));
      wanted.push_back(symbols[k]);
    }
    wanted.insert(wanted.end(), more.begin(), more.end());
    program.code = engine::cmpspec(gcmp, wanted);
    find_twins(program);
    return program;
  }

  // The programs of terms and totals beside it; `ll` is a term itself. The terms share what records have at all points
  // in common with the program `beside`.
  model::ModelProgram by_totals(engine::CMPGLOBAL& gcmp, engine::CMPSYM* ll, model::ModelProgram program,
                                const engine::Program* beside) const
  {
    std::vector<engine::CMPSYM*> wanted;
    for (engine::CMPSYM* const s : symbols)
      if (s != nullptr) wanted.push_back(s);
    const engine::TotalForms forms = engine::cmptotal(gcmp, wanted, {&ll, 1});
    if (forms.terms.empty()) return program;
    program.term_count = static_cast<int>(forms.terms.size());
    program.terms = engine::cmpspec(gcmp, forms.terms, engine::Visits::terms, beside);
    program.totals = engine::cmpspec(gcmp, forms.totals, engine::Visits::totals);
    return program;
  }

private:
  static void find_twins(model::ModelProgram& program)
  {
    std::map<int, int> place; // of the first output with these numbers
    for (std::size_t k = 0; k < program.outputs.size(); ++k) {
      const auto [first, fresh] =
          place.try_emplace(engine::distinct_output(*program.code, static_cast<int>(k)), program.outputs[k]);
      program.twins.push_back(fresh ? -1 : first->second);
    }
  }
};

// factor_programs: n.programs.factored, where enough derivatives by parameters have coefficients in common. Takes what
// the programs `gradient` and `closing` yield; the second has no places when nothing is differentiated at modes.
void factor_programs(model::NX& n, Outputs gradient, Outputs closing);

} // namespace torvale::evaluation
