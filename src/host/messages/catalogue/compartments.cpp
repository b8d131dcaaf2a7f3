#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// Compartment models and events.
constexpr CatalogueEntry entries[] = {
    {503, 900, "no_ncomps", E, "CMPTMODEL needs NCOMPS=.", "", "NCOMPS=1, 2 or 3."},
    {503, 901, "ncomps_out_of_range", E, "NCOMPS= must be 1, 2 or 3[, not {found}].", "", "Write NCOMPS=1, 2 or 3."},
    {503, 902, "no_admtype", E, "CMPTMODEL needs ADMTYPE=.", "", "ADMTYPE=IVB, INF or ORAL."},
    // The grammar takes no other words, so nothing raises this one.
    {503, 903, "admtype_out_of_range", E, "ADMTYPE= is out of range.", "", "Write ADMTYPE=IVB, INF or ORAL."},
    {503, 904, "no_parmtype", E, "CMPTMODEL needs PARMTYPE=.", "",
     "PARMTYPE=1 for rate constants, 2 for clearances and volumes."},
    {503, 905, "parmtype_out_of_range", E, "PARMTYPE= must be 1 or 2[, not {found}].", "",
     "Write PARMTYPE=1 for rate constants (KE, KA, ...), PARMTYPE=2 for clearances and volumes (CL, VOL, ...)."},
    {503, 906, "infusion_needs_rate_or_duration", E, "ADMTYPE=INF needs RATE= or DURN=.", "",
     "Write DURN=time of the infusion, or RATE=amount per unit of time."},
    {503, 907, "rate_and_duration_given", W, "RATE= and DURN= are both given; the duration follows from the rate.", "",
     "Leave one of them out."},
    {503, 910, "compartment_option_needed", E,
     "{option}= is needed for this compartment model[: NCOMPS={compartments}, ADMTYPE={administration}, "
     "PARMTYPE={parameters}].",
     "",
     "Give the option a number or a name of the program, as CL=cl; the chapter on pharmacokinetics lists what each "
     "model needs."},
    {503, 911, "compartment_option_ignored", W,
     "{option}= is ignored: this compartment model[, NCOMPS={compartments}, ADMTYPE={administration}, "
     "PARMTYPE={parameters},] has no use for it.",
     "", "Leave it out, or choose the model (NCOMPS=, ADMTYPE=, PARMTYPE=) that it belongs to."},
    {503, 912, "compartment_option_forbidden", E,
     "{option}= must not be given: this compartment model[, NCOMPS={compartments}, ADMTYPE={administration}, "
     "PARMTYPE={parameters},] has no such result.",
     "", "Leave it out, or choose the model (NCOMPS=, ADMTYPE=, PARMTYPE=) that it belongs to."},
    {503, 913, "compartment_option_unusual", W,
     "{option}= is used where the dose records ask for it[; ADMTYPE={administration} has otherwise no use for it].", "",
     "Look whether ADMTYPE= is the one meant; leave the option out when no record of a dose needs it."},
    {503, 914, "compartment_option_conflict", E,
     "{option}= cannot be given with dose records in the data set: they yield PCONC= only.", "",
     "Leave it out and use PCONC=, the result in the observed compartment."},
    {503, 915, "compartment_option_from_doses", W,
     "{option}= is ignored: dose records in the data set have no place for it.", "", "Leave it out."},
    {503, 916, "compartment_option_from_data", W, "{option}= is ignored: the dose records in the data set have it.", "",
     "Leave it out, or take the column out of the data set (DROP=)."},
    {503, 9470, "compartment_result_not_a_name", E,
     "{option}= of CMPTMODEL must be a name, not {value}: it is the variable that takes the result.", "",
     "Write a name that the program does not use yet, as PCONC=pred, and use it in MODEL."},
    {503, 9471, "oral_dose_into_compartment", W,
     "DOSE= of an oral model is a dose into compartment 1; the dose into the depot is DOSE0=, which is not given and "
     "is "
     "taken as 1.",
     "The dose is oral, and was given by the name that other models have for it.", "Write DOSE0= for DOSE=."},
    {503, 9472, "concentration_is_amount", W,
     "PCONC= is an amount, since SCALE1= is not given; SCALE1={volume} gives a concentration. Clearances and volumes "
     "only "
     "make the rate constants.",
     "", "Add SCALE1= with the volume of the observed compartment, unless amounts are observed."},
    {503, 9474, "event_records", N,
     "Event records: doses go to {doses} and observations are of the central compartment {cmt}; rows with EVID other "
     "than "
     "0, or MDV 1, are no observations.",
     "", ""},
    {503, 9475, "event_variable_unknown", E, "{option}= of EVENTS: the data set has no numeric variable {name}.", "",
     "Name the variable: EVENTS(TIME=... AMT=... EVID=...)."},
    {503, 9476, "too_many_doses_at_once", E, "EVENTS: {count} doses seem to act or wait at the same time.",
     "Records that do not stand subject by subject, in the order of time.",
     "Sort the data by subject and time; PLACES= of EVENTS tells the number when there are so many."},
    {503, 9477, "dose_across_subjects", E,
     "The dose of observation {dose} still acts at observation {record}, which is of another {level}: amounts begin "
     "anew "
     "there.",
     "Additional doses or an infusion that go on from one subject into the next.",
     "Give each {level} its own dose records; or use one RANDOM statement, with effects of occasions that indicator "
     "variables choose."},
    {503, 9446, "events_without_subjects", E,
     "Time falls at observation {record}, and no RANDOM statement tells the subjects: without one all records are "
     "those of one subject.",
     "Event data of several subjects, fitted without random effects.",
     "EVID 3 or 4 at the first record of each subject begins anew; or add a RANDOM statement with SUBJECT=."},
    {503, 9473, "dose_types_not_texts", E, "The variable _CMPT_TYPE_ of dose records must hold texts; it is numeric.",
     "", "Write the code of each dose as a text in _CMPT_TYPE_, as SSB for a single bolus."},
};

} // namespace

std::span<const CatalogueEntry> compartments_messages()
{
  return entries;
}

} // namespace torvale::host
