#include "host/storage/scratch_file.h"
#include "host/values/text.h"
#include <algorithm>
#include <cmath>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace torvale::host {

namespace {

constexpr std::size_t page = 1 << 16; // a multiple of the page size of every system

std::size_t whole_pages(std::size_t bytes)
{
  return (bytes + page - 1) / page * page;
}

int open_nameless()
{
  std::error_code error;
  const std::string folder = std::filesystem::temp_directory_path(error).string();
  if (error) return -1;
  if (const int file = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); file >= 0) return file;
  std::string name = folder + "/torvale_XXXXXX"; // a file system without nameless files
  const int file = ::mkstemp(name.data());
  if (file >= 0) ::unlink(name.c_str());
  return file;
}

// A number in a file of one line, or in the line of a file that begins with `key`.
std::uint64_t number_in(const std::string& path, const std::string& key = {})
{
  constexpr std::uint64_t none = std::numeric_limits<std::uint64_t>::max();
  std::ifstream in(path);
  std::string word;
  std::uint64_t value = none;
  while (!key.empty() && in >> word && word != key) in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  return in >> value ? value : none;
}

} // namespace

ScratchFile::~ScratchFile()
{
  if (file_ >= 0) ::close(file_);
}

void* ScratchFile::do_allocate(std::size_t bytes, std::size_t alignment)
{
  if (bytes < smallest) return std::pmr::new_delete_resource()->allocate(bytes, alignment);
  const std::size_t length = whole_pages(bytes);
  const std::lock_guard<std::mutex> guard(lock_);
  if (file_ < 0) file_ = open_nameless();
  // Room is asked for now: a full disk is no memory, not a fault in the middle of a run.
  if (file_ < 0 || ::posix_fallocate(file_, end_, static_cast<off_t>(length)) != 0) throw std::bad_alloc();
  void* const at = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file_, end_);
  if (at == MAP_FAILED) throw std::bad_alloc();
  places_.emplace(at, end_);
  end_ += static_cast<std::int64_t>(length);
  return at;
}

void ScratchFile::do_deallocate(void* at, std::size_t bytes, std::size_t alignment)
{
  if (bytes < smallest) return std::pmr::new_delete_resource()->deallocate(at, bytes, alignment);
  const std::size_t length = whole_pages(bytes);
  const std::lock_guard<std::mutex> guard(lock_);
  const auto place = places_.find(at);
  ::munmap(at, length);
  ::fallocate(file_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, place->second, static_cast<off_t>(length));
  places_.erase(place);
}

std::uint64_t free_memory()
{
  constexpr std::uint64_t none = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t free = number_in("/proc/meminfo", "MemAvailable:");
  if (free != none) free *= 1024;
  const std::string group = "/sys/fs/cgroup/memory.";
  if (const std::uint64_t most = number_in(group + "max"), now = number_in(group + "current");
      most != none && now != none)
    free = std::min(free, most - std::min(now, most));
  for (const auto& [limit, used] : {std::pair{RLIMIT_AS, "VmSize:"}, std::pair{RLIMIT_DATA, "VmData:"}}) {
    rlimit most{};
    if (::getrlimit(limit, &most) != 0 || most.rlim_cur == RLIM_INFINITY) continue;
    const std::uint64_t now = number_in("/proc/self/status", used);
    const std::uint64_t taken = now == none ? 0 : 1024 * now;
    free = std::min<std::uint64_t>(free, most.rlim_cur - std::min<std::uint64_t>(taken, most.rlim_cur));
  }
  return free == none ? 0 : free;
}

std::string bytes_text(double bytes)
{
  constexpr const char* units[] = {"kB", "MB", "GB", "TB"};
  std::size_t unit = 0;
  for (bytes /= 1000.0; bytes >= 1000.0 && unit < 3; bytes /= 1000.0) ++unit;
  return shortest(std::ceil(10.0 * bytes) / 10.0) + " " + units[unit];
}

} // namespace torvale::host
