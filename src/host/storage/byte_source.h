#pragma once
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace torvale::host {

// Bytes of a file in order, decompressed when the file begins with the mark of gzip or zstd.
class ByteSource {
public:
  virtual ~ByteSource() = default;
  // Up to `room` bytes into `to`; 0 at the end, -1 on a failure, which `problem` then describes.
  virtual std::ptrdiff_t read(char* to, std::size_t room) = 0;
  std::string problem;
};

// Null when the file cannot be opened; `problem` says why.
std::unique_ptr<ByteSource> open_bytes(const std::string& path, std::string& problem);
std::unique_ptr<ByteSource> bytes_of(std::string_view text); // the text is borrowed

// All that is left of a source; false on a failure, which its `problem` describes.
bool read_all(ByteSource& source, std::string& bytes);

// The whole of `bytes`, compressed as the ending of `path` (.gz, .zst) asks; as it is for other endings.
std::string compressed_for(const std::string& path, std::string bytes);

} // namespace torvale::host
