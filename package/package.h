#ifndef TOLM_PACKAGE_PACKAGE_H_
#define TOLM_PACKAGE_PACKAGE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "package/compression.h"
#include "package/layout.h"
#include "package/payload_reader.h"
#include "package/seal.h"
#include "package/signature.h"
#include "package/staging_directory.h"
#include "package/trust.h"

namespace tolm::package {

/// An open package file. Everything is read through one descriptor that is opened once, so what is
/// unpacked is the file that was verified even when another file takes its name meanwhile. The same
/// file can still be overwritten by whoever may write to it: Verify and Extract compare its size
/// and times before and after and fail with kChanged, which finds an accident (two downloads to one
/// path) but is no defence against a program with the rights to write there; such a program needs
/// no package.
///
/// Calls throw Error. Not for use by two threads at once.
class Package {
 public:
  /// Opens the file and reads its trailer, nothing more. Throws kOpen, kRead, kNotAPackage,
  /// kSignatureSize.
  explicit Package(const std::string& path);

  const Layout& layout() const noexcept { return layout_; }

  /// Verifies the signature over the whole payload, with certificates judged at VerificationTime(@p
  /// now). Before that nothing of the payload is parsed, and after it only the seal, where the
  /// signer is limited to some databases: another's is kOutOfScope.
  void Verify(const Trust& trust, std::int64_t now) const;

  /// Who claims to have signed; nothing is verified.
  SignerDetails ReadSigner() const;
  CertificateDetails ReadSignerCertificate() const;
  /// Judges their certificate as Verify() does, and nothing else: the payload is not read.
  void CheckSigner(const Trust& trust, std::int64_t now) const;

  /// How the payload is compressed. Nothing is parsed.
  Compression ReadCompression() const;

  /// What the package says it is. Parses the payload: call Verify first unless the file is your
  /// own.
  Seal ReadSeal() const;

  /// Compares the seal with the name under which the package was opened; see CheckFileName.
  void CheckName() const;

  /// Calls @p visit for every member, in order; the seal is none.
  void ForEachMember(const std::function<void(const Member&)>& visit) const;

  /// Unpacks into the directory open as @p destination: everything, or the members named. See
  /// ExtractPayload. Call Verify and CheckName first.
  void Extract(int destination, const std::vector<std::string>* members,
               const StagingDirectory::Notice& notice = nullptr) const;

 private:
  struct Stamp {
    std::int64_t size = 0;
    std::int64_t modified_seconds = 0;
    std::int64_t modified_nanoseconds = 0;
  };

  Stamp TakeStamp() const;
  void CheckUnchanged() const;

  std::string path_;
  base::Descriptor file_;
  Stamp stamp_;
  Layout layout_;
};

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_PACKAGE_H_
