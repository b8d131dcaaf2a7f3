#pragma once
// From parsed statements to a compiled model and a filled run record.

#include "model/run_record.h"
#include "sampling/draws.h"

namespace torvale::run {

// tvlexit: ends the step from anywhere with a return code (tvl procedure, exit). Never returns; caught by the driver.
[[noreturn]] void tvlexit(model::NX& n, int return_code);

// tvlinit: statement processing (tvl procedure, init initialize): options, MODEL, parameters, RANDOM, bounds,
// expressions, derivative requests, code. n.host, n.proc, n.sources, n.fid are set before. Faults leave through tvlexit
// with 3000 or 1012. Nothing in it reads observations; its order is part of the behaviour, since an earlier check hides
// a later one.
void tvlinit(model::NX& n);

// --- The stages of tvlinit, in their order -------------------------------------------------------------------------

// Options of the TORVALE statement, with their defaults.
void procedure_options(model::NX& n, const syntax::STMT& procedure);
// True when the results depend on the seed: importance samples, MCMC, random functions of the
// program, quantile residuals of counts.
bool draws_numbers(const model::NX& n);
// Checks MODEL and names the dependent variable and `_ll`.
void model_statement(model::NX& n);
// A dependent variable of texts is refused, as far as the statements read tell its type.
void refuse_character_dependent(model::NX& n);
// The dependent variable is one of the data, or computed, and a number: when the whole program is known.
void dependent_variable(model::NX& n);
// Names of PARMS, of its data set, and undefined names of the program become parameters.
void parameter_setup(model::NX& n);
// The size of the starting grid, when the bounds are known.
void grid_size(model::NX& n);
// Every RANDOM statement, and what depends on whether there is one.
void random_statements(model::NX& n, const syntax::STMT& procedure);
// readrandom: one RANDOM statement into its REFFECT.
void readrandom(model::NX& n, const syntax::STMT& stmt, model::REFFECT& reff);
// Event records with several RANDOM statements: a dose must not act from one innermost subject into another.
void refuse_doses_across_levels(model::NX& n);
// Event records without a RANDOM statement are those of one subject: its time must not fall.
void refuse_events_without_subjects(model::NX& n);
// nested_levels: several RANDOM statements, read: checks the nesting (nestcheck), puts the levels in order, the deepest
// first, and what else holds for several levels only.
void nested_levels(model::NX& n, const syntax::STMT& procedure);
// The variable of REPLICATE.
void replicate_statement(model::NX& n);
// Behind the compilation: the variable is read once, so nothing that a fit moves may be in it.
void refuse_modelled_replicate(model::NX& n);
// Moves the statement's options into the optimizer's block and sets it up (tvlopti, tvloptg, tvlopta, tvloptc,
// callbacks).
void optimizer_setup(model::NX& n, const syntax::STMT& procedure);
// process_bounds: every BOUNDS statement into lower and upper bounds of PARMSTR.
void process_bounds(model::NX& n);
// ESTIMATE and CONTRAST: expressions and their derivative requests (before cmpgen), programs (after).
void read_expression_statements(model::NX& n);
void specialise_expression_statements(model::NX& n);

// PREDICT: likewise.
void read_prediction_statements(model::NX& n);
void specialise_prediction_statements(model::ModelLists& n);

// What LIST, XREF, LISTCODE, LISTDEP and LISTDER show, once everything is compiled.
void listings(model::NX& n);
// write_model_summary: "Specifications" and "ModelSummary", for a program that is only checked.
void write_model_summary(model::NX& n);
// MCMC, PRIOR: what they need of the fit (before the derivative requests), expressions (before cmpgen), programs
// (after).
void sampling_statement(model::NX& n);
// COVDATA=: a column per parameter; rows in the order of the parameters, or named by a column "Parameter"; either
// triangle.
void proposal_covariance(model::NX& n, const host::DataSetReference& reference, const host::MessagePlace& place);
void sampling_needs(model::NX& n);
void read_sampling_statements(model::NX& n);
void specialise_sampling_statements(model::NX& n);
// Draws the sample of the BY group in hand; 0, or 1 after a message. draws: filled with it; null when nobody looks.
int run_sampler(model::NX& n, sampling::SampleDraws* draws);
// The columns of the sample's data set in a program that is only checked, for the steps that read it.
void complete_sample_output(model::NX& n);

// tvlspec: "Specifications". (tvl procedure, spec specifications.)
void tvlspec(model::NX& n);

// --- Shared by the stages ------------------------------------------------------------------------------------------

// The place of a statement or option for a message.
host::MessagePlace place_at(const model::ModelLists& n, const char* statement, syntax::Position where);
// Hands the compiler's diagnostics to the log (group 200); returns the number of errors among them.
int log_diagnostics(model::NX& n);
// The variables of the input data set, as the compiler sees them.
std::vector<engine::DataVariable> data_variables(const model::ModelLists& n);
// Ends the step with 3000 when an expression uses a random effect (message 33), data or an unknown name (38).
void parameters_only(model::NX& n, const char* statement, const engine::CMPSYM* symbol, syntax::Position where);
// Ends the step with 3000 when an expression uses a name that is neither a parameter nor known to the program (message
// 9454).
void refuse_unknown_names(model::NX& n, const engine::CMPSYM* symbol, syntax::Position where);
// True for names that the generated statements use.
bool reserved_name(std::string_view name);

} // namespace torvale::run
