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
