#include "package/tar_writer.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <new>
#include <utility>

#include "base/utf8.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/member_path.h"
#include "package/staging_directory.h"

namespace tolm::package {
namespace {

constexpr std::size_t kBufferBytes = 256 * 1024;

struct EntryDelete {
  void operator()(archive_entry* entry) const noexcept { archive_entry_free(entry); }
};
using EntryPtr = std::unique_ptr<archive_entry, EntryDelete>;

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
  std::vector<std::string> names;
  if (!ListNames(directory.Get(), names)) {
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

EntryPtr NewEntry(const std::string& name, unsigned int type, unsigned int mode) {
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

constexpr std::uint64_t kRecordBytes = 512;

std::uint64_t WholeRecords(std::uint64_t bytes) {
  return (bytes + kRecordBytes - 1) / kRecordBytes * kRecordBytes;
}

// Names up to so many bytes, and what links lead to, stand in a member's own header.
constexpr std::size_t kShortName = 100;

// A member's own header, and an extended one that begins with the name.
constexpr std::uint64_t kHeaderBytes = kRecordBytes;
std::uint64_t ExtendedHeaderBytes(std::size_t name_bytes) {
  return 2 * kRecordBytes + WholeRecords(name_bytes);
}

bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// What a link leads to; empty for everything else.
std::string TargetOf(const std::filesystem::directory_entry& entry) {
  std::error_code ignored;
  return entry.symlink_status(ignored).type() == std::filesystem::file_type::symlink
             ? std::filesystem::read_symlink(entry.path(), ignored).string()
             : "";
}

// Sums up the headers of a stream, which may all become extended by the last name.
class Headers {
 public:
  void Add(const std::string& name, const std::string& target) {
    const std::uint64_t extension = ExtendedHeaderBytes(name.size() + target.size());
    bytes_ += kHeaderBytes;
    extensions_of_all_ += extension;
    if (name.size() > kShortName || target.size() > kShortName) {
      extensions_ += extension;
    }
    has_only_ascii_ = has_only_ascii_ && IsAscii(name) && IsAscii(target);
  }

  bool has_only_ascii() const { return has_only_ascii_; }
  std::uint64_t bytes() const {
    return bytes_ + (has_only_ascii_ ? extensions_ : extensions_of_all_);
  }

 private:
  std::uint64_t bytes_ = 0;
  std::uint64_t extensions_ = 0;
  std::uint64_t extensions_of_all_ = 0;
  bool has_only_ascii_ = true;
};

}  // namespace

TreeSize MeasureTree(const std::string& directory) {
  namespace fs = std::filesystem;
  constexpr std::uint64_t kEndBytes = 2 * kRecordBytes;
  TreeSize size;
  size.tar_bytes = WholeRecords(kMaxSealBytes) + kEndBytes;
  Headers headers;
  headers.Add(kSealName, "");
  std::error_code failed;
  for (fs::recursive_directory_iterator at(directory, failed), end; !failed && at != end;
       at.increment(failed)) {
    std::error_code ignored;
    // Wherever the directory lies.
    headers.Add(at->path().string().substr(directory.size()), TargetOf(*at));
    if (at->symlink_status(ignored).type() == fs::file_type::regular) {
      const std::uintmax_t content = at->file_size(ignored);
      size.content_bytes += ignored ? 0 : content;
      size.tar_bytes += ignored ? 0 : WholeRecords(content);
    }
  }
  size.tar_bytes += headers.bytes();
  size.has_only_ascii = headers.has_only_ascii();
  return size;
}

void TarWriter::ArchiveDelete::operator()(archive* handle) const noexcept {
  archive_write_free(handle);
}

TarWriter::TarWriter(Sink sink, Progress progress, bool has_only_ascii)
    : sink_(std::move(sink)),
      progress_(std::move(progress)),
      buffer_(kBufferBytes),
      archive_(archive_write_new()) {
  archive* handle = archive_.get();
  if (handle == nullptr) {
    throw std::bad_alloc();
  }
  Check(archive_write_set_format_pax_restricted(handle));
  // Names are bytes: the result must not depend on the locale of whoever packs or unpacks. ASCII is
  // the same in all of them.
  if (!has_only_ascii) {
    Check(archive_write_set_format_option(handle, "pax", "hdrcharset", "BINARY"));
  }
  Check(archive_write_set_bytes_per_block(handle, kPieceBytes));
  Check(archive_write_set_bytes_in_last_block(handle, 1));
  Check(archive_write_open2(handle, this, nullptr, Write, nullptr, nullptr));
}

void TarWriter::AddSeal(const Seal& seal) {
  const std::string text = FormatSeal(seal);
  const EntryPtr entry = NewEntry(kSealName, AE_IFREG, 0644);
  archive_entry_set_size(entry.get(), static_cast<la_int64_t>(text.size()));
  WriteHeader(entry.get());
  WriteData(text.data(), text.size());
}

void TarWriter::Finish() {
  if (members_ == 0) {
    throw Error(Code::kNoMembers, "nothing in it to pack");
  }
  Check(archive_write_close(archive_.get()));
}

ssize_t TarWriter::Write(archive*, void* context, const void* data, std::size_t size) {
  auto& writer = *static_cast<TarWriter*>(context);
  if (writer.is_given_up_) {
    return static_cast<ssize_t>(size);
  }
  // No exception may pass through the archive library.
  try {
    writer.sink_(std::string(static_cast<const char*>(data), size));
  } catch (...) {
    writer.failure_ = std::current_exception();
    return -1;
  }
  return static_cast<ssize_t>(size);
}

void TarWriter::Check(int result) const {
  if (failure_) {
    std::rethrow_exception(failure_);
  }
  if (result != ARCHIVE_OK) {
    const char* reason = archive_error_string(archive_.get());
    throw Error(Code::kInternal, std::string("payload: ") + (reason ? reason : "not written"));
  }
}

void TarWriter::AddTree(const base::Descriptor& directory) {
  try {
    AddTree(directory, "");
  } catch (const Error& error) {
    const std::string root = NameOf(directory.Get());
    if (error.code() != Code::kRead || root.empty()) {
      throw;
    }
    throw Error(Code::kRead, root + '/' + error.what(), error.errno_value());
  }
}

void TarWriter::AddTree(const base::Descriptor& directory, const std::string& prefix) {
  for (const std::string& name : SortedNames(directory, prefix.empty() ? "." : prefix)) {
    AddMember(directory.Get(), name, prefix + name);
  }
}

void TarWriter::AddMember(int parent, const std::string& name, const std::string& shown) {
  if (shown == kSealName || StagingDirectory::IsName(shown)) {
    throw Error(Code::kMemberPath, shown + ": this name belongs to the package format");
  }
  if (!base::IsPrintableUtf8(name)) {
    throw Error(Code::kMemberPath,
                base::EscapeControls(shown) + ": the name is not UTF-8 or has control characters");
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

void TarWriter::AddDirectory(int parent, const std::string& name, const std::string& shown,
                             unsigned int mode) {
  WriteHeader(NewEntry(shown, AE_IFDIR, mode).get());
  AddTree(OpenBelow(parent, name, O_DIRECTORY, shown), shown + "/");
}

void TarWriter::AddSymbolicLink(const std::string& shown, const std::string& target) {
  const EntryPtr entry = NewEntry(shown, AE_IFLNK, 0777);
  archive_entry_copy_symlink(entry.get(), target.c_str());
  WriteHeader(entry.get());
}

void TarWriter::AddFile(int parent, const std::string& name, const std::string& shown) {
  // Without O_NONBLOCK a fifo that took the file's place would block here for ever.
  const base::Descriptor file = OpenBelow(parent, name, O_NONBLOCK | O_NOCTTY, shown);
  struct stat before {};
  if (::fstat(file.Get(), &before) != 0) {
    throw SystemError(Code::kRead, shown, errno);
  }
  const EntryPtr entry = NewEntry(shown, AE_IFREG, before.st_mode);
  archive_entry_set_size(entry.get(), before.st_size);
  WriteHeader(entry.get());
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

// Reads one byte past the announced size at most: a file that keeps growing must not keep us here.
std::uint64_t TarWriter::CopyContent(int file, std::uint64_t announced, const std::string& shown) {
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

void TarWriter::WriteHeader(archive_entry* entry) {
  Check(archive_write_header(archive_.get(), entry));
}

// A file that grew meanwhile is cut at its announced size here and refused by the caller.
void TarWriter::WriteData(const char* data, std::size_t size) {
  const la_ssize_t count = archive_write_data(archive_.get(), data, size);
  Check(count < 0 ? static_cast<int>(count) : ARCHIVE_OK);
}

}  // namespace tolm::package
