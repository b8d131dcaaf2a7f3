#pragma once
#include <string>
#include <string_view>

namespace torvale::host {

// A file that appears under its name only when it is complete: bytes go to a neighbour, commit() renames it.
class AtomicFile {
public:
  explicit AtomicFile(std::string path);
  ~AtomicFile(); // without commit the neighbour is removed and an older file stays
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  bool ok() const { return ok_; }
  void write(std::string_view bytes);
  bool commit(); // false when anything failed since the start
  const std::string& problem() const { return problem_; }

private:
  std::string path_;
  std::string temporary_; // empty: bytes go straight to a pipe or a device
  std::string problem_;   // what failed first, in the system's words
  int descriptor_ = -1;
  bool ok_ = false;
};

// Whole files; false with the system's words in `problem`.
bool write_file(const std::string& path, std::string_view bytes, std::string& problem);
bool read_file(const std::string& path, std::string& bytes, std::string& problem);
bool make_folder(const std::string& path, std::string& problem); // with its parents; fine when it is there

// Is the stream with this descriptor (1 standard output, 2 standard error) a terminal?
// Opens the null device for each of descriptors 0 to 2 that the caller has closed, so that no file of the run gets the
// number of a standard stream. Call it before anything is opened.
void ensure_standard_streams();

bool is_terminal(int descriptor);

} // namespace torvale::host
