#include "host/storage/byte_source.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>
#include <zlib.h>
#include <zstd.h>

namespace torvale::host {

namespace {

constexpr std::size_t chunk = 1 << 18;

// The bytes of a file, with a look at the first ones before anything is taken:
// a pipe cannot be wound back.
class OpenFile {
public:
  explicit OpenFile(std::FILE* file) : file_(file) { ahead_ = std::fread(first_, 1, sizeof first_, file); }
  std::string_view first() const { return {first_, ahead_}; }

  // Up to `room` bytes; 0 at the end or on a failure.
  std::size_t read(void* to, std::size_t room)
  {
    const std::size_t kept = std::min(room, ahead_ - taken_);
    std::memcpy(to, first_ + taken_, kept);
    taken_ += kept;
    return kept > 0 ? kept : std::fread(to, 1, room, file_.get());
  }
  bool failed() const { return std::ferror(file_.get()) != 0; }

private:
  struct Close {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };
  std::unique_ptr<std::FILE, Close> file_;
  char first_[8] = {};
  std::size_t ahead_ = 0;
  std::size_t taken_ = 0;
};
using File = std::unique_ptr<OpenFile>;

class PlainFile final : public ByteSource {
public:
  explicit PlainFile(File file) : file_(std::move(file)) {}
  std::ptrdiff_t read(char* to, std::size_t room) override
  {
    const std::size_t n = file_->read(to, room);
    if (n == 0 && file_->failed()) {
      problem = std::strerror(errno);
      return -1;
    }
    return static_cast<std::ptrdiff_t>(n);
  }

private:
  File file_;
};

class TextBytes final : public ByteSource {
public:
  explicit TextBytes(std::string_view text) : rest_(text) {}
  std::ptrdiff_t read(char* to, std::size_t room) override
  {
    const std::size_t n = std::min(room, rest_.size());
    std::copy_n(rest_.data(), n, to);
    rest_.remove_prefix(n);
    return static_cast<std::ptrdiff_t>(n);
  }

private:
  std::string_view rest_;
};

// gzip, also several members one after the other.
class GzipFile final : public ByteSource {
public:
  explicit GzipFile(File file) : file_(std::move(file)), input_(chunk) { ok_ = inflateInit2(&z_, 15 + 16) == Z_OK; }
  ~GzipFile() override { inflateEnd(&z_); }
  std::ptrdiff_t read(char* to, std::size_t room) override
  {
    if (!ok_) return fail("no memory");
    z_.next_out = reinterpret_cast<Bytef*>(to);
    z_.avail_out = static_cast<uInt>(std::min(room, chunk));
    const uInt wanted = z_.avail_out;
    while (z_.avail_out == wanted) {
      if (z_.avail_in == 0) {
        const std::size_t n = file_->read(input_.data(), input_.size());
        if (n == 0 && between_members_) return 0;
        if (n == 0) return fail("the compressed file ends too early");
        z_.next_in = input_.data();
        z_.avail_in = static_cast<uInt>(n);
      }
      if (between_members_) inflateReset(&z_);
      between_members_ = false;
      const int code = inflate(&z_, Z_NO_FLUSH);
      if (code == Z_STREAM_END)
        between_members_ = true;
      else if (code != Z_OK && code != Z_BUF_ERROR)
        return fail(z_.msg ? z_.msg : "the compressed data are damaged");
    }
    return static_cast<std::ptrdiff_t>(wanted - z_.avail_out);
  }

private:
  std::ptrdiff_t fail(const char* why)
  {
    problem = why;
    return -1;
  }
  File file_;
  std::vector<Bytef> input_;
  z_stream z_{};
  bool ok_ = false;
  bool between_members_ = false;
};

class ZstdFile final : public ByteSource {
public:
  explicit ZstdFile(File file) : file_(std::move(file)), input_(chunk), z_(ZSTD_createDCtx()) {}
  ~ZstdFile() override { ZSTD_freeDCtx(z_); }
  std::ptrdiff_t read(char* to, std::size_t room) override
  {
    if (!z_) return fail("no memory");
    ZSTD_outBuffer out{to, room, 0};
    while (out.pos == 0) {
      if (in_.pos == in_.size) {
        const std::size_t n = file_->read(input_.data(), input_.size());
        if (n == 0 && frame_done_) return 0;
        if (n == 0) return fail("the compressed file ends too early");
        in_ = {input_.data(), n, 0};
      }
      const std::size_t code = ZSTD_decompressStream(z_, &out, &in_);
      if (ZSTD_isError(code)) return fail(ZSTD_getErrorName(code));
      frame_done_ = code == 0;
    }
    return static_cast<std::ptrdiff_t>(out.pos);
  }

private:
  std::ptrdiff_t fail(const char* why)
  {
    problem = why;
    return -1;
  }
  File file_;
  std::vector<char> input_;
  ZSTD_DCtx* z_;
  ZSTD_inBuffer in_{nullptr, 0, 0};
  bool frame_done_ = false;
};

} // namespace

std::unique_ptr<ByteSource> open_bytes(const std::string& path, std::string& problem)
{
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) {
    problem = "it is a folder";
    return nullptr;
  }
  std::FILE* const opened = std::fopen(path.c_str(), "rb");
  if (!opened) {
    problem = std::strerror(errno);
    return nullptr;
  }
  auto file = std::make_unique<OpenFile>(opened);
  const std::string_view first = file->first();
  if (first.starts_with("\x1F\x8B")) return std::make_unique<GzipFile>(std::move(file));
  if (first.starts_with("\x28\xB5\x2F\xFD")) return std::make_unique<ZstdFile>(std::move(file));
  if (first.starts_with("PK\x03\x04") || first.starts_with("\xD0\xCF\x11\xE0")) {
    problem = "it is a workbook or an archive, not text: save the sheet as CSV "
              "(UTF-8) and give that file";
    return nullptr;
  }
  if (first.starts_with("\xFF\xFE") || first.starts_with("\xFE\xFF")) {
    problem = "its text is in UTF-16: save it in UTF-8";
    return nullptr;
  }
  return std::make_unique<PlainFile>(std::move(file));
}

