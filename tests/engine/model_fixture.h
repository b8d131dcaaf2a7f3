#pragma once
// A compiled model with its data, parameters and random effects, for tests that run programs.

#include "engine/engine.h"
#include "engine/tree_builder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace torvale::test {

using namespace torvale::engine;
namespace engine = torvale::engine;

inline const double none = std::nan(""); // a cell without a value

class Model {
public:
  Trees trees;
  syntax::Program program;
  std::shared_ptr<CMPGLOBAL> compiler = cmpinit({});
  std::vector<CMPSYM*> parameters, effects;
  std::vector<double> theta;
  std::vector<std::vector<double>> columns;     // numeric data variables, in order
  std::vector<std::int32_t> starts;             // subject start per row
  std::vector<std::vector<std::int32_t>> codes; // character variables after the numeric ones
  std::vector<std::vector<std::string>> dictionaries;
  std::vector<DataVariable> variables;

  void data(const std::string& name, std::vector<double> values)
  {
    variables.push_back({name, false, 8});
    columns.push_back(std::move(values));
  }
  void characters(const std::string& name, const std::vector<std::string>& values)
  {
    DataVariable v{name, true, 0};
    std::vector<std::string> dictionary;
    std::vector<std::int32_t> code;
    for (const std::string& s : values) {
      v.width = std::max(v.width, static_cast<int>(s.size()));
      code.push_back(static_cast<std::int32_t>(dictionary.size()));
      dictionary.push_back(s);
    }
    variables.push_back(v);
    codes.push_back(code);
    dictionaries.push_back(dictionary);
  }
  std::int64_t rows() const
  {
    return static_cast<std::int64_t>(!columns.empty() ? columns[0].size() : !codes.empty() ? codes[0].size() : 1);
  }

  // Compiles; parameters and random effects by name.
  void compile(std::vector<Statement*> statements, const std::vector<std::string>& parameter_names,
               const std::vector<std::string>& effect_names = {})
  {
    program = trees.program(std::move(statements));
    cmpprogram(*compiler, program);
    cmprslv(*compiler, variables);
    for (const std::string& name : parameter_names) {
      CMPSYM* const s = cmpsymd(*compiler, name, 'v', 'n');
      cmpparm(*compiler, s, static_cast<int>(parameters.size()));
      parameters.push_back(s);
    }
    for (const std::string& name : effect_names) {
      CMPSYM* const s = cmpsymd(*compiler, name, 'v', 'n');
      cmpran(*compiler, s, static_cast<int>(effects.size()));
      effects.push_back(s);
    }
  }
  CMPSYM* symbol(const std::string& name) { return cmpsyms(*compiler, name); }

  std::string messages()
  {
    std::string all;
    for (const Diagnostic& d : cmpdiagnostics(*compiler)) all += d.text + "\n";
    return all;
  }

  Frame frame() { return Frame(*compiler, bound_data()); }

  std::shared_ptr<const BoundData> bound_data()
  {
    DataView view;
    view.rows = rows();
    std::size_t numeric = 0, character = 0;
    for (std::size_t k = 0; k < variables.size(); ++k) {
      DataColumn c;
      c.dsvarno = static_cast<int>(k) + 1;
      if (variables[k].character) {
        c.codes = codes[character].data();
        c.dictionary = &dictionaries[character++];
      } else {
        c.numeric = columns[numeric++].data();
      }
      view.columns.push_back(c);
    }
    if (!starts.empty()) view.subject_start = starts.data();
    return cmpbind(*compiler, view);
  }

  // Values of the outputs at every row and one point, one lane after the other in one tile per 512 rows.
  std::vector<std::vector<double>> run(const std::vector<CMPSYM*>& outputs,
                                       const std::vector<double>& effect_values = {}, int* code = nullptr)
  {
    const engine::Program* const p = cmpspec(*compiler, outputs);
    Frame f = frame();
    return run(f, *p, static_cast<int>(outputs.size()), effect_values, code);
  }
  std::vector<std::vector<double>> run(Frame& f, const engine::Program& p, int outputs,
                                       const std::vector<double>& effect_values = {}, int* code = nullptr)
  {
    f.set_parameters(theta.data());
    f.set_points(effect_values.data(), 1, 1);
    f.set_range(0, rows());
    std::vector<std::vector<double>> values(static_cast<std::size_t>(outputs));
    if (code != nullptr) *code = 0;
    const int step = sequential(p) ? 1 : max_lanes;
    for (std::int64_t first = 0; first < rows(); first += step) {
      std::vector<std::int32_t> row;
      for (std::int64_t i = first; i < std::min<std::int64_t>(rows(), first + step); ++i)
        row.push_back(static_cast<std::int32_t>(i));
      if (sequential(p) && (starts.empty() ? first == 0 : starts[static_cast<std::size_t>(first)] == first))
        f.reset_state(p, 1);
      const std::vector<std::int32_t> point(row.size(), 0);
      Tile tile;
      tile.lanes = static_cast<int>(row.size());
      tile.observation = row.data();
      tile.point = point.data();
      tile.state = point.data();
      const int rc = f.run(p, tile);
      if (code != nullptr) *code = std::max(*code, rc);
      for (int k = 0; k < outputs; ++k)
        for (int i = 0; i < tile.lanes; ++i) values[static_cast<std::size_t>(k)].push_back(f.output(k)[i]);
    }
    return values;
  }
};

} // namespace torvale::test
