#pragma once
#include "host/data/data_set.h"
#include "host/data/where.h"
#include "host/messages/messages.h"
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace torvale::host {

// The options that stand in parentheses behind a data set's name.
struct DataSetOptions {
  std::vector<std::string> keep;                           // KEEP=: empty keeps all
  std::vector<std::string> drop;                           // DROP=
  std::vector<std::pair<std::string, std::string>> rename; // RENAME=(old=new ...)
  std::shared_ptr<const WhereExpression> where;            // WHERE=(...): null keeps all rows
  std::int64_t first_row = 1;                              // FIRSTROW=: number among the rows that WHERE keeps, from 1
  std::int64_t last_row = 0;                               // LASTROW=: 0 is the last one
  std::string label;                                       // LABEL='...'
  char separator = 0;                                      // SEPARATOR=',': of a text file; 0: found from its names
  char decimal = 0;                                        // DECIMAL='.' or ',': 0 as ReadOptions has it
  std::vector<std::string> missing;                        // MISSING=('code' ...): further codes of missing values

  bool empty() const;
};

// The separator of a text file as people write it: one character, "tab" or "\t". False for anything else.
bool parse_separator(std::string_view text, char& separator);

// Reads the text between the parentheses, as "keep=a b where=(x > 1) rename=(a=b)". On a mistake the message says what
// is wrong and at which character, and nothing is returned.
std::optional<DataSetOptions> parse_data_set_options(std::string_view text, MessageSink& log,
                                                     const MessagePlace& place = {});

// Input: WHERE, KEEP, DROP see the names of the file; rows are cut; RENAME comes last. 0, or -1 with a message.
int apply_input_options(DataSet& data, const DataSetOptions& options, MessageSink& log);

// Keeps the rows that WHERE= wants. 0, or -1 with a message when the condition does not suit the columns.
int keep_where(DataSet& data, const DataSetOptions& options, MessageSink& log);

// Output: the columns that are written, in order, and their names, after KEEP, DROP, RENAME. 0, or -1 with a message.
int output_columns(const std::vector<std::string>& names, const DataSetOptions& options, MessageSink& log,
                   std::vector<std::pair<std::size_t, std::string>>& chosen);

} // namespace torvale::host
