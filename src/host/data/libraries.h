#pragma once
#include "host/data/csv.h"
#include "host/data/data_set.h"
#include "host/data/data_set_options.h"
#include "host/messages/messages.h"
#include "host/results/results.h"
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace torvale::host {

// A data set as the program names it: "theoph", "mylib.theoph", or a quoted path, and the options behind it.
struct DataSetReference {
  std::string name;
  bool quoted = false; // name is a path
  DataSetOptions options;
  RowMemory memory{}; // where the columns of an input lie
};

// An output data set while it is being written: columns first, then rows, then finish. Rows stay in memory until then;
// the file is replaced only when its successor is complete, and a file that cannot be written leaves the old one as it
// was. Output that nobody finished is finished when the step ends. The data set's options choose last: WHERE= and
// KEEP=, DROP=, RENAME= see the names given here.
//
//   OutputDataSet* out = libraries.open_output({"pred", false, {}}, log);   // null: a message says why
//   const auto id = out->add_column_like(*data.find("id")), y = out->add_column("Pred", ColumnKind::numeric,
//   "Predicted"); for (...) { out->set_from(id, column, row); out->set(y, value); out->end_row(); } if
//   (libraries.xoclose(out, log) != 0) ...                               // or leave it to the end of the step
class OutputDataSet {
public:
  // xvputi, xvputd: declare the next column; the name is cut to 32 bytes and made unique. Returns its number. Labels
  // and formats last as long as the run: a later step that reads the data set finds them. A format of dates or times
  // makes the file hold ISO texts.
  std::size_t add_column(std::string name, ColumnKind kind, std::string label = {}, std::string format = {});
  std::size_t add_column_like(const Column& column)
  {
    return add_column(column.name(), column.kind(), column.label(), column.format());
  }

  // xyvput: write one row: set what is not missing, then end the row.
  void set(std::size_t column, double value) { numbers_[column] = value; }
  void set(std::size_t column, std::string_view value) { texts_[column] = value; }
  void set_from(std::size_t column, const Column& source, std::size_t row);
  void end_row();

  std::size_t rows() const { return data_.rows(); }
  const DataSet& data() const { return data_; }
  DataSet& data() { return data_; } // for sorting rows before the end
  const std::string& name() const { return data_.name; }

private:
  friend class Libraries;
  DataSet data_;
  DataSetOptions options_;
  std::string library_; // lower case
  std::string member_;
  std::string path_; // file that will be written; the database for a table of SQLite
  std::vector<double> numbers_;
  std::vector<std::string> texts_;
};

// The names of data sets: where they are read from and written to.
class Libraries {
public:
  struct Places {
    std::string program_folder = "."; // one-level names and relative paths are found here
    std::string output_folder = ".";  // one-level names and relative paths are written here
  };
  explicit Libraries(Places places) : places_(std::move(places)) {}

  void bind_data(std::string_view name, std::string path);       // --data NAME=PATH
  void bind_memory(std::string_view name, DataSet data);         // a one-level name for columns in memory
  void bind_library(std::string_view library, std::string path); // --library NAME=PATH: folder or SQLite file
  std::vector<std::string> bound_names() const;                  // names given to bind_data and bind_memory, sorted

  // How text files are read when a data set's own options do not say: separator (0: found), worker threads, and the
  // bytes of memory that a run may take (0: what is free).
  void set_reading(char separator, int threads, std::uint64_t memory = 0)
  {
    separator_ = separator;
    threads_ = threads;
    memory_limit_ = memory;
  }
  std::uint64_t memory() const; // bytes that data may still take

  // xoopen: find and read an input data set, options applied. A one-level name is, in this order: a data set that an
  // earlier step wrote to work, a bound name, NAME.csv (.csv.gz, .csv.zst) in the program's folder. Nothing, with a
  // message that lists where it was looked for and names alike, when it cannot be read.
  std::optional<DataSet> xoopen(const DataSetReference& reference, MessageSink& log, const MessagePlace& place = {});

  // Opens an output data set. Null, with a message, when the name is wrong, already open in this step, or the run reads
  // that very file (`code` 3000), or its place cannot be written (1016). Owned by the libraries until the step ends.
  OutputDataSet* open_output(const DataSetReference& reference, MessageSink& log, const MessagePlace& place = {},
                             int* code = nullptr);

  // Do the options of the open outputs suit the columns declared so far? 0, or 3000 with a message.
  int check_outputs(MessageSink& log) const;

  // xoclose: write it out. 0, or with a message 3000 (its options do not suit it) or 1016. The pointer is dead
  // afterwards.
  int xoclose(OutputDataSet* output, MessageSink& log);

  // Writes out whatever is still open (a step that ended early keeps what it wrote); the worst code of xoclose. Of a
  // step that failed, what has no rows is not written: a file of an earlier run stays as it was, and the next steps of
  // this one may not take it for the result.
  int close_all(MessageSink& log, bool failed = false);

  // From now on outputs are not written: later steps find their columns, without rows.
  void write_nothing() { write_nothing_ = true; }

  // Whether the run has read this file (or a table of this database).
  bool reads(const std::string& path) const;

  // Data sets written since the last call, for the results of a step.
  std::vector<DataSetResult> take_written();

private:
  struct Written {
    std::string path;
    ColumnKinds kinds; // so that a character column of digits comes back as characters
    std::map<std::string, std::pair<std::string, std::string>> looks{}; // lower-case column -> label, format
  };
  std::optional<DataSet> read_path(const std::string& path, const std::string& name, MessageSink& log,
                                   const MessagePlace& place, const ReadOptions& options);
  std::optional<DataSet> find_and_read(const DataSetReference& reference, std::string& name, MessageSink& log,
                                       const MessagePlace& place);
  bool is_input(const OutputDataSet& output, MessageSink& log, const MessagePlace& place) const;
  std::string input_key(const DataSetReference& reference) const;
  int write_out(OutputDataSet& output, MessageSink& log);
  void lose(const OutputDataSet& output, MessageSink& log);

  Places places_;
  char separator_ = 0;
  int threads_ = 1;
  std::uint64_t memory_limit_ = 0;
  std::map<std::string, std::string> data_;      // lower-case one-level name -> path
  std::map<std::string, DataSet> memory_;        // lower-case one-level name -> columns
  std::map<std::string, std::string> libraries_; // lower-case library -> folder or SQLite file
  std::map<std::string, Written> written_;       // lower-case "library.member" -> what this run wrote
  std::map<std::string, DataSet> unwritten_;     // by output_keys: what write_nothing kept from being written
  std::set<std::string> lost_;                   // by output_keys: what was not written
  bool write_nothing_ = false;
  std::set<std::string> inputs_;           // files (and tables) that may not be written: see file_key
  std::map<std::string, DataSet> streams_; // path of a pipe or device, which gives its data once -> what it gave
  std::vector<std::unique_ptr<OutputDataSet>> open_;
  std::vector<DataSetResult> finished_;
};

} // namespace torvale::host
