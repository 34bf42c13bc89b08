#include "publish/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <vector>

#include "base/descriptor.h"
#include "base/digest.h"
#include "base/file.h"
#include "package/error.h"
#include "package/file_io.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using base::Descriptor;
using package::Code;

std::string ParentOf(const std::string& path) {
  const std::string parent = fs::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

void ForEachPiece(const std::string& path,
                  const std::function<void(const char*, std::size_t)>& take) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.IsOpen()) {
    throw package::SystemError(Code::kRead, path, errno);
  }
  std::vector<char> buffer(256 * 1024);
  for (std::uint64_t offset = 0;;) {
    const std::int64_t count = base::ReadAt(file.Get(), buffer.data(), buffer.size(), offset);
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

// A failed call as this component's own error.
template <typename Action>
void InWords(const Action& action) {
  try {
    action();
  } catch (const base::FileError& error) {
    throw package::WriteError(error.path(), error.code().value());
  }
}

}  // namespace

void ReplaceFile(const std::string& path, const std::string& content, const std::string& staging,
                 mode_t mode) {
  InWords([&] {
    base::Replacement replacement(path, staging);
    replacement.Write(content, mode);
    replacement.PutInPlace();
  });
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
  struct stat status;
  if (reason != EEXIST || (stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))) {
    throw package::WriteError(path, reason);
  }
}

void SyncDirectory(const std::string& path) {
  InWords([&] { base::SyncDirectory(path); });
}

void RemoveFile(const std::string& path) {
  if (::unlink(path.c_str()) == 0) {
    SyncDirectory(ParentOf(path));
  } else if (errno != ENOENT) {
    throw package::WriteError(path, errno);
  }
}

std::vector<std::string> NamesIn(const std::string& path) {
  std::error_code error;
  std::vector<std::string> names;
  fs::directory_iterator entry(path, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    names.push_back(entry->path().filename().string());
  }
  if (error) {
    throw package::SystemError(Code::kRead, path, error.value());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void EmptyDirectory(const std::string& path) {
  MakeDirectories(path);
  for (const std::string& name : NamesIn(path)) {
    RemoveTree(path + '/' + name);
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
  base::Sha384 digest;
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
  base::Sha384 digest;
  digest.Add(text.data(), text.size());
  return digest.Hex();
}

}  // namespace tolm::publish
