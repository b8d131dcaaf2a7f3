#include "host/messages/catalogue/topics.h"

namespace torvale::host {

namespace {

// The log, files and data sets.
constexpr CatalogueEntry entries[] = {
    {503, 9000, "repeated_message", N, "Message {group}/{number} occurred {times} more times; these are not shown.",
     "The same thing went wrong for many observations, subjects or evaluations.",
     "Mend the cause of the first one shown."},
    {503, 9001, "messages_dropped", N, "{count} more messages of this evaluation are not shown.", "",
     "Mend the cause of the first one shown."},

    {503, 9002, "file_not_read", E, "The file {file} cannot be read: {reason}.",
     "The path is misspelled, the file lies in another folder, or you may not read it.",
     "Paths in a program are relative to the program's folder."},
    {503, 9003, "row_with_wrong_fields", E,
     "Row {row} has {found} fields, but the first line names {expected} columns[; it ends before or behind column "
     "{column}].",
     "A comma inside a text or a decimal comma, a line that is cut off, a remark at the end of the file.",
     "Quote texts that hold commas; write decimal points; remove lines that are not data."},
    {503, 9004, "column_named_twice", E,
     "The file {file} names column {name} twice, as columns {first} and {second} (case does not matter).", "",
     "Rename one of them in the first line of the file."},
    {503, 9005, "quote_not_closed", E, "A quoted text in column {column} has no closing quote.",
     "A quote was opened at the start of a field and never closed; the rest of the file was read as text.",
     "Close the quote, or double quotes that belong to the text."},
    {503, 9006, "characters_behind_quote", E, "Characters follow the closing quote of a text in column {column}.", "",
     "Double quotes that belong to the text, as in \"5\"\" pipe\"."},
    {503, 9007, "not_plain_text", E, "The file {file} is not plain text in UTF-8 or ASCII.",
     "A spreadsheet or binary file, or text saved as UTF-16.", "Save the data as CSV in UTF-8."},
    {503, 9008, "file_empty", E, "The file {file} is empty: the first line must name the columns.", "",
     "Write the names of the columns, separated by commas, as the first line."},
    {503, 9009, "column_renamed", N, "Column {column} of {file} is named \"{given}\"; it is used as {name}.",
     "Names have 1 to 32 bytes.", ""},
    {503, 9010, "text_in_numeric_column", W,
     "Column {column} of {file} holds numbers but for the text \"{value}\" ({count} times, first in row {row}), so it "
     "is a column of characters.",
     "A spelling for missing values that is not the empty field or a point.",
     "Replace it by an empty field or a point in the file."},
    {503, 9011, "leading_zeros_dropped", N,
     "Column {column} of {file} is numeric, so leading zeros are dropped (first in row {row}): 007 is 7.", "",
     "If these are identifiers that differ only in zeros, put a letter in front of them."},
    {503, 9012, "file_not_written", E, "The file {file} cannot be written: {reason}.",
     "The folder is missing, you may not write there, or the disk is full.",
     "Make the folder or name another, and look whether the disk has room."},
    {503, 9013, "separator_found", N, "The columns of {file} are separated by {separator}, as its line of names shows.",
     "", "SEPARATOR= of the data set or --separator say otherwise."},
    {503, 9510, "texts_recoded", N,
     "Texts of {file} are not UTF-8 (first \"{value}\"[ in column {column}]); they are read as Windows 1252, of which "
     "Latin 1 is a part.",
     "Another encoding than these shows as wrong letters.", "Save the file in UTF-8."},
    {503, 9511, "blanks_do_not_separate", W,
     "The file {file} has one column, \"{name}\": blanks do not separate columns by themselves.",
     "A file with columns of fixed width, or with blanks between the values.",
     "SEPARATOR=' ' behind the data set's name, or --separator ' ', takes any number of blanks as one separator."},
    {503, 9501, "missing_codes_found", N, "{count} fields of {file} are codes of missing values: {where}.", "",
     "MISSING=('code' ...) behind the data set's name adds codes."},
    {503, 9502, "points_and_commas", W,
     "Column {column} of {file} is read as characters: some of its numbers have a decimal point, others a comma.",
     "Points or commas that group digits: 1.234,5.",
     "Write the numbers without grouping, or give DECIMAL='.' or DECIMAL=',' behind the data set's name."},
    {503, 9503, "points_among_commas", W,
     "Column {column} of {file} has decimal points, while other columns have decimal commas: 1.234 is read as 1 and "
     "234 "
     "thousandths.",
     "Points that group digits.", "Give DECIMAL=',' behind the data set's name; 1.234 is then no number."},
    {503, 9014, "text_read_as_missing", W,
     "Column {column} of {file} was asked for as numeric; {count} fields that are no numbers are missing (\"{value}\" "
     "first, in row {row}).",
     "", "Mend these fields in the file; codes of missing values can be named with MISSING=, as MISSING=('none' -99)."},
    {503, 9016, "digits_rounded", W,
     "Column {column} of {file} holds whole numbers with more digits than a number keeps (first in row {row}); they "
     "are rounded.",
     "Long identifiers; different ones may have become equal.",
     "Put a letter in front of them, so that they are read as characters."},

    {503, 9015, "data_set_read", N,
     "{data} has {rows} rows. Numeric variables:{numeric}; character variables:{character}[; dates and "
     "times:{moments}].",
     "", ""},
    {503, 9020, "no_data_set", E,
     "There is no data set {name} in {where}[; perhaps {near} is meant][; known here: {known}].",
     "The name is misspelled, or the file lies in another folder.",
     "A one-level name is a CSV file in the program's folder or a name given with --data NAME=PATH; a quoted text is a "
     "path."},
    {503, 9021, "library_not_bound", E,
     "The library {library} is not bound; known: {known}[; a file is named in quotes: '{file}'].", "",
     "Bind it with --library NAME=PATH. A file name such as data.csv is a path: put it in quotes."},
    {503, 9022, "bad_data_set_name", E,
     "{name} is not the name of a data set: NAME or LIBRARY.NAME, each of 1 to 32 letters, digits and underscores.", "",
     "Put a path in quotes."},
    {503, 9023, "bad_data_set_options", E, "Data set options ({text}): {problem}, at character {character}.", "",
     "The options are KEEP=, DROP=, RENAME=(old=new ...), WHERE=(condition), FIRSTROW=n, LASTROW=n, LABEL='text', "
     "SEPARATOR='sign', DECIMAL='sign', MISSING=(codes)."},
    {503, 9024, "where_does_not_suit", E, "The WHERE= condition does not suit {data}: {problem}.", "",
     "torvale describe DATA lists the variables and their kinds."},
    {503, 9025, "option_names_unknown_variable", E,
     "{option}= names {name}, which the data set does not have[; did you mean {near}?].", "",
     "Mend the name; 'torvale describe' lists the variables of a data set."},
    {503, 9026, "data_set_written_twice", E, "Two statements of this step write the data set {name}.", "",
     "Give each its own OUT= data set."},
    {503, 9441, "data_set_not_written", N,
     "The data set {name} was not written: the step failed and has no rows for it[; {left}].", "", ""},
    {503, 9442, "data_set_of_failed_step", E,
     "The data set {name} was to be written by an earlier step of this run, and was not; one of an earlier run is not "
     "taken for it.",
     "", "Mend what that step says of it."},
    {503, 9027, "database_table_not_read", E, "Table {table} of the database {file} cannot be read: {reason}.", "",
     "Mend the name of the table, or make the file again: SQLite itself cannot read it."},
    {503, 9028, "renamed_to_same_name", E, "Two variables would be named {name} after RENAME=.", "",
     "Choose another new name, or leave the variable that has it out (DROP=)."},
    {503, 9029, "no_variable_left", E, "KEEP= and DROP= leave no variable of the data set.", "",
     "Keep at least the variables that the program reads."},
    {503, 9030, "where_keeps_nothing", W, "WHERE= keeps none of the {rows} rows of {data}.",
     "A text is compared with a different case, or a limit is the wrong way round.",
     "Compare with values as they stand in the file: 'torvale describe' shows ranges and levels, upper and lower case "
     "matter."},
    {503, 9509, "text_in_a_format", N,
     "Column {column} of {file} is characters, as \"{value}\"; {formats} in the program gives the numbers.", "", ""},
    {503, 9507, "data_exceed_memory", E,
     "The file {file} has about {rows} rows, which need {needed} of memory in a fit; {free} are free.",
     "Data beyond what the machine, or --memory, has.",
     "Sort the file by subject and write NOSORTSUB in the TORVALE statement: the data are then read from a scratch "
     "file "
     "in the folder for temporary files (TMPDIR)."},
    {503, 9508, "store_in_scratch_file", N,
     "The data of this group need {needed} of memory, and {free} are free; they are kept in a scratch file.", "",
     "Sorted by subject, with NOSORTSUB, the file is read from there at once."},
    {503, 9505, "where_text_read_as_number", N,
     "WHERE= of {data} compares {text} with a number; the text is read as one.", "", ""},
    {503, 9506, "where_angle_brackets", W,
     "WHERE= of {data} has <>, which means not equal there and the maximum in programs.", "", "Write ^= or NE."},
    {503, 9514, "put_line_too_long", E,
     "A PUT statement writes {characters} characters, and lines of {file} take {most} (STOPOVER).",
     "A value is longer than expected, or LRECL= is too small.",
     "Give a larger LRECL=; with DROPOVER lines are cut, without either they go on in the next line."},
    {503, 9031, "no_by_variable", E, "The BY variable {name} is not in {data}[; did you mean {near}?].", "",
     "Mend the name: BY variables are columns of the data set, which 'torvale describe' lists."},
    {503, 9032, "by_not_sorted", E,
     "{data} is not sorted by the BY variables: {after} follows {before} in row {row}. This group and the later ones "
     "are not used.",
     "", "Sort the file, or write NOTSORTED in the BY statement: every change of a value then starts a group."},
    {503, 9033, "input_option_on_output", E, "FIRSTROW= and LASTROW= are for input; {name} is written.", "",
     "Use them where the data set is read."},
    {503, 9500, "output_would_replace_input", E, "{name} would replace the file {file}, which this run reads.", "",
     "Give the output another name, or another folder with --out."},
    {503, 9034, "data_set_written", N, "{data} was written with {rows} rows and {columns} variables to {file}.", "",
     ""},
};

} // namespace

std::span<const CatalogueEntry> files_messages()
{
  return entries;
}

} // namespace torvale::host
