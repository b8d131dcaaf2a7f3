#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// Progress, levels of random effects, threads, the way to the optimizer.
constexpr CatalogueEntry entries[] = {
    {503, 400, "statements_read", N, "The statements have been read.", "", ""},
    {503, 401, "reading_data", N, "Reading the {data}.", "", ""},
    {503, 402, "evaluating_grid", N, "Evaluating the starting grid: {count} points.", "", ""},
    {503, 403, "optimization_begins", N, "The optimization begins.", "", ""},
    {503, 404, "iteration_begins", N, "Iteration {iteration} begins.", "", ""},
    {503, 405, "starting_objective", N, "The starting objective is {objective}.", "", ""},
    {503, 406, "iteration_objective", N, "Iteration {iteration}: the objective is {objective}.", "", ""},
    {503, 407, "evaluation_objective", N, "Evaluation {count}: the objective is {objective}.", "", ""},
    {503, 408, "computing", N, "Computing {what}.", "", ""},

    {503, 500, "grid_too_large", E, "The grid of starting values has more than 2147483647 points[: {points}].", "",
     "Fewer values per parameter."},
    {503, 501, "levels_need_gauss", E, "Several RANDOM statements need METHOD=GAUSS and normal random effects.", "",
     "Leave METHOD= out; METHOD=GAUSS is the default. DISCRETE effects have one RANDOM statement."},
    {503, 503, "replicate_with_levels", E, "REPLICATE {name} cannot be used with several RANDOM statements.", "",
     "Leave REPLICATE out and give repeated subjects rows and names of their own."},
    {503, 504, "subjects_not_nested", E,
     "The SUBJECT= variables of the RANDOM statements are not nested in each other[: {subject}].", "",
     "One RANDOM with SUBJECT=a, the next with SUBJECT=b(a), then SUBJECT=c(b a)."},
    {503, 505, "outr_without_random", W, "OUTR= is ignored: there is no RANDOM statement.", "", "Leave OUTR= out."},
    {503, 506, "random_effect_in_two_statements", E, "The random effect {name} stands in two RANDOM statements.", "",
     "Give the effects of each RANDOM statement names of their own, and use both in the model."},
    {503, 509, "worker_mode_search_without_details", W,
     "The mode search of a worker cannot be set up; it runs without details.", "",
     "Leave the details out, or run without threads (NTHREADS=0)."},
    {503, 510, "nested_mode_search_failed", E, "The mode search over nested levels cannot be set up.", "",
     "Look at the message before; fewer levels or effects need less memory."},
    {503, 511, "ebopt_ignored_with_levels", W, "EBOPT is ignored with several RANDOM statements.", "",
     "Leave EBOPT out: it steers the search of one level."},
    {503, 512, "ebssfrac_ignored_with_levels", W, "EBSSFRAC= is ignored with several RANDOM statements.", "",
     "Leave EBSSFRAC= out, or add EBITER: the search level by level heeds it."},
    {503, 513, "ebsstol_ignored_with_levels", W, "EBSSTOL= is ignored with several RANDOM statements.", "",
     "Leave EBSSTOL= out, or add EBITER: the search level by level heeds it."},
    {503, 9448, "contrast_tests_nothing", N,
     "CONTRAST '{label}' tests nothing: its expressions, each tested against 0, have no variance at the estimates.",
     "They are constants, comparisons such as b0 = 250, or functions of parameters that stand on their bounds.",
     "The hypothesis b0 = 250 is written b0 - 250."},
    {503, 9451, "contrast_contradicts_itself", W,
     "CONTRAST '{label}' contradicts itself: where its other expressions are 0, expression {row} is {value}, by the "
     "derivatives at the estimates. The F value leaves that expression out.",
     "The expression depends on others but for a constant, is a constant, or uses only parameters that stand on their "
     "bounds.",
     "Mend the constant, or take the expression out."},
    {503, 514, "ebsteps_ignored_with_levels", W, "EBSTEPS= is ignored with several RANDOM statements.", "",
     "Leave EBSTEPS= out, or add EBITER: the search level by level heeds it."},
    {503, 515, "ebsubsteps_ignored_with_levels", W, "EBSUBSTEPS= is ignored with several RANDOM statements.", "",
     "Leave EBSUBSTEPS= out, or add EBITER: the search level by level heeds it."},
    {503, 516, "ebtol_ignored_with_levels", W, "EBTOL= is ignored with several RANDOM statements.", "",
     "Leave EBTOL= out, or add EBITER: the search level by level heeds it."},
    {503, 530, "nested_mode_search_serial", W,
     "The threaded mode search over nested levels is not available; the run is serial.", "",
     "Leave NTHREADS= out; results are the same."},
    {503, 601, "optimizer_setup_failed", E, "The optimizer cannot be set up.", "",
     "Free memory, or fit with fewer parameters."},
    {503, 602, "covsing_ignored", W, "COVSING= is ignored.", "", "Leave COVSING= out."},
    {503, 603, "no_memory_for_matrices", E, "There is not enough memory for the Hessian and covariance matrices.", "",
     "Free memory, or fit with fewer parameters."},
    {503, 604, "optimizer_printing_failed", W, "The printing of the optimizer cannot be set up.", "",
     "Leave the printing options of the optimizer out."},
    {503, 605, "covariance_failed", W, "The covariance matrix of the estimates cannot be computed.",
     "The final Hessian is singular or cannot be evaluated.",
     "Look for parameters that do the same work and leave one out; start from other values."},
    {503, 606, "final_hessian_failed", W, "The final Hessian matrix cannot be computed.",
     "The model fails close to the estimates.", "BOUNDS that keep away from where the model fails."},
    {503, 607, "starting_hessian_failed", W, "The Hessian matrix at the starting values cannot be computed.", "",
     "Other starting values: the Hessian cannot be evaluated near a bound or at the edge of what the model allows. "
     "The fit goes on without it."},
    {503, 651, "threads_exclude_nosortsub", W, "NOSORTSUB and threads exclude each other; the run is serial.", "",
     "Leave NOSORTSUB out to use threads, or leave the threads out to save memory."},
    {503, 653, "no_memory_for_threads", W, "There is not enough memory for threads; the run is serial.", "",
     "Ask for fewer threads (NTHREADS=); results are the same."},
    {503, 654, "threads_not_started", W, "The worker threads cannot be started; the run is serial.", "",
     "Ask for fewer threads (NTHREADS=, --threads), or raise the system's limit of processes (ulimit -u); results are "
     "the same."},
    {503, 655, "worker_thread_failed", E, "A worker thread failed.", "",
     "Run without threads (NTHREADS=0): the message of the failure then stands in the log."},
    {503, 656, "threads_used", N, "{count} threads are used.", "", ""},
    {503, 752, "nosortsub_ignored_with_levels", W, "NOSORTSUB is ignored with several RANDOM statements.", "",
     "Leave NOSORTSUB out."},
    {503, 753, "unsorted_subjects_joined", N,
     "The data set is not sorted by the subject variable {variable}; rows of one subject were brought together.", "",
     ""},
    {503, 754, "no_memory_to_sort_subjects", W,
     "The data set is not sorted by the subject variable {variable}, and there is not enough memory to sort it: a "
     "value that comes again starts a new subject.",
     "", "Sort the file."},
};

} // namespace

std::span<const CatalogueEntry> optimization_messages()
{
  return entries;
}

} // namespace torvale::host
