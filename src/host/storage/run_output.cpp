#include "host/storage/run_output.h"
#include "host/storage/byte_source.h"
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace torvale::host {

namespace {

bool write_all(int descriptor, std::string_view bytes)
{
  while (!bytes.empty()) {
    const ssize_t n = ::write(descriptor, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

} // namespace

AtomicFile::AtomicFile(std::string path) : path_(std::move(path))
{
  std::error_code error;
  if (std::filesystem::exists(path_, error)) {
    const auto target = std::filesystem::canonical(path_, error); // a link stays a link
    if (!error) path_ = target.string();
    if (std::filesystem::is_directory(path_, error)) {
      problem_ = "a folder has this name";
      return;
    }
    if (!std::filesystem::is_regular_file(path_, error)) { // a pipe, a terminal: nothing to replace
      descriptor_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
      ok_ = descriptor_ >= 0;
      if (!ok_) problem_ = std::strerror(errno);
      return;
    }
  }
  // A neighbour, because a rename is atomic only inside one file system. mkstemp keeps two runs apart.
  temporary_ = path_ + ".XXXXXX";
  descriptor_ = ::mkstemp(temporary_.data());
  ok_ = descriptor_ >= 0;
  if (!ok_) problem_ = std::strerror(errno);
}

AtomicFile::~AtomicFile()
{
  if (descriptor_ < 0) return;
  ::close(descriptor_);
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

void AtomicFile::write(std::string_view bytes)
{
  if (!ok_ || write_all(descriptor_, bytes)) return;
  ok_ = false;
  problem_ = std::strerror(errno);
}

bool AtomicFile::commit()
{
  if (!ok_) return false;
  if (temporary_.empty()) return true;
  // mkstemp makes files that nobody else may read; give the new one the rights of its predecessor or the usual ones.
  struct stat old {};
  mode_t mode = 0;
  if (::stat(path_.c_str(), &old) == 0) {
    mode = old.st_mode & 07777;
  } else {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    mode = 0666 & ~mask;
  }
  ::fchmod(descriptor_, mode);
  ok_ = ::fsync(descriptor_) == 0 && ::rename(temporary_.c_str(), path_.c_str()) == 0;
  if (!ok_) {
    problem_ = std::strerror(errno);
    return false;
  }
  ::close(descriptor_);
  descriptor_ = -1;
  return true;
}

bool write_file(const std::string& path, std::string_view bytes, std::string& problem)
{
  AtomicFile file(path);
  file.write(bytes);
  const bool done = file.commit();
  if (!done) problem = file.problem();
  return done;
}

bool read_file(const std::string& path, std::string& bytes, std::string& problem)
{
  const auto source = open_bytes(path, problem);
  if (!source) return false;
  bytes.clear();
  if (read_all(*source, bytes)) return true;
  problem = source->problem;
  return false;
}

bool make_folder(const std::string& path, std::string& problem)
{
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (std::filesystem::is_directory(path, error)) return true;
  problem = error ? error.message() : "a file has this name";
  return false;
}

void ensure_standard_streams()
{
  for (int descriptor = 0; descriptor <= 2; ++descriptor) // the lowest free number is given
    if (::fcntl(descriptor, F_GETFD) == -1 && errno == EBADF) static_cast<void>(::open("/dev/null", O_RDWR));
}

bool is_terminal(int descriptor)
{
  return ::isatty(descriptor) == 1;
}

} // namespace torvale::host
