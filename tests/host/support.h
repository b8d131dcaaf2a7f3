#pragma once
#include "host/messages/messages.h"
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <unistd.h>

namespace torvale::host {

// Keeps the messages of a test; asks by number.
struct CaughtMessages : MessageLog {
  int count(int number) const
  {
    int n = 0;
    for (const Message& m : messages()) n += m.number == number;
    return n;
  }
  std::string text(int number) const
  {
    for (const Message& m : messages())
      if (m.number == number) return m.text;
    return {};
  }
};

// A folder that goes away with the test.
class ScratchFolder {
public:
  ScratchFolder()
  {
    path_ = (std::filesystem::temp_directory_path() / "torvale_host_XXXXXX").string();
    if (!::mkdtemp(path_.data())) std::abort();
  }
  ~ScratchFolder() { std::filesystem::remove_all(path_); }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }
  void write(const std::string& name, const std::string& bytes) const
  {
    std::ofstream(*this / name, std::ios::binary) << bytes;
  }
  std::string read(const std::string& name) const
  {
    std::ifstream in(*this / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

private:
  std::string path_;
};

} // namespace torvale::host
