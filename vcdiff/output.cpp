#include "vcdiff/output.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "vcdiff/error.h"

namespace tolm::vcdiff {

namespace {

constexpr char kTemporary[] = ".vcdiff-XXXXXX";

void WriteAll(int fd, const std::string& name, const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      if (errno == EFAULT) {
        ThrowUnusable(name, "what it is copied from became shorter while it was read");
      }
      ThrowIo(name, "write it", errno);
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
}

std::string TemplateBeside(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return (slash == std::string::npos ? "" : path.substr(0, slash + 1)) + kTemporary;
}

std::string TemplateInTemporaryDirectory() {
  const char* directory = std::getenv("TMPDIR");
  return std::string(directory == nullptr || *directory == '\0' ? "/tmp" : directory) + "/" +
         kTemporary;
}

int MakeTemporary(std::string& name_template, const std::string& name) {
  const int fd = mkostemp(name_template.data(), O_CLOEXEC);
  if (fd < 0) {
    ThrowIo(name, "make a temporary file for it", errno);
  }
  return fd;
}

int MakeUnnamed() {
  std::string name = TemplateInTemporaryDirectory();
  const int fd = MakeTemporary(name, name);
  static_cast<void>(unlink(name.c_str()));
  return fd;
}

/// Renaming would replace a device or a FIFO by a file.
void RefuseWhatIsNoFile(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
    ThrowUnusable(path, "exists and is not a regular file");
  }
}

}  // namespace

const std::uint8_t* MemorySink::WrittenInput::Map(std::uint64_t /*offset*/,
                                                  std::uint64_t /*size*/) {
  return nullptr;
}

void MemorySink::WrittenInput::Read(std::uint64_t offset, std::uint8_t* to, std::size_t size) {
  std::copy_n(bytes_.data() + offset, size, to);
}

Input& NullSink::Written() {
  throw std::logic_error("nothing is kept of the target");
}

OutputFile::OutputFile(const std::string& path, unsigned int permissions, FileAccess access)
    : path_((RefuseWhatIsNoFile(path), path)),
      temporary_(TemplateBeside(path)),
      file_(MakeTemporary(temporary_, path)),
      written_(path, file_.Get(), 0, access),
      writer_([this](const std::uint8_t* data, std::size_t size) {
        WriteAll(file_.Get(), path_, data, size);
      }) {
  if (fchmod(file_.Get(), permissions) != 0) {
    const int error = errno;
    static_cast<void>(unlink(temporary_.c_str()));
    ThrowIo(path_, "set its permission bits", error);
  }
}

OutputFile::~OutputFile() {
  if (!temporary_.empty()) {
    static_cast<void>(unlink(temporary_.c_str()));
  }
}

void OutputFile::Write(const std::uint8_t* data, std::size_t size) {
  writer_.Push(data, size);
  written_.Grow(written_.Size() + size);
}

void OutputFile::Commit() {
  Settle();
  if (file_.Close() != 0) {
    ThrowIo(path_, "close it", errno);
  }
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) {
    ThrowIo(path_, "give it its name", errno);
  }
  temporary_.clear();
}

UnnamedFile::UnnamedFile(FileAccess access)
    : file_(MakeUnnamed()), written_("target", file_.Get(), 0, access) {}

void UnnamedFile::Write(const std::uint8_t* data, std::size_t size) {
  WriteAll(file_.Get(), written_.Name(), data, size);
  written_.Grow(written_.Size() + size);
}

}  // namespace tolm::vcdiff
