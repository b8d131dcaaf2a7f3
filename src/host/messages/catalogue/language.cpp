#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// The parser and the compiler of programs. Both word their own messages; these entries say what each number means.
constexpr CatalogueEntry entries[] = {
    {100, 1, "syntax", E, "A word or mark stands where the language has no use for it.", "",
     "Look at the place of the caret and just before it: a missing semicolon, comma, operator or bracket is the "
     "usual cause."},
    {100, 2, "unclosed_comment", E, "A comment /* is not closed by */.", "", "Add */ where the comment ends."},
    {100, 3, "unclosed_quote", E, "A quoted text is not closed on its line.", "",
     "Add the closing quote; a quote inside a text is doubled."},
    {100, 4, "unknown_character", E, "A character that the language does not use.", "",
     "Remove it, or put the text into quotes."},
    {100, 5, "out_of_range", E, "The number of an option is outside its range.", "",
     "Give a number within the range that the message names."},
    {100, 6, "not_whole", E, "An option that counts was given a fraction.", "", "Give a whole number."},
    {100, 7, "name_too_long", E, "A name has more than 32 characters.", "",
     "Shorten it: it is not cut, since two names could become one."},
    {100, 8, "given_twice", W, "An option or statement is given twice.", "",
     "Remove one; spellings of one option count as the same."},
    {100, 9, "before_first_step", E, "A statement stands before the first TORVALE statement.", "",
     "Begin the step with TORVALE DATA=...;"},
    {100, 10, "bad_list", E, "A list of names or values cannot be resolved.", "",
     "Name the members one by one, or correct the ends of the range."},
    {100, 11, "unknown_label", E, "A jump has no target, or a label is used twice.", "",
     "Labels are names followed by a colon at a statement's start."},
    {100, 12, "bad_literal", E, "A literal is no date, time or number.", "",
     "Write '31jan2024'd, '13:30't, '31jan2024:13:30:00'dt."},
    {100, 13, "macro_fault", E, "A macro definition, call or loop is malformed.", "",
     "See the macro section of the language guide."},
    {100, 14, "include_fault", E, "A file named by INCLUDE cannot be read.", "",
     "Paths are relative to the program's folder."},
    {100, 15, "misplaced_statement", E, "A statement stands where it cannot.", "",
     "Procedure statements stand at the top level of the step."},
    {100, 16, "missing_part", E, "A required option or part is absent.", "", "Add what the message names."},
    {100, 17, "bad_sequence", E, "A sequence n TO m BY k is empty or never ends.", "",
     "The sign of BY must lead from the first number to the last."},
    {100, 18, "not_available", E, "A statement of the language that this procedure does not offer.", "",
     "The message names what to use instead."},
    {100, 19, "without_effect", W, "A statement or option that is accepted and does nothing.", "",
     "Remove it, so that readers are not misled."},
    {100, 20, "ambiguous_reading", W, "A text that people often mean otherwise than it is read.", "",
     "Add parentheses or use the word form of the operator."},
    {100, 21, "bad_array", E, "An array is declared or used wrongly.", "",
     "ARRAY name[size] elements; subscripts in brackets of one kind."},
    {100, 22, "too_many_errors", E, "The step has more than 100 errors; the rest is not read.", "",
     "Correct the first ones: they may be the cause of the others."},
    {100, 23, "bad_subprogram", E, "A subprogram is defined wrongly.", "",
     "FUNCTION name(arguments); ... RETURN (value); ENDSUB;"},
    {100, 24, "ends_early", E, "A name ends before it is complete.", "",
     "A data set is called name, library.name or 'path'."},
    {100, 25, "too_deep", E, "Texts, statements or expressions are nested too deeply.", "", "Split them."},

    {200, 1, "program_unknown_function", E, "A function or subroutine that does not exist is called.",
     "A misspelled name.", "docs/functions.md lists the functions; FUNCTION and SUBROUTINE define others."},
    {200, 2, "program_wrong_arguments", E, "A function is called with arguments that it does not take.", "",
     "Count the arguments, and look which of them are texts; the chapter on functions lists what each function takes."},
    {200, 3, "program_recursion", E, "A subprogram calls itself.", "", "Write a loop."},
    {200, 4, "program_unsupported", E, "The program asks for something that models cannot do.", "",
     "Compute it outside the program, as a column of the data; the language reference tells what statements do here."},
    {200, 5, "program_type_mismatch", E, "A text stands where a number must be, or a number where a text must be.", "",
     "Compare texts with quoted constants, as (group = 'a'); INPUT(text, 8.) makes a number of a text, PUT(number, "
     "8.) a text of a number."},
    {200, 6, "program_subscript", E, "A subscript is outside its array, or there are too few or too many.", "",
     "Compare the subscripts with the ARRAY statement: as many as it has dimensions, each within its bounds."},
    {200, 7, "program_jump", E, "A jump leads where it cannot.", "",
     "Jump only to labels of the same program part: not into loops, not from one subprogram to another."},
    {200, 8, "program_read_before_written", W, "A variable is read before it is assigned: it is missing there.",
     "A statement that stands too late; an IF without ELSE.", "Assign it first, or use RETAIN with a value."},
    {200, 9, "program_unused_variable", N, "A variable is assigned and never used.", "A misspelled name.", ""},
    {200, 10, "program_undefined_variable", E,
     "A name is neither a variable of the data, nor assigned, nor a parameter.", "A misspelled name.",
     "Mend the name, or assign the variable before it is used."},
    {200, 11, "program_no_derivative", E, "The model has no derivative where one is needed.", "",
     "FD makes the gradient by differences."},
    {200, 12, "program_conversion", N, "A value is turned into a text, or a text into a number.", "",
     "PUT() and INPUT() say how."},
    {200, 13, "program_text_cut", N, "A text is longer than its variable and is cut.", "", "LENGTH makes it longer."},
    {200, 14, "program_unmatched_select", N, "A SELECT has no OTHERWISE: where no WHEN applies nothing is done.", "",
     "OTHERWISE; says that this is meant."},
    {200, 15, "program_loop", E, "Loops or calls make the program grow beyond all measure, or a loop may never end.",
     "Loops of at most 400 passes are written out pass by pass, and calls in place.", "Fewer passes, less nesting."},
    {200, 16, "program_retain", E, "RETAIN names something that cannot be kept.", "",
     "RETAIN takes variables that the program assigns, not data, parameters or random effects."},
    {200, 17, "program_delete_condition", E, "DELETE depends on parameters or random effects.", "",
     "Let it depend on the data alone."},
    {200, 18, "program_declaration", E, "A declaration does not fit what it declares.", "",
     "Look at length, type and dimension in the declaration, and at the values behind it."},
};

} // namespace

std::span<const CatalogueEntry> language_messages()
{
  return entries;
}

} // namespace torvale::host
