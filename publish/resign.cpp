#include "publish/resign.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>
#include <vector>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/package.h"
#include "publish/certificates.h"
#include "publish/change_settings.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"

namespace tolm::publish {
namespace {

using base::Descriptor;
using package::Kind;

constexpr std::size_t kPieceBytes = 1024 * 1024;

// "packages" is the first.
std::string NumberedPart(int number) {
  return number == 1 ? "packages" : "packages-" + std::to_string(number);
}

int NumberOfPart(const std::string& part) {
  int number = 1;
  while (NumberedPart(number) != part) {
    ++number;
  }
  return number;
}

void CopyPayload(const Descriptor& source, std::uint64_t bytes, const Descriptor& target,
                 const std::string& shown) {
  std::vector<char> piece(kPieceBytes);
  for (std::uint64_t done = 0; done < bytes;) {
    const auto wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), bytes - done));
    const std::int64_t count = base::ReadAt(source.Get(), piece.data(), wanted, done);
    if (count <= 0) {
      throw package::SystemError(package::Code::kRead, shown, count < 0 ? errno : EIO);
    }
    package::WriteAll(target.Get(), piece.data(), static_cast<std::size_t>(count), shown);
    done += static_cast<std::uint64_t>(count);
  }
}

std::string SignatureOf(const Descriptor& package, const package::Layout& layout,
                        const std::string& shown) {
  std::string signature(layout.signature_bytes, '\0');
  if (base::ReadAt(package.Get(), signature.data(), signature.size(), layout.payload_bytes) !=
      static_cast<std::int64_t>(signature.size())) {
    throw package::SystemError(package::Code::kRead, shown, EIO);
  }
  return signature;
}

// By whom a package may have been signed, and when.
struct FormerTrust {
  const package::Trust& roots;
  std::string name;  // of the database
  std::int64_t released;
};

// What was signed anew since was signed by a younger certificate than the release.
void RequireSigned(const Descriptor& payload, std::uint64_t bytes, const std::string& signature,
                   const FormerTrust& former) {
  const std::int64_t at =
      std::max(former.released, package::ReadSignerCertificate(signature).not_before);
  const package::VerifiedSigner signer =
      package::VerifyPayload(payload.Get(), bytes, signature, former.roots, at);
  if (!package::IsWithin(signer.scope, former.name)) {
    throw package::Error(package::Code::kOutOfScope,
                         "its signer's certificate is for " + package::ScopeText(*signer.scope));
  }
}

[[noreturn]] void RefuseToSignAgain(const std::string& package, const package::Error& error) {
  const bool is_stranger = error.code() == package::Code::kUntrusted;
  throw Error(package + ": is not signed anew: " + error.what() +
              (is_stranger ? "; when it was released below another root, put that into the file of "
                             "the root, after the present one, until all is signed anew"
                           : "; bring back the package that was released, or have \"prune\" or "
                             "\"remove\" take it out") +
              ". Nothing was changed");
}

