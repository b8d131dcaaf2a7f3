#pragma once
// Runs programs through the public interface and reads their tables.

#include "run/session.h"

#include <map>
#include <string>
#include <vector>

namespace torvale::tests {

struct Run {
  RunOutcome outcome;
  std::string log; // all lines
  std::string listing;

  // The table of that name in a group of the first step; null when there is none.
  const host::Table* table(const std::string& name, std::size_t group = 0) const;
  // Cell of the first row whose first cell (or the named key column) is `key`.
  double number(const std::string& table, const std::string& key, const std::string& column,
                std::size_t group = 0) const;
  // A whole column as numbers.
  std::vector<double> column(const std::string& table, const std::string& column, std::size_t group = 0) const;
  bool said(int group, int number) const; // a message of the first step
};

// Runs a program text. One-level data set names are looked for in `folder`, relative to the source tree's root or
// absolute; output goes to the folder for temporary files unless another is given.
Run run_text(const std::string& program, const std::string& folder = "examples", int threads = 0,
             const std::vector<std::pair<std::string, std::string>>& data = {}, bool pictures = false,
             std::uint64_t memory = 0, const std::string& output_folder = "");

// The text of examples/NAME.tvl with `options` added to its TORVALE statement.
std::string example(const std::string& name, const std::string& options);

// A file under the source tree.
std::string source_file(const std::string& path);
std::string read_text(const std::string& path);
std::vector<std::string> split(const std::string& text, char at);
// What a command of the shell writes.
std::string output_of(const std::string& command);
// A file of its own that is gone when the object is.
class TemporaryFile {
public:
  TemporaryFile(const std::string& name, const std::string& text);
  ~TemporaryFile();
  const std::string& path() const { return path_; }

private:
  std::string path_;
};

} // namespace torvale::tests
