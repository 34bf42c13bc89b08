#include "package/payload_reader.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

#include "base/descriptor.h"
#include "base/utf8.h"
#include "package/cancellation.h"
#include "package/error.h"
#include "package/file_io.h"

namespace tolm::package {

struct PayloadReader::Source {
  int fd = -1;
  std::uint64_t offset = 0;
  std::uint64_t end = 0;
  int errno_value = 0;
  bool became_shorter = false;
  std::array<char, 64 * 1024> buffer{};

  static la_ssize_t Read(archive*, void* context, const void** data) {
    auto& source = *static_cast<Source*>(context);
    if (IsReadingCancelled()) {
      source.errno_value = ECANCELED;
      return ARCHIVE_FATAL;
    }
    const auto wanted = static_cast<std::size_t>(
        std::min<std::uint64_t>(source.buffer.size(), source.end - source.offset));
    const std::int64_t count = base::ReadAt(source.fd, source.buffer.data(), wanted, source.offset);
    if (count < 0) {
      source.errno_value = errno;
      return ARCHIVE_FATAL;
    }
    if (static_cast<std::size_t>(count) < wanted) {
      source.became_shorter = true;
      return ARCHIVE_FATAL;
    }
    source.offset += wanted;
    *data = source.buffer.data();
    return static_cast<la_ssize_t>(wanted);
  }
};

// What is left of the compression, in pieces of the stream's own. The archive library ends with an
// archive's end mark, wherever in the stream that is, so tar is read by a second object.
struct PayloadReader::Unpacked {
  archive* stream = nullptr;
  std::uint64_t most_bytes = 0;
  std::uint64_t bytes = 0;
  bool failed = false;
  bool exceeded = false;

  static la_ssize_t Read(archive*, void* context, const void** data) {
    auto& unpacked = *static_cast<Unpacked*>(context);
    std::size_t size = 0;
    la_int64_t offset = 0;
    const int result = archive_read_data_block(unpacked.stream, data, &size, &offset);
    if (result == ARCHIVE_EOF) {
      return 0;
    }
    unpacked.failed = result != ARCHIVE_OK;
    unpacked.bytes += size;
    unpacked.exceeded = unpacked.bytes > unpacked.most_bytes;
    return unpacked.failed || unpacked.exceeded ? ARCHIVE_FATAL : static_cast<la_ssize_t>(size);
  }
};

namespace {

// A name that the archive library could not hand out is as bad as none.
std::string TextOf(const char* text) {
  return text != nullptr ? text : "";
}

MemberPath LinkedMember(const std::string& name, archive_entry* entry) {
  if (archive_entry_size(entry) > 0) {
    throw Error(Code::kHardLink, "member " + name + ": a hard link with a body");
  }
  MemberPath target;
  try {
    target = SplitMemberPath(TextOf(archive_entry_hardlink(entry)));
  } catch (const Error& error) {
    throw Error(Code::kHardLink, "member " + name + ": hard link to: " + error.what());
  }
  if (target.empty() || IsReserved(target)) {
    throw Error(Code::kHardLink, "member " + name + ": hard link to what is no member");
  }
  return target;
}

MemberType TypeOf(const std::string& name, archive_entry* entry) {
  if (archive_entry_hardlink(entry) != nullptr) {
    return MemberType::kHardLink;
  }
  switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
      return MemberType::kFile;
    case AE_IFDIR:
      return MemberType::kDirectory;
    case AE_IFLNK:
      return MemberType::kSymbolicLink;
    default:
      throw Error(Code::kMemberType, "member " + name + ": neither file, directory nor link");
  }
}

Member MemberOf(archive_entry* entry) {
  Member member;
  member.path = SplitMemberPath(TextOf(archive_entry_pathname(entry)));
  member.name = JoinMemberPath(member.path);
  if (IsReserved(member.path)) {
    throw Error(Code::kMemberPath, "member " + member.name + ": a reserved name");
  }
  member.type = TypeOf(member.name, entry);
  if (member.path.empty() && member.type != MemberType::kDirectory) {
    throw Error(Code::kMemberPath, "a member in the place of the destination itself");
  }
  member.mode = archive_entry_perm(entry) & 0777;
  if (member.type == MemberType::kFile) {
    member.size_bytes =
        static_cast<std::uint64_t>(std::max<la_int64_t>(0, archive_entry_size(entry)));
  } else if (member.type == MemberType::kSymbolicLink) {
    member.target = TextOf(archive_entry_symlink(entry));
  } else if (member.type == MemberType::kHardLink) {
    member.linked_to = LinkedMember(member.name, entry);
  }
  return member;
}

}  // namespace

void PayloadReader::ArchiveDelete::operator()(archive* handle) const noexcept {
  archive_read_free(handle);
}

PayloadReader::PayloadReader(int fd, std::uint64_t payload_bytes, std::uint64_t most_unpacked_bytes)
    : source_(std::make_unique<Source>()),
      stream_(NewArchive()),
      unpacked_(std::make_unique<Unpacked>()),
      archive_(NewArchive()) {
  source_->fd = fd;
  source_->end = payload_bytes;
  unpacked_->stream = stream_.get();
  unpacked_->most_bytes = most_unpacked_bytes;
  OpenStream();
  OpenArchive();
  ReadSeal();
}

