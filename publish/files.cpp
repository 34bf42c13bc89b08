#include "publish/files.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <vector>

#include "package/descriptor.h"
#include "package/error.h"
#include "package/openssl.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Descriptor;

std::string ParentOf(const std::string& path) {
  const std::string parent = fs::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

class Sha384 {
 public:
  Sha384() : context_(package::Checked(ContextPtr(EVP_MD_CTX_new()))) {
    package::CheckResult(EVP_DigestInit_ex(context_.get(), EVP_sha384(), nullptr));
  }
  void Add(const void* data, std::size_t size) {
    package::CheckResult(EVP_DigestUpdate(context_.get(), data, size));
  }
  std::string Hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    package::CheckResult(EVP_DigestFinal_ex(context_.get(), digest.data(), &size));
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
      text += kDigits[digest[i] >> 4];
      text += kDigits[digest[i] & 15];
    }
    return text;
  }

 private:
  using ContextPtr = std::unique_ptr<EVP_MD_CTX, package::OpenSslDelete<EVP_MD_CTX_free>>;
  ContextPtr context_;
};

void ForEachPiece(const std::string& path,
                  const std::function<void(const char*, std::size_t)>& take) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.IsOpen()) {
    throw package::SystemError(Code::kRead, path, errno);
  }
  std::vector<char> buffer(256 * 1024);
  for (std::uint64_t offset = 0;;) {
    const std::int64_t count = package::ReadAt(file.Get(), buffer.data(), buffer.size(), offset);
    if (count < 0) {
      throw package::SystemError(Code::kRead, path, errno);
    }
    if (count == 0) {
      return;
    }
    take(buffer.data(), static_cast<std::size_t>(count));
    offset += static_cast<std::uint64_t>(count);
  }
}

}  // namespace

void ReplaceFile(const std::string& path, const std::string& content, const std::string& staging,
                 mode_t mode) {
  Descriptor file(::open(staging.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file.IsOpen()) {
    throw package::WriteError(staging, errno);
  }
  package::WriteAll(file.Get(), content.data(), content.size(), staging);
  if (::fchmod(file.Get(), mode) != 0 || ::fsync(file.Get()) != 0) {
    throw package::WriteError(staging, errno);
  }
  if (const int reason = file.Close(); reason != 0) {
    throw package::WriteError(staging, reason);
  }
  MoveFile(staging, path);
}

void MoveFile(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) {
    throw package::WriteError(to, errno);
  }
  SyncDirectory(ParentOf(to));
  SyncDirectory(ParentOf(from));
}

void MakeDirectories(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0) {
    SyncDirectory(ParentOf(path));
    return;
  }
  if (errno == ENOENT && ParentOf(path) != path) {
    MakeDirectories(ParentOf(path));
    return MakeDirectories(path);
  }
  const int reason = errno;
  std::error_code ignored;
  if (reason != EEXIST || !fs::is_directory(path, ignored)) {
    throw package::WriteError(path, reason);
  }
}

void SyncDirectory(const std::string& path) {
  const Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.IsOpen() || ::fsync(directory.Get()) != 0) {
    throw package::WriteError(path, errno);
  }
}

void RemoveFile(const std::string& path) {
  if (::unlink(path.c_str()) == 0) {
    SyncDirectory(ParentOf(path));
  } else if (errno != ENOENT) {
    throw package::WriteError(path, errno);
  }
}

void EmptyDirectory(const std::string& path) {
  MakeDirectories(path);
  for (const auto& entry : fs::directory_iterator(path)) {
    RemoveTree(entry.path());
  }
}

void RemoveTree(const std::string& path) {
  std::error_code error;
  fs::remove_all(path, error);
  if (error) {
    throw package::WriteError(path, error.value());
  }
}

FileFacts MeasureFile(const std::string& path) {
  Sha384 digest;
  FileFacts facts;
  ForEachPiece(path, [&](const char* data, std::size_t size) {
    digest.Add(data, size);
    facts.size_bytes += size;
  });
  facts.sha384 = digest.Hex();
  return facts;
}

std::string ReadWholeFile(const std::string& path) {
  std::string content;
  ForEachPiece(path,
               [&content](const char* data, std::size_t size) { content.append(data, size); });
  return content;
}

std::string Sha384OfText(const std::string& text) {
  Sha384 digest;
  digest.Add(text.data(), text.size());
  return digest.Hex();
}

}  // namespace tolm::publish
