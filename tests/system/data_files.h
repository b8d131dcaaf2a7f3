#pragma once
// Data sets that a run leaves, as the tests read them.

#include <map>
#include <string>
#include <vector>

namespace torvale::tests {

// A CSV file without quoted commas: names, and rows of fields.
struct CsvFile {
  std::vector<std::string> names;
  std::vector<std::vector<std::string>> rows;

  std::vector<std::string> column(const std::string& name) const; // empty: there is none
  std::vector<double> numbers(const std::string& name) const;     // an empty field is a NaN
};

CsvFile read_csv_file(const std::string& path);

// A folder of its own that is gone when the object is.
class Folder {
public:
  Folder();
  ~Folder();
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  bool holds(const std::string& name) const;

private:
  std::string path_;
};

} // namespace torvale::tests
