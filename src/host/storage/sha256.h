#pragma once
#include <string>

namespace torvale::host {

// SHA-256 of a regular file's bytes (FIPS 180-4) as 64 hexadecimal digits; empty when it is no regular file or cannot
// be read.
std::string file_sha256(const std::string& path);

} // namespace torvale::host
