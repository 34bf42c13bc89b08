#include "package/package.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <tuple>

#include "package/error.h"
#include "package/extract.h"
#include "package/file_io.h"

namespace tolm::package {
namespace {

// O_NONBLOCK: opening a fifo must fail here, not wait for a writer.
base::Descriptor OpenPackage(const std::string& path) {
  base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.IsOpen()) {
    throw SystemError(Code::kOpen, path, errno);
  }
  struct stat status {};
  if (::fstat(file.Get(), &status) != 0) {
    throw SystemError(Code::kOpen, path, errno);
  }
  if (!S_ISREG(status.st_mode)) {
    throw Error(Code::kOpen, path + ": not a regular file");
  }
  return file;
}

// A file being written beside its target; removed again unless it was put into place.
class PackageFile {
 public:
  explicit PackageFile(const std::string& target) : target_(target), path_(target + ".XXXXXX") {
    file_ = base::Descriptor(::mkostemp(path_.data(), O_CLOEXEC));
    if (!file_.IsOpen()) {
      const int reason = errno;
      path_.clear();
      throw WriteError(target, reason);
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
    const std::string parent = std::filesystem::path(target_).parent_path().string();
    const base::Descriptor directory(
        ::open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
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

void CheckScope(const std::set<std::string>& scope, const std::string& name) {
  if (scope.count(name) == 0) {
    throw Error(Code::kOutOfScope, "the signer's certificate is for " + ScopeText(scope) +
                                       " and not for \"" + name + '"');
  }
}

void ProveAcceptable(const std::string& path, const Signer& signer, std::time_t now) {
  const Package package(path);
  package.Verify(Trust::InCertificate(signer.certificate.get()), now);
  package.ForEachMember([](const Member&) {});
}

}  // namespace

Package::Package(const std::string& path) : path_(path), file_(OpenPackage(path)) {
  stamp_ = TakeStamp();
  layout_ = ReadLayout(file_.Get(), static_cast<std::uint64_t>(stamp_.size));
}

void Package::Verify(const Trust& trust, std::time_t now) const {
  const VerifiedSigner signer =
      VerifyPayload(file_.Get(), layout_.payload_bytes, ReadSignature(file_.Get(), layout_), trust,
                    VerificationTime(now));
  if (signer.scope) {
    CheckScope(*signer.scope, ReadSeal().name);
  }
  CheckUnchanged();
}

SignerDetails Package::ReadSigner() const {
  return package::ReadSigner(ReadSignature(file_.Get(), layout_));
}

CertificateDetails Package::ReadSignerCertificate() const {
  return package::ReadSignerCertificate(ReadSignature(file_.Get(), layout_));
}

void Package::CheckSigner(const Trust& trust, std::time_t now) const {
  package::CheckSigner(ReadSignature(file_.Get(), layout_), trust, VerificationTime(now));
}

Seal Package::ReadSeal() const {
  return PayloadReader(file_.Get(), layout_.payload_bytes).seal();
}

void Package::CheckName() const {
  CheckFileName(ReadSeal(), path_);
}

void Package::ForEachMember(const std::function<void(const Member&)>& visit) const {
  PayloadReader reader(file_.Get(), layout_.payload_bytes);
  for (Member member; reader.Next(member);) {
    visit(member);
  }
}

void Package::Extract(int destination, const std::vector<std::string>* members) const {
  CheckUnchanged();
  ExtractPayload(file_.Get(), layout_.payload_bytes, destination, members);
  CheckUnchanged();
}

Package::Stamp Package::TakeStamp() const {
  struct stat status {};
  if (::fstat(file_.Get(), &status) != 0) {
    throw SystemError(Code::kRead, path_, errno);
  }
  return {status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

void Package::CheckUnchanged() const {
  const Stamp now = TakeStamp();
  const auto fields = [](const Stamp& stamp) {
    return std::tie(stamp.size, stamp.modified_seconds, stamp.modified_nanoseconds);
  };
  if (fields(now) != fields(stamp_)) {
    throw Error(Code::kChanged, "the file changed while it was being read");
  }
}

void WritePackage(const std::string& source_directory, const std::string& target, const Seal& seal,
                  const Signer& signer, std::time_t now, const Progress& progress) {
  CheckOutside(source_directory, target);
  PackageFile file(target);
  const std::uint64_t payload_bytes = WritePayload(source_directory, seal, file.fd(), progress);
  const std::string signature = SignPayload(file.fd(), payload_bytes, signer);
  WriteAll(file.fd(), signature.data(), signature.size(), target);
  const std::string trailer = FormatTrailer(signature.size());
  WriteAll(file.fd(), trailer.data(), trailer.size(), target);
  file.Complete();
  ProveAcceptable(file.path(), signer, now);
  file.PutInPlace();
}

}  // namespace tolm::package