PayloadReader::~PayloadReader() = default;

PayloadReader::ArchivePtr PayloadReader::NewArchive() {
  ArchivePtr handle(archive_read_new());
  if (!handle) {
    throw std::bad_alloc();
  }
  return handle;
}

// Nothing but these: left to itself the library reads empty files and text as archives, and calls
// helper programs for filters that it was built without (which it announces by a warning).
void PayloadReader::OpenStream() {
  archive* handle = stream_.get();
  for (const int result :
       {archive_read_support_format_raw(handle), archive_read_support_filter_gzip(handle),
        archive_read_support_filter_xz(handle), archive_read_support_filter_zstd(handle)}) {
    if (result != ARCHIVE_OK) {
      throw Error(Code::kInternal, "the archive library lacks a format");
    }
  }
  archive_entry* all = nullptr;
  unpacked_->failed =
      archive_read_open(handle, source_.get(), nullptr, Source::Read, nullptr) != ARCHIVE_OK ||
      archive_read_next_header(handle, &all) != ARCHIVE_OK;
  if (unpacked_->failed) {
    ThrowArchiveError();
  }
}

void PayloadReader::OpenArchive() {
  archive* handle = archive_.get();
  if (archive_read_support_format_tar(handle) != ARCHIVE_OK) {
    throw Error(Code::kInternal, "the archive library lacks a format");
  }
  if (archive_read_open(handle, unpacked_.get(), nullptr, Unpacked::Read, nullptr) != ARCHIVE_OK) {
    ThrowArchiveError();
  }
}

void PayloadReader::ReadSeal() {
  archive_entry* entry = NextEntry();
  if (entry == nullptr || TextOf(archive_entry_pathname(entry)) != kSealName ||
      archive_entry_hardlink(entry) != nullptr || archive_entry_filetype(entry) != AE_IFREG) {
    throw Error(Code::kNoSeal, "its first member is not " + std::string(kSealName));
  }
  const la_int64_t size = archive_entry_size(entry);
  if (size < 0 || size > static_cast<la_int64_t>(kMaxSealBytes)) {
    throw Error(Code::kBadSeal, std::string(kSealName) + ": not of 0 to " +
                                    std::to_string(kMaxSealBytes) + " bytes");
  }
  std::string text(static_cast<std::size_t>(size), '\0');
  const la_ssize_t count = archive_read_data(archive_.get(), text.data(), text.size());
  if (count != static_cast<la_ssize_t>(text.size())) {
    ThrowArchiveError();
  }
  seal_ = ParseSeal(text);
}

bool PayloadReader::Next(Member& member) {
  while (archive_entry* entry = NextEntry()) {
    member = MemberOf(entry);
    if (!member.path.empty()) {
      return true;
    }
  }
  return false;
}

bool PayloadReader::NextBlock(Block& block) {
  // Few bytes may become many blocks.
  if (IsReadingCancelled()) {
    throw SystemError(Code::kRead, "payload", ECANCELED);
  }
  la_int64_t offset = 0;
  const int result = archive_read_data_block(archive_.get(), &block.data, &block.size, &offset);
  if (result == ARCHIVE_EOF) {
    return false;
  }
  if (result != ARCHIVE_OK || offset < 0) {
    ThrowArchiveError();
  }
  block.offset = static_cast<std::uint64_t>(offset);
  return true;
}

archive_entry* PayloadReader::NextEntry() {
  archive_entry* entry = nullptr;
  const int result = archive_read_next_header(archive_.get(), &entry);
  if (result == ARCHIVE_EOF) {
    ReadToTheStreamsEnd();
    return nullptr;
  }
  if (result != ARCHIVE_OK) {
    ThrowArchiveError();
  }
  return entry;
}

void PayloadReader::ReadToTheStreamsEnd() {
  const void* ignored = nullptr;
  la_ssize_t bytes = 0;
  do {
    bytes = Unpacked::Read(nullptr, unpacked_.get(), &ignored);
  } while (bytes > 0);
  if (bytes < 0) {
    ThrowArchiveError();
  }
}

void PayloadReader::ThrowArchiveError() const {
  if (source_->errno_value != 0) {
    throw UnreadPart("payload", source_->fd, source_->errno_value);
  }
  if (source_->became_shorter) {
    throw Error(Code::kChanged, "payload: the file became shorter");
  }
  if (unpacked_->exceeded) {
    throw Error(Code::kPayload, "payload: it unpacks to more than the " +
                                    std::to_string(unpacked_->most_bytes) +
                                    " bytes that the index at its end tells");
  }
  archive* failed = unpacked_->failed ? stream_.get() : archive_.get();
  throw Error(Code::kPayload,
              "payload: " + base::EscapeControls(TextOf(archive_error_string(failed))));
}

}  // namespace tolm::package
