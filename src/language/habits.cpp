#include "language/habits.h"

namespace torvale::language {

namespace {

struct Habit {
  std::string_view option; // a value of this option; empty: a statement
  std::string_view word;
  std::string_view advice;
};

constexpr std::string_view newton =
    "The Newton techniques are NEWRAP (line search), NRRIDG (ridge) and TRUREG (trust region).";
constexpr std::string_view update = "That is an update formula: write TECHNIQUE=QUANEW UPDATE=BFGS, or UPDATE=DFP.";
constexpr std::string_view laplace = "The Laplace approximation is METHOD=GAUSS with QPOINTS=1.";
constexpr std::string_view quadrature = "Adaptive Gaussian quadrature is METHOD=GAUSS, the default.";
constexpr std::string_view likelihood =
    "Every METHOD= maximizes the likelihood; the choice is how the random effects are integrated out.";
constexpr std::string_view indicators =
    "Levels of a variable enter as indicators: x2 = (group = 2); or, of texts, x2 = (group = 'b');";
constexpr std::string_view chosen_rows = "Rows are chosen where the data set is read, DATA=name(WHERE=(condition)), or "
                                         "left out by IF condition THEN DELETE;";
constexpr std::string_view starts = "Starting values stand in PARMS: PARMS a=1 b=2;";
constexpr std::string_view counts =
    "For a count of equal subjects there is REPLICATE variable; a weight w of an observation "
    "enters the likelihood: MODEL y ~ GENERAL(w*ll);";

constexpr Habit habits[] = {
    {"TECHNIQUE", "NEWTON", newton},
    {"TECHNIQUE", "NR", newton},
    {"TECHNIQUE", "BFGS", update},
    {"TECHNIQUE", "LBFGS", update},
    {"TECHNIQUE", "DFP", update},
    {"TECHNIQUE", "CG", "Conjugate gradients are TECHNIQUE=CONGRA."},
    {"TECHNIQUE", "SIMPLEX", "The simplex techniques are NMSIMP and NMSIM2."},
    {"TECHNIQUE", "TRUST", "Trust regions are TECHNIQUE=TRUREG."},
    {"METHOD", "LAPLACE", laplace},
    {"METHOD", "LAPLACIAN", laplace},
    {"METHOD", "QUAD", quadrature},
    {"METHOD", "QUADRATURE", quadrature},
    {"METHOD", "AGQ", quadrature},
    {"METHOD", "ADAPTIVE", quadrature},
    {"METHOD", "ML", likelihood},
    {"METHOD", "REML", likelihood},
    {"METHOD", "FIRST", "The first-order method is METHOD=FIRO."},
    {"", "CLASS", indicators},
    {"", "FACTOR", indicators},
    {"", "WHERE", chosen_rows},
    {"", "FILTER", chosen_rows},
    {"", "SUBSET", chosen_rows},
    {"", "FREQ", counts},
    {"", "WEIGHT", counts},
    {"", "INITIAL", starts},
    {"", "START", starts},
    {"", "LET", "An assignment needs no word before it: name = expression;"},
    {"", "DATA", "The data set stands in the TORVALE statement: TORVALE DATA=name;"},
    {"", "SET", "The data set stands in the TORVALE statement: TORVALE DATA=name;"},
    {"", "SUBJECT", "The subject is an option of RANDOM: RANDOM u ~ NORMAL(0, v) SUBJECT=variable;"},
};

std::string_view advice(std::string_view option, std::string_view word)
{
  for (const Habit& h : habits)
    if (h.option == option && h.word == word) return h.advice;
  return {};
}

} // namespace

std::string_view instead_of_statement(std::string_view word)
{
  return advice("", word);
}

std::string_view instead_of_value(std::string_view option, std::string_view value)
{
  return option.empty() ? option : advice(option.starts_with("TECH") ? "TECHNIQUE" : option, value);
}

} // namespace torvale::language
