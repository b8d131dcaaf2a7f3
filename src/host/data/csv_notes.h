#pragma once
#include "host/data/csv_file_columns.h"
#include "host/messages/messages.h"
#include <string>
#include <vector>

namespace torvale::host {

// What the reader of a file should know of how its columns were read: missing codes, texts that are nearly numbers,
// digits that are lost. References are borrowed.
class CsvNotes {
public:
  CsvNotes(const std::string& file, const CsvDialect& dialect, const std::vector<FileColumn>& columns, MessageSink& log)
      : file_(file), dialect_(dialect), columns_(columns), log_(log)
  {
  }

  // Posts them all. `recoded_name`: the first name that was not UTF-8, as it is read now; empty when there is none.
  void post(const std::string& recoded_name) const;

private:
  void note_codes() const;
  void note_encoding(const std::string& recoded_name) const;
  bool warn_of_blanks() const;
  bool note_one_spelling(const FileColumn& column) const; // false: nothing to say
  bool note_readable(const FileColumn& column) const;

  const std::string& file_;
  const CsvDialect& dialect_;
  const std::vector<FileColumn>& columns_;
  MessageSink& log_;
};

} // namespace torvale::host
