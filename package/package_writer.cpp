#include "package/package_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/package.h"

namespace tolm::package {
namespace {

std::string ParentOf(const std::string& path) {
  const std::string parent = std::filesystem::path(path).parent_path().string();
  return parent.empty() ? "." : parent;
}

// A file being written beside its target; removed again unless it was put into place.
class PackageFile {
 public:
  explicit PackageFile(const std::string& target) : target_(target), path_(target + ".XXXXXX") {
    file_ = base::Descriptor(::mkostemp(path_.data(), O_CLOEXEC));
    if (!file_.IsOpen()) {
      throw WriteError(target, errno);
    }
  }
  ~PackageFile() {
    if (!path_.empty()) {
      ::unlink(path_.c_str());
    }
  }
  PackageFile(const PackageFile&) = delete;
  PackageFile& operator=(const PackageFile&) = delete;

  int fd() const { return file_.Get(); }
  const std::string& path() const { return path_; }

  // A package is for publishing: everybody may read it.
  void Complete() {
    if (::fchmod(fd(), 0644) != 0 || ::fsync(fd()) != 0) {
      throw WriteError(target_, errno);
    }
    if (const int reason = file_.Close(); reason != 0) {
      throw WriteError(target_, reason);
    }
  }

  void PutInPlace() {
    if (::rename(path_.c_str(), target_.c_str()) != 0) {
      throw WriteError(target_, errno);
    }
    path_.clear();
    SyncDirectory();
  }

 private:
  void SyncDirectory() const {
    const base::Descriptor directory(
        ::open(ParentOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen() || ::fsync(directory.Get()) != 0) {
      throw WriteError(target_, errno);
    }
  }

  std::string target_;
  std::string path_;
  base::Descriptor file_;
};

// A package inside its own source would hold itself, or its predecessor.
void CheckOutside(const std::string& source_directory, const std::string& target) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  const fs::path source = fs::canonical(source_directory, ignored);
  const fs::path parent = fs::canonical(fs::absolute(target).parent_path(), ignored);
  if (source.empty() || parent.empty()) {
    return;  // Opening them reports it.
  }
  const auto end = std::mismatch(source.begin(), source.end(), parent.begin(), parent.end()).first;
  if (end == source.end()) {
    throw Error(Code::kArgument, target + ": lies inside the directory to be packed");
  }
}

void ProveAcceptable(const std::string& path, const Signer& signer, std::int64_t now) {
  const Package package(path);
  package.Verify(Trust::InCertificate(signer.certificate.get()), now);
  package.ForEachMember([](const Member&) {});
}

}  // namespace

void WritePackage(const std::string& source_directory, const std::string& target, const Seal& seal,
                  const Packing& packing, const Signer& signer, std::int64_t now,
                  const Progress& progress) {
  CheckOutside(source_directory, target);
  PackageFile file(target);
  const std::uint64_t payload_bytes =
      WritePayload(source_directory, seal, packing, {file.fd(), ParentOf(target)}, progress);
  const std::string signature = SignPayload(file.fd(), payload_bytes, signer);
  WriteAll(file.fd(), signature.data(), signature.size(), target);
  const std::string trailer = FormatTrailer(signature.size());
  WriteAll(file.fd(), trailer.data(), trailer.size(), target);
  file.Complete();
  ProveAcceptable(file.path(), signer, now);
  file.PutInPlace();
}

}  // namespace tolm::package