// The payload of @p from with a new signature, as the new file @p to, synced. It is the copy whose
// old signature is verified.
void SignAgain(const std::string& from, const std::string& to, const FormerTrust& former,
               const package::Signer& signer) {
  const Descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  if (!source.IsOpen() || ::fstat(source.Get(), &status) != 0) {
    throw package::SystemError(package::Code::kOpen, from, errno);
  }
  const package::Layout layout =
      package::ReadLayout(source.Get(), static_cast<std::uint64_t>(status.st_size));
  Descriptor target(::open(to.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!target.IsOpen()) {
    throw package::WriteError(to, errno);
  }
  CopyPayload(source, layout.payload_bytes, target, to);
  try {
    RequireSigned(target, layout.payload_bytes, SignatureOf(source, layout, from), former);
  } catch (const package::Error& error) {
    RefuseToSignAgain(from, error);
  }
  const std::string signature = package::SignPayload(target.Get(), layout.payload_bytes, signer);
  const std::string end = signature + package::FormatTrailer(signature.size());
  package::WriteAll(target.Get(), end.data(), end.size(), to);
  if (::fchmod(target.Get(), 0644) != 0 || ::fsync(target.Get()) != 0) {
    throw package::WriteError(to, errno);
  }
  if (const int reason = target.Close(); reason != 0) {
    throw package::WriteError(to, reason);
  }
}

class Resigner {
 public:
  Resigner(const ResignRequest& request, std::int64_t now, const Notes& notes, const Steps& steps)
      : force_(request.force),
        now_(now),
        steps_(steps),
        change_(request.repository, notes, Purpose::kNewKeys) {
    former_roots_ = change_.catalog.former_roots + TextOfRoot();
    RequireSignedForInfoKeys(request.keys, change_);
    TakeKeyFiles(request.keys, change_.settings);
    former_roots_ += TextOfRoot();
    signer_ = LoadSignerFor(change_.settings, NamesIn(change_.catalog), now);
    if (change_.settings.IsSigned()) {
      LoadInfoSigner(change_.settings, now);  // Before all the work.
    }
    report_.signer = package::DetailsOf(signer_.certificate.get());
  }

  ResignReport Run() {
    trust_.emplace(LoadRoot(change_.settings));
    if (!force_ && IsSignedAlready(*trust_)) {
      report_.is_signed_already = true;
      for (const PackageRecord& record : OfferedPackages(change_.catalog)) {
        ++report_.packages;
        ++report_.compressions[CompressionText(Open(record).ReadCompression())];
      }
      change_.Begin("resign");
      change_.Commit();  // The paths may be others.
      return report_;
    }
    report_.part = ChoosePart();
    const package::Trust former = package::Trust::FromTexts({former_roots_, ""});
    std::size_t total = PackagesOf(change_.catalog).size();
    for (auto& [name, database] : change_.catalog.databases) {
      for (Release& release : database.releases) {
        steps_({"signing", report_.packages, total});
        Replace(name, database, Kind::kFull, release.version, release.full,
                {former, name, release.released});
        if (release.delta) {
          ReplaceDelta(name, database, release, {former, name, release.released});
        }
      }
    }
    change_.catalog.part = report_.part;
    change_.catalog.former_roots.clear();
    change_.Begin("resign");
    for (const auto& [from, to] : moves_) {
      change_.Publish(from, to);
    }
    change_.Commit();
    return report_;
  }

 private:
  // Empty when it is not there any more.
  std::string TextOfRoot() const {
    try {
      return ReadWholeFile(change_.settings.RootFile());
    } catch (const package::Error&) {
      return "";
    }
  }

  static std::set<std::string> NamesIn(const Catalog& catalog) {
    std::set<std::string> names;
    for (const auto& database : catalog.databases) {
      names.insert(database.first);
    }
    return names;
  }

  bool IsSignedAlready(const package::Trust& trust) const {
    const std::vector<PackageRecord> offered = OfferedPackages(change_.catalog);
    try {
      // Who has signed is known at once; the contents are read only when all hangs on them.
      for (const PackageRecord& record : offered) {
        if (Open(record).ReadSignerCertificate().fingerprint != report_.signer.fingerprint) {
          return false;
        }
      }
      std::size_t done = 0;
      for (const PackageRecord& record : offered) {
        steps_({"checking", done++, offered.size()});
        Open(record).Verify(trust, now_);
      }
    } catch (const package::Error&) {
      return false;  // Signing finds out what is wrong.
    }
    return true;
  }

  package::Package Open(const PackageRecord& record) const {
    return package::Package(change_.paths().InPublic(record.path));
  }

  // The first one that makes no link ambiguous; see LinkProblem.
  std::string ChoosePart() const {
    for (int number = NumberOfPart(change_.catalog.part) + 1;; ++number) {
      const std::string part = NumberedPart(number);
      const auto& databases = change_.catalog.databases;
      if (std::all_of(databases.begin(), databases.end(), [&](const auto& database) {
            return HasGoodLinks(part, database.first, database.second);
          })) {
        return part;
      }
    }
  }

  bool HasGoodLinks(const std::string& part, const std::string& name,
                    const Database& database) const {
    for (const Release* release : OfferedReleases(database)) {
      const std::string path = PackagePath(part, name, Kind::kFull, release->version);
      const std::string link = PackageLink(change_.settings.base_url, path);
      if (!LinkProblem(link, release->version).empty()) {
        return false;
      }
    }
    return true;
  }

  // One that is not offered any more never is again: no reason to sign it.
  void ReplaceDelta(const std::string& name, Database& database, Release& release,
                    const FormerTrust& former) {
    if (release.delta->withdrawn == 0) {
      Replace(name, database, Kind::kDelta, release.version, release.delta->package, former);
      return;
    }
    database.retired.push_back({release.delta->package, release.delta->withdrawn});
    release.delta.reset();
    release.no_delta_reason = "it was not offered any more when the packages were signed anew";
  }

  void Replace(const std::string& name, Database& database, Kind kind, int version,
               PackageRecord& record, const FormerTrust& former) {
    const std::string old_path = change_.paths().InPublic(record.path);
    if (MeasureFile(old_path).sha384 != record.sha384) {
      throw Error(old_path + ": is not the package that was released");
    }
    database.retired.push_back({record, now_});
    record.path = PackagePath(report_.part, name, kind, version);
    const std::string work = WorkFile(name, record.path);
    SignAgain(old_path, work, former, signer_);
    const package::Package made(work);
    made.Verify(*trust_, now_);
    made.CheckName();
    const FileFacts facts = MeasureFile(work);
    record.size_bytes = facts.size_bytes;
    record.sha384 = facts.sha384;
    moves_.emplace_back(work, record);
    ++report_.packages;
    ++report_.compressions[CompressionText(made.ReadCompression())];
  }

  std::string WorkFile(const std::string& name, const std::string& path) const {
    const std::string directory = change_.paths().Work() + '/' + name;
    MakeDirectories(directory);
    return directory + '/' + std::filesystem::path(path).filename().string();
  }

  const bool force_;
  const std::int64_t now_;
  const Steps& steps_;
  RepositoryChange change_;
  std::string former_roots_;  // PEM
  package::Signer signer_;
  std::optional<package::Trust> trust_;
  std::vector<std::pair<std::string, PackageRecord>> moves_;  // from the work directory
  ResignReport report_;
};

}  // namespace

ResignReport ResignRepository(const ResignRequest& request, std::int64_t now, const Notes& notes,
                              const Steps& steps) {
  return Resigner(request, now, notes, steps).Run();
}

}  // namespace tolm::publish
