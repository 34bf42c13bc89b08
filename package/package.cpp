#include "package/package.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <tuple>

#include "package/error.h"
#include "package/extract.h"

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

void CheckScope(const std::set<std::string>& scope, const std::string& name) {
  if (scope.count(name) == 0) {
    throw Error(Code::kOutOfScope, "the signer's certificate is for " + ScopeText(scope) +
                                       " and not for \"" + name + '"');
  }
}

}  // namespace

Package::Package(const std::string& path) : path_(path), file_(OpenPackage(path)) {
  stamp_ = TakeStamp();
  layout_ = ReadLayout(file_.Get(), static_cast<std::uint64_t>(stamp_.size));
}

void Package::Verify(const Trust& trust, std::int64_t now) const {
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

void Package::CheckSigner(const Trust& trust, std::int64_t now) const {
  package::CheckSigner(ReadSignature(file_.Get(), layout_), trust, VerificationTime(now));
}

Compression Package::ReadCompression() const {
  std::array<char, kCompressionMarkBytes> mark{};
  const auto wanted =
      static_cast<std::size_t>(std::min<std::uint64_t>(mark.size(), layout_.payload_bytes));
  const std::int64_t count = base::ReadAt(file_.Get(), mark.data(), wanted, 0);
  if (count < 0) {
    throw SystemError(Code::kRead, path_, errno);
  }
  return CompressionOf({mark.data(), static_cast<std::size_t>(count)});
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

void Package::Extract(int destination, const std::vector<std::string>* members,
                      const StagingDirectory::Notice& notice) const {
  CheckUnchanged();
  ExtractPayload(file_.Get(), layout_.payload_bytes, destination, members, notice);
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

}  // namespace tolm::package
