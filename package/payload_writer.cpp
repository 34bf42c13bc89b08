#include "package/payload_writer.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <memory>
#include <new>
#include <vector>

#include "base/descriptor.h"
#include "base/utf8.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/member_path.h"

namespace tolm::package {
namespace {

struct EntryDelete {
  void operator()(archive_entry* entry) const noexcept { archive_entry_free(entry); }
};
struct ArchiveDelete {
  void operator()(archive* handle) const noexcept { archive_write_free(handle); }
};
struct DirectoryDelete {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using EntryPtr = std::unique_ptr<archive_entry, EntryDelete>;
using ArchivePtr = std::unique_ptr<archive, ArchiveDelete>;
using DirectoryPtr = std::unique_ptr<DIR, DirectoryDelete>;

base::Descriptor OpenBelow(int parent, const std::string& name, int flags,
                           const std::string& shown) {
  base::Descriptor opened(
      ::openat(parent, name.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened.IsOpen()) {
    throw SystemError(Code::kRead, shown, errno);
  }
  return opened;
}

std::vector<std::string> SortedNames(const base::Descriptor& directory, const std::string& shown) {
  const int copy = ::fcntl(directory.Get(), F_DUPFD_CLOEXEC, 0);
  const DirectoryPtr listing(copy < 0 ? nullptr : ::fdopendir(copy));
  if (!listing) {
    throw SystemError(Code::kRead, shown, errno);
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(listing.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
    errno = 0;
  }
  if (errno != 0) {
    throw SystemError(Code::kRead, shown, errno);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string ReadLink(int parent, const std::string& name, const std::string& shown) {
  std::array<char, PATH_MAX> target{};
  const ssize_t size = ::readlinkat(parent, name.c_str(), target.data(), target.size());
  if (size < 0) {
    throw SystemError(Code::kRead, shown, errno);
  }
  return std::string(target.data(), static_cast<std::size_t>(size));
}

class Writer {
 public:
  Writer(int fd, int level, const Progress& progress) : fd_(fd), progress_(progress) {
    archive* handle = archive_.get();
    if (handle == nullptr) {
      throw std::bad_alloc();
    }
    Check(archive_write_set_format_pax_restricted(handle));
    // Names are bytes: the result must not depend on the locale of whoever packs or unpacks.
    Check(archive_write_set_format_option(handle, "pax", "hdrcharset", "BINARY"));
    Check(archive_write_add_filter_zstd(handle));
    Check(archive_write_set_filter_option(handle, "zstd", "compression-level",
                                          std::to_string(level).c_str()));
    Check(archive_write_set_bytes_in_last_block(handle, 1));
    Check(archive_write_open2(handle, this, nullptr, Write, nullptr, nullptr));
  }

  void AddSeal(const Seal& seal) {
    const std::string text = FormatSeal(seal);
    const EntryPtr entry = NewEntry(kSealName, AE_IFREG, 0644);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(text.size()));
    Check(archive_write_header(archive_.get(), entry.get()));
    WriteData(text.data(), text.size());
  }

  void AddTree(const base::Descriptor& directory, const std::string& prefix) {
    for (const std::string& name : SortedNames(directory, prefix.empty() ? "." : prefix)) {
      AddMember(directory.Get(), name, prefix + name);
    }
  }

  std::uint64_t Finish() {
    if (members_ == 0) {
      throw Error(Code::kNoMembers, "nothing in it to pack");
    }
    Check(archive_write_close(archive_.get()));
    return written_bytes_;
  }

 private:
  static la_ssize_t Write(archive*, void* context, const void* data, std::size_t size) {
    auto& writer = *static_cast<Writer*>(context);
    // No exception may pass through the archive library.
    try {
      WriteAll(writer.fd_, data, size, "payload");
    } catch (const Error& error) {
      writer.errno_value_ = error.errno_value();
      return -1;
    }
    writer.written_bytes_ += size;
    return static_cast<la_ssize_t>(size);
  }

  void Check(int result) const {
    if (errno_value_ != 0) {
      throw WriteError("payload", errno_value_);
    }
    if (result != ARCHIVE_OK) {
      const char* reason = archive_error_string(archive_.get());
      throw Error(Code::kInternal, std::string("payload: ") + (reason ? reason : "not written"));
    }
  }

  static EntryPtr NewEntry(const std::string& name, unsigned int type, unsigned int mode) {
    EntryPtr entry(archive_entry_new());
    if (!entry) {
      throw std::bad_alloc();
    }
    archive_entry_copy_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), type);
    archive_entry_set_perm(entry.get(), static_cast<mode_t>(mode & 0777));
    archive_entry_set_uid(entry.get(), 0);
    archive_entry_set_gid(entry.get(), 0);
    archive_entry_set_mtime(entry.get(), 0, 0);
    archive_entry_set_size(entry.get(), 0);
    return entry;
  }

  void AddMember(int parent, const std::string& name, const std::string& shown) {
    if (shown == kSealName) {
      throw Error(Code::kMemberPath, shown + ": this name belongs to the package format");
    }
    if (!base::IsPrintableUtf8(name)) {
      throw Error(Code::kMemberPath, base::EscapeControls(shown) +
                                         ": the name is not UTF-8 or has control characters");
    }
    SplitMemberPath(shown);  // Throws for what no reader takes.
    struct stat status {};
    if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      throw SystemError(Code::kRead, shown, errno);
    }
    ++members_;
    if (S_ISREG(status.st_mode)) {
      AddFile(parent, name, shown);
    } else if (S_ISDIR(status.st_mode)) {
      AddDirectory(parent, name, shown, status.st_mode);
    } else if (S_ISLNK(status.st_mode)) {
      AddSymbolicLink(shown, ReadLink(parent, name, shown));
    } else {
      throw Error(Code::kMemberType, shown + ": neither file, directory nor symbolic link");
    }
  }

  void AddDirectory(int parent, const std::string& name, const std::string& shown, mode_t mode) {
    const EntryPtr entry = NewEntry(shown, AE_IFDIR, mode);
    Check(archive_write_header(archive_.get(), entry.get()));
    AddTree(OpenBelow(parent, name, O_DIRECTORY, shown), shown + "/");
  }

  void AddSymbolicLink(const std::string& shown, const std::string& target) {
    const EntryPtr entry = NewEntry(shown, AE_IFLNK, 0777);
    archive_entry_copy_symlink(entry.get(), target.c_str());
    Check(archive_write_header(archive_.get(), entry.get()));
  }

  void AddFile(int parent, const std::string& name, const std::string& shown) {
    // Without O_NONBLOCK a fifo that took the file's place would block here for ever.
    const base::Descriptor file = OpenBelow(parent, name, O_NONBLOCK | O_NOCTTY, shown);
    struct stat before {};
    if (::fstat(file.Get(), &before) != 0) {
      throw SystemError(Code::kRead, shown, errno);
    }
    const EntryPtr entry = NewEntry(shown, AE_IFREG, before.st_mode);
    archive_entry_set_size(entry.get(), before.st_size);
    Check(archive_write_header(archive_.get(), entry.get()));
    const auto announced = static_cast<std::uint64_t>(before.st_size);
    const std::uint64_t copied = CopyContent(file.Get(), announced, shown);
    struct stat after {};
    if (::fstat(file.Get(), &after) != 0) {
      throw SystemError(Code::kRead, shown, errno);
    }
    const bool touched = before.st_mtim.tv_sec != after.st_mtim.tv_sec ||
                         before.st_mtim.tv_nsec != after.st_mtim.tv_nsec;
    if (touched || copied != announced || !S_ISREG(after.st_mode)) {
      throw Error(Code::kChanged, shown + ": changed while it was being packed");
    }
  }

  // Reads one byte past the announced size at most: a file that keeps growing must not keep us
  // here.
  std::uint64_t CopyContent(int file, std::uint64_t announced, const std::string& shown) {
    std::uint64_t copied = 0;
    while (copied <= announced) {
      const auto wanted =
          static_cast<std::size_t>(std::min<std::uint64_t>(buffer_.size(), announced - copied + 1));
      const std::int64_t count = base::ReadAt(file, buffer_.data(), wanted, copied);
      if (count < 0) {
        throw SystemError(Code::kRead, shown, errno);
      }
      if (count == 0) {
        break;
      }
      copied += static_cast<std::uint64_t>(count);
      WriteData(buffer_.data(), static_cast<std::size_t>(count));
      packed_bytes_ += static_cast<std::uint64_t>(count);
      if (progress_) {
        progress_(packed_bytes_);
      }
    }
    return copied;
  }

  // A file that grew meanwhile is cut at its announced size here and refused by the caller.
  void WriteData(const char* data, std::size_t size) {
    const la_ssize_t count = archive_write_data(archive_.get(), data, size);
    Check(count < 0 ? static_cast<int>(count) : ARCHIVE_OK);
  }

  int fd_;
  const Progress& progress_;
  int errno_value_ = 0;
  std::uint64_t written_bytes_ = 0;
  std::uint64_t packed_bytes_ = 0;
  std::size_t members_ = 0;
  std::vector<char> buffer_ = std::vector<char>(256 * 1024);
  // Last: closing it may still call Write.
  ArchivePtr archive_{archive_write_new()};
};

// Only chooses the level: what cannot be read is reported when it is packed.
std::uint64_t ContentBytes(const std::string& directory) {
  namespace fs = std::filesystem;
  std::uint64_t bytes = 0;
  std::error_code failed;
  for (fs::recursive_directory_iterator at(directory, failed), end; !failed && at != end;
       at.increment(failed)) {
    std::error_code ignored;
    if (at->symlink_status(ignored).type() == fs::file_type::regular) {
      const std::uintmax_t size = at->file_size(ignored);
      bytes += ignored ? 0 : size;
    }
  }
  return bytes;
}

}  // namespace

std::uint64_t WritePayload(const std::string& source_directory, const Seal& seal, int fd,
                           const Progress& progress) {
  const base::Descriptor source(
      ::open(source_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!source.IsOpen()) {
    throw SystemError(Code::kRead, source_directory, errno);
  }
  Writer writer(fd, CompressionLevel(seal.kind, ContentBytes(source_directory)), progress);
  writer.AddSeal(seal);
  writer.AddTree(source, "");
  return writer.Finish();
}

}  // namespace tolm::package