std::unique_ptr<ByteSource> bytes_of(std::string_view text)
{
  return std::make_unique<TextBytes>(text);
}

bool read_all(ByteSource& source, std::string& bytes)
{
  char start[1 << 14]; // most files are small: no memory is made ready for what does not come
  std::ptrdiff_t n = 0;
  do {
    if ((n = source.read(start, sizeof start)) <= 0) return n == 0;
    bytes.append(start, static_cast<std::size_t>(n));
  } while (bytes.size() < sizeof start);
  for (std::size_t room = 2 * sizeof start;; room = std::min(2 * room, chunk)) {
    const std::size_t old = bytes.size();
    bytes.resize(old + room);
    n = source.read(bytes.data() + old, room);
    bytes.resize(old + static_cast<std::size_t>(std::max<std::ptrdiff_t>(n, 0)));
    if (n <= 0) return n == 0;
  }
}

std::string compressed_for(const std::string& path, std::string bytes)
{
  if (path.ends_with(".gz")) {
    z_stream z{};
    deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&z, bytes.size()) + 64, '\0');
    z.next_in = reinterpret_cast<Bytef*>(bytes.data());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    // zlib counts in 32 bits: feed and drain in pieces.
    std::size_t fed = 0;
    int code = Z_OK;
    while (code != Z_STREAM_END) {
      const std::size_t piece = std::min<std::size_t>(bytes.size() - fed, 1u << 30);
      z.avail_in = static_cast<uInt>(piece);
      fed += piece;
      do {
        z.avail_out = static_cast<uInt>(std::min<std::size_t>(out.size() - z.total_out, 1u << 30));
        code = deflate(&z, fed == bytes.size() ? Z_FINISH : Z_NO_FLUSH);
      } while (z.avail_in > 0 || (fed == bytes.size() && code == Z_OK));
    }
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
  }
  if (path.ends_with(".zst")) {
    std::string out(ZSTD_compressBound(bytes.size()), '\0');
    out.resize(ZSTD_compress(out.data(), out.size(), bytes.data(), bytes.size(), 3));
    return out;
  }
  return bytes;
}

} // namespace torvale::host
