#include "host/messages.h"
#include <algorithm>

namespace torvale::host {

namespace {

constexpr Severity N = Severity::note, W = Severity::warning, E = Severity::error;

// One entry: group, number, severity, text, usual causes, what to try. The last two may be "". Order does not matter.
// Text: {name} is an argument; a stretch [ ... {name} ... ] falls away when its argument is not given.
constexpr CatalogueEntry entries[] = {
    // --- The embedded host: log ---
    {503, 9000, N, "Message {group}/{number} occurred {times} more times; these are not shown.",
     "The same thing went wrong for many observations, subjects or evaluations.", "Mend the cause of the first one shown."},
    {503, 9001, N, "{count} more messages of this evaluation are not shown.", "", "Mend the cause of the first one shown."},

    // --- The embedded host: files ---
    {503, 9002, E, "The file {file} cannot be read: {reason}.",
     "The path is misspelled, the file lies in another folder, or you may not read it.",
     "Paths in a program are relative to the program's folder."},
    {503, 9003, E, "Row {row} has {found} fields, but the first line names {expected} columns[; it ends before or behind column {column}].",
     "A comma inside a text or a decimal comma, a line that is cut off, a remark at the end of the file.",
     "Quote texts that hold commas; write decimal points; remove lines that are not data."},
    {503, 9004, E, "The file {file} names column {name} twice, as columns {first} and {second} (case does not matter).", "",
     "Rename one of them in the first line of the file."},
    {503, 9005, E, "A quoted text in column {column} has no closing quote.",
     "A quote was opened at the start of a field and never closed; the rest of the file was read as text.",
     "Close the quote, or double quotes that belong to the text."},
    {503, 9006, E, "Characters follow the closing quote of a text in column {column}.", "",
     "Double quotes that belong to the text, as in \"5\"\" pipe\"."},
    {503, 9007, E, "The file {file} is not plain text in UTF-8 or ASCII.",
     "A spreadsheet or binary file, or text saved as UTF-16.", "Save the data as CSV in UTF-8."},
    {503, 9008, E, "The file {file} is empty: the first line must name the columns.", "", ""},
    {503, 9009, N, "Column {column} of {file} is named \"{given}\"; it is used as {name}.",
     "Names have 1 to 32 bytes.", ""},
    {503, 9010, W, "Column {column} of {file} holds numbers but for the text \"{value}\" ({count} times, first in row {row}), so it is a column of characters.",
     "A spelling for missing values that is not the empty field or a point.",
     "Replace it by an empty field or a point in the file."},
    {503, 9011, N, "Column {column} of {file} is numeric, so leading zeros are dropped (first in row {row}): 007 is 7.", "",
     "If these are identifiers that differ only in zeros, put a letter in front of them."},
    {503, 9012, E, "The file {file} cannot be written: {reason}.", "The folder is missing, you may not write there, or the disk is full.", ""},
    {503, 9013, W, "The first line of {file} looks as if {separator} separates its columns; only commas do.",
     "A file saved by a spreadsheet with other regional settings.", "Save it with commas and decimal points."},
    {503, 9014, W, "Column {column} of {file} was asked for as numeric; {count} fields that are no numbers are missing (\"{value}\" first, in row {row}).", "", ""},
    {503, 9016, W, "Column {column} of {file} holds whole numbers with more digits than a number keeps (first in row {row}); they are rounded.",
     "Long identifiers; different ones may have become equal.", "Put a letter in front of them, so that they are read as characters."},

    // --- The embedded host: data sets ---
    {503, 9015, N, "{data} has {rows} rows. Numeric variables:{numeric}; character variables:{character}.", "", ""},
    {503, 9020, E, "There is no data set {name} in {where}[; did you mean {near}?][ Known here: {known}.]",
     "The name is misspelled, or the file lies in another folder.",
     "A one-level name is a CSV file in the program's folder or a name given with --data NAME=PATH; a quoted text is a path."},
    {503, 9021, E, "The library {library} is not bound; known: {known}.", "", "Bind it with --library NAME=PATH."},
    {503, 9022, E, "{name} is not the name of a data set: NAME or LIBRARY.NAME, each of 1 to 32 letters, digits and underscores.", "",
     "Put a path in quotes."},
    {503, 9023, E, "Data set options ({text}): {problem}, at character {character}.", "",
     "The options are KEEP=, DROP=, RENAME=(old=new ...), WHERE=(condition), FIRSTROW=n, LASTROW=n, LABEL='text'."},
    {503, 9024, E, "The WHERE= condition does not suit {data}: {problem}.", "", "torvale describe DATA lists the variables and their kinds."},
    {503, 9025, E, "{option}= names {name}, which the data set does not have[; did you mean {near}?].", "", ""},
    {503, 9026, E, "Two statements of this step write the data set {name}.", "", "Give each its own OUT= data set."},
    {503, 9027, E, "Table {table} of the database {file} cannot be read: {reason}.", "", ""},
    {503, 9028, E, "Two variables would be named {name} after RENAME=.", "", ""},
    {503, 9029, E, "KEEP= and DROP= leave no variable of the data set.", "", ""},
    {503, 9030, W, "WHERE= keeps none of the {rows} rows of {data}.", "A text is compared with a different case, or a limit is the wrong way round.", ""},
    {503, 9031, E, "The BY variable {name} is not in {data}[; did you mean {near}?].", "", ""},
    {503, 9032, E, "{data} is not sorted by the BY variables: {after} follows {before} in row {row}. This group and the later ones are not used.",
     "", "Sort the file, or write NOTSORTED in the BY statement: every change of a value then starts a group."},
    {503, 9033, E, "WHERE=, FIRSTROW= and LASTROW= are for input; {name} is written.", "", "Use them where the data set is read."},
    {503, 9034, N, "{data} was written with {rows} rows and {columns} variables to {file}.", "", ""},
};

} // namespace

const std::vector<CatalogueEntry>& catalogue()
{
  static const std::vector<CatalogueEntry> sorted = [] {
    std::vector<CatalogueEntry> all(std::begin(entries), std::end(entries));
    std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
      return std::pair(a.group, a.number) < std::pair(b.group, b.number);
    });
    return all;
  }();
  return sorted;
}

} // namespace torvale::host
