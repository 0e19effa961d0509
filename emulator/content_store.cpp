#include "emulator/content_store.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "emulator/ids.h"
#include "emulator/synthetic.h"

namespace emulator {

namespace {

[[noreturn]] void FailOn(const std::string& what, const std::filesystem::path& path) {
  throw std::runtime_error("cannot " + what + " " + path.string() + ": " + std::strerror(errno));
}

struct DigestFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestHandle = std::unique_ptr<EVP_MD_CTX, DigestFree>;

DigestHandle NewMd5() {
  DigestHandle context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("libcrypto offers no MD5");
  }
  return context;
}

std::string Finished(EVP_MD_CTX* context) {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_DigestFinal_ex(context, bytes, &length);
  return Hex({reinterpret_cast<char*>(bytes), length});
}

class FileSource : public ContentSource {
 public:
  explicit FileSource(int file) : fd(file) {}
  ~FileSource() override { ::close(fd); }
  bool Read(int64_t offset, char* out, size_t length) const override {
    while (length > 0) {
      const ssize_t got = ::pread(fd, out, length, offset);
      if (got <= 0) return false;
      offset += got;
      out += got;
      length -= static_cast<size_t>(got);
    }
    return true;
  }

 private:
  int fd;
};

class SyntheticSource : public ContentSource {
 public:
  explicit SyntheticSource(uint64_t number) : seed(number) {}
  bool Read(int64_t offset, char* out, size_t length) const override {
    FillSynthetic(seed, offset, out, length);
    return true;
  }

 private:
  uint64_t seed;
};

}  // namespace

struct ContentWriter::Digest {
  DigestHandle context = NewMd5();
};

ContentWriter::ContentWriter(std::filesystem::path file, int64_t contentNumber)
    : path(std::move(file)),
      number(contentNumber),
      fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
      digest(std::make_unique<Digest>()) {
  if (fd < 0) FailOn("create", path);
}

ContentWriter::~ContentWriter() {
  ::close(fd);
  if (!kept) ::unlink(path.c_str());
}

void ContentWriter::Write(const char* data, size_t length) {
  EVP_DigestUpdate(digest->context.get(), data, length);
  while (length > 0) {
    const ssize_t written = ::write(fd, data, length);
    if (written < 0) FailOn("write", path);
    data += written;
    size += written;
    length -= static_cast<size_t>(written);
  }
}

std::string ContentWriter::Md5() const {
  const DigestHandle copy(EVP_MD_CTX_new());
  EVP_MD_CTX_copy_ex(copy.get(), digest->context.get());
  return Finished(copy.get());
}

void ContentWriter::StartOver() {
  if (::ftruncate(fd, 0) != 0 || ::lseek(fd, 0, SEEK_SET) != 0) FailOn("truncate", path);
  size = 0;
  digest = std::make_unique<Digest>();
}

ContentStore::ContentStore(std::filesystem::path place)
    : directory(std::move(place)), temporary(directory.empty()) {
  if (!temporary) {
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) FailOn("create", directory);
    return;
  }
  std::string pattern = (std::filesystem::temp_directory_path() / "drive-emulator-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) FailOn("create", pattern);
  directory = pattern;
}

ContentStore::~ContentStore() {
  std::error_code ignored;
  if (temporary) std::filesystem::remove_all(directory, ignored);
}

std::filesystem::path ContentStore::Path(int64_t number) const {
  return directory / std::to_string(number);
}

std::unique_ptr<ContentWriter> ContentStore::Create(int64_t number) {
  return std::make_unique<ContentWriter>(Path(number), number);
}

std::shared_ptr<ContentSource> ContentStore::Open(int64_t number) const {
  const int fd = ::open(Path(number).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  return std::make_shared<FileSource>(fd);
}

std::shared_ptr<ContentSource> ContentStore::Synthetic(uint64_t seed) {
  return std::make_shared<SyntheticSource>(seed);
}

void ContentStore::Remove(int64_t number) { ::unlink(Path(number).c_str()); }

std::string Md5Of(const ContentSource& source, int64_t size) {
  const DigestHandle context = NewMd5();
  std::vector<char> buffer(1 << 18);
  for (int64_t offset = 0; offset < size;) {
    const auto count = static_cast<size_t>(std::min<int64_t>(size - offset, 1 << 18));
    if (!source.Read(offset, buffer.data(), count)) return "";
    EVP_DigestUpdate(context.get(), buffer.data(), count);
    offset += static_cast<int64_t>(count);
  }
  return Finished(context.get());
}

}  // namespace emulator
