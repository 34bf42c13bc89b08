#include "publish/check.h"

#include <climits>
#include <exception>
#include <map>
#include <set>
#include <utility>

#include "offer/acceptance.h"
#include "offer/error.h"
#include "package/error.h"
#include "package/package.h"
#include "publish/certificates.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/json_object.h"
#include "publish/list.h"
#include "publish/replay.h"
#include "publish/revocations.h"
#include "publish/signed_description.h"
#include "publish/unpack.h"

namespace tolm::publish {
namespace {

using package::Kind;

class Checker {
 public:
  Checker(const CheckRequest& request, std::time_t now, const Steps& steps)
      : request_(request),
        now_(now),
        steps_(steps),
        paths_(request.repository),
        lock_(paths_),
        settings_(LoadSettings(paths_.SettingsFile())),
        catalog_(LoadCatalog(paths_.CatalogFile())),
        trust_(LoadRoot(settings_)),
        unfinished_(UnfinishedCommand(paths_)),
        packages_(PackagesOf(catalog_)) {
    for (const auto& [path, record] : packages_) {
      links_.emplace(PackageLink(settings_.base_url, path), record);
    }
  }

  CheckReport Run() {
    if (!unfinished_.empty()) {
      Remark("interrupted: " + unfinished_);
    }
    const std::string description = ServedDescription(paths_, settings_);
    CheckDescription(description);
    for (const std::string& warning : DescriptionWarnings(description)) {
      Remark(warning);
    }
    CheckSignature(description);
    CheckCertificates();
    CheckRevocations();
    RemarkWithdrawn();
    CheckFilesOfPublic();
    CheckPackages();
    std::map<std::string, Offer> offers;
    try {
      // That it is not there has been said.
      offers = description.empty() ? offers
                                   : ParseDescription(description, paths_.Description(settings_));
    } catch (const Error& error) {
      Wrong(error.what());
    }
    for (const auto& [name, offer] : offers) {
      CheckOffer(name, offer);
    }
    EmptyDirectory(paths_.Work());
    return std::move(report_);
  }

 private:
  void Wrong(const std::string& sentence) { report_.wrong.push_back(sentence); }
  void Remark(const std::string& sentence) { report_.remarks.push_back(sentence); }

  void CheckCertificates() {
    const int min_days = request_.min_days.value_or(settings_.min_certificate_days);
    const RepositoryCertificates certificates = ReadCertificates(paths_, settings_, catalog_);
    for (const std::string& warning : CertificateWarnings(certificates, paths_, min_days, now_)) {
      Remark(warning);
    }
    report_.certificates_need_care =
        !certificates.unreadable.empty() || FewestDaysLeft(certificates, now_) < min_days;
  }

  void CheckRevocations() {
    if (request_.revocations_path.empty()) {
      return;
    }
    const Revocations revocations = LoadRevocations(request_.revocations_path, settings_, now_);
    for (const std::string& warning : RevocationWarnings(revocations, now_)) {
      Remark(warning);
    }
    const package::Trust trust = TrustWith(settings_, revocations);
    for (const PackageRecord& record : OfferedPackages(catalog_)) {
      const std::string problem = RevocationProblem(record, trust);
      if (!problem.empty()) {
        Wrong(record.path + ": " + problem);
      }
    }
  }

  // All else about the signer is seen to with the rest of the package.
  std::string RevocationProblem(const PackageRecord& record, const package::Trust& trust) const {
    try {
      const package::Package package(paths_.InPublic(record.path));
      const std::string signer = package.ReadSignerCertificate().subject;
      try {
        package.CheckSigner(trust, now_);
      } catch (const package::Error& error) {
        return error.code() == package::Code::kRevoked
                   ? "signed with " + signer + ", which " + request_.revocations_path +
                         " revokes, or an authority above it"
                   : "";
      }
    } catch (const package::Error&) {
      return "";
    }
    return "";
  }

  void CheckDescription(const std::string& served) {
    if (IsUnsignedDescriptionOf(catalog_, settings_, served)) {
      return;
    }
    if (IsOneBefore(served)) {
      Remark("the description is still the one before; the next command replaces it");
    } else {
      Wrong(paths_.Description(settings_) + ": not what the catalog says");
    }
  }

  // Whether an interrupted command has left it so.
  bool IsOneBefore(const std::string& served) const {
    return !unfinished_.empty() && Sha384OfText(served) == catalog_.replaces;
  }

  void CheckSignature(const std::string& served) {
    const std::string where = paths_.Description(settings_) + ": ";
    const std::string refresh = "; \"tolmdbpub refresh " + paths_.Root() + "\" signs it anew";
    try {
      const auto signed_text = offer::SignedTextIn(ParseJson(served, where));
      if (!settings_.IsSigned()) {
        if (signed_text) {
          Wrong(where + "is signed, and the settings have no info key");
        }
      } else if (!signed_text) {
        CheckUnsigned(served, where + "is not signed" + refresh);
      } else {
        CheckSigned(served, *signed_text, where, refresh);
      }
    } catch (const offer::Error& error) {
      Wrong(where + error.what() + refresh);
    } catch (const Error&) {
      // What is no JSON is said once, where its offers are read.
    }
  }

  void CheckUnsigned(const std::string& served, const std::string& sentence) {
    const bool is_left =
        !unfinished_.empty() &&
        (IsOneBefore(served) || served == DescribeCatalog(catalog_, settings_.base_url));
    if (is_left) {
      Remark("the description is not signed yet; the next command signs it");
    } else {
      Wrong(sentence);
    }
  }

  // As a device judges that knows nothing of this repository but its root and the revocations.
  void CheckSigned(const std::string& served, const offer::SignedText& signed_text,
                   const std::string& where, const std::string& refresh) {
    const offer::VerifiedOffer verified = Verify(
        signed_text, OfferTrust(), offer::TimeFor(SignerOf(signed_text).not_before, {}, now_));
    Judge(verified, {}, settings_.info_version, now_);
    const bool counts_on = verified.offer.counter >= catalog_.counter;
    if (counts_on && IsUnsignedDescriptionOf(catalog_, settings_, served) &&
        !IsDescriptionOf(catalog_, settings_, served, now_)) {
      Wrong(where + "its signed part is not what the catalog says" + refresh);
    }
    if (!counts_on && !IsOneBefore(served)) {
      Wrong(where + "its counter, " + std::to_string(verified.offer.counter) +
            ", is below that of one signed before, " + std::to_string(catalog_.counter) +
            ", and devices refuse it" + refresh);
    }
    if (verified.offer.expires - now_ < DescriptionCareSeconds(settings_)) {
      const bool with_signer = verified.offer.expires >= verified.signer.not_after;
      Wrong(where + "is valid until " + TimeText(verified.offer.expires) +
            " UTC only, and devices refuse it from then on" +
            (with_signer ? "; its signer's certificate ends then: \"tolmdbpub set " +
                               paths_.Root() + " --info-key KEY --info-cert FILE\" takes another"
                         : refresh));
    }
  }

  package::Trust OfferTrust() const {
    if (request_.revocations_path.empty()) {
      return package::Trust::Load(settings_.RootFile(), settings_.RevocationsFile());
    }
    return TrustWith(settings_, LoadRevocations(request_.revocations_path, settings_, now_));
  }

  void RemarkWithdrawn() {
    for (const auto& [name, database] : catalog_.databases) {
      for (const Release& release : database.releases) {
        if (release.withdrawn != 0) {
          Remark(name + ' ' + std::to_string(release.version) + " was withdrawn on " +
                 TimeText(release.withdrawn));
        }
      }
    }
  }

  void CheckFilesOfPublic() {
    const std::string description =
        paths_.Description(settings_).substr(paths_.Public().size() + 1);
    for (const std::string& path : ListPublic(paths_)) {
      if (path == description || packages_.count(path) != 0) {
        continue;
      }
      if (!unfinished_.empty() && IsPackagePath(path)) {
        Remark(path + ": not released; the next command removes it");
      } else {
        Wrong(path + ": does not belong here");
      }
    }
  }

  // Of retired packages the signature is no matter: their signer may be the reason.
  void CheckPackages() {
    std::set<std::string> retired;
    for (const auto& [name, database] : catalog_.databases) {
      for (const RetiredPackage& package : database.retired) {
        retired.insert(package.package.path);
      }
    }
    for (const auto& entry : catalog_.removed) {
      for (const RetiredPackage& package : entry.second.retired) {
        retired.insert(package.package.path);
      }
    }
    for (const auto& [path, record] : packages_) {
      steps_({"checking packages", report_.packages++, packages_.size()});
      const std::string problem = PackageProblem(record, retired.count(path) == 0);
      if (!problem.empty()) {
        bad_.insert(path);
        Wrong(path + ": " + problem);
      }
    }
  }

  std::string PackageProblem(const PackageRecord& record, bool check_signature) const {
    const std::string path = paths_.InPublic(record.path);
    try {
      const FileFacts facts = MeasureFile(path);
      if (facts.size_bytes != record.size_bytes || facts.sha384 != record.sha384) {
        return "not the package that was released";
      }
      if (check_signature) {
        const package::Package package(path);
        package.Verify(trust_, now_);
        package.CheckName();
        package.ForEachMember([](const package::Member&) {});
      }
    } catch (const package::Error& error) {
      return error.what();
    }
    return {};
  }

  void CheckOffer(const std::string& name, const Offer& offer) {
    const std::string newest = CheckLink(name, Kind::kFull, offer.version, offer.full);
    const std::string problem = LinkProblem(offer.full.link, offer.version);
    if (!problem.empty()) {
      Wrong(name + ": " + problem);
    }
    std::vector<ReplayPackage> chain;
    int expected = offer.version - static_cast<int>(offer.deltas.size());
    for (const auto& [version, delta] : offer.deltas) {
      if (version != ++expected) {
        Wrong(name + ": the delta to " + std::to_string(version) +
              " is not one of a chain that leads to " + std::to_string(offer.version));
        return;
      }
      chain.push_back({version, CheckLink(name, Kind::kDelta, version, delta)});
    }
    if (!newest.empty() && !chain.empty()) {
      ReplayChains(name, chain, newest);
    }
  }

  // Where the offered package lies, when it is there and sound; otherwise empty.
  std::string CheckLink(const std::string& name, Kind kind, int version,
                        const OfferedPackage& offered) {
    const std::string what = name + ": " + offered.link + ": ";
    const auto found = links_.find(offered.link);
    if (found == links_.end() || !IsPackageOf(found->second.path, name, kind, version)) {
      Wrong(what + "no package of version " + std::to_string(version));
      return {};
    }
    const PackageRecord& record = found->second;
    if (offered.size_bytes != record.size_bytes) {
      Wrong(what + "the stated size is not the file's");
    }
    if (offered.sha384 && *offered.sha384 != record.sha384) {
      Wrong(what + "the stated digest is not the file's");
    }
    if (kind == Kind::kDelta && record.size_bytes > INT_MAX) {
      Wrong(what + "too large for devices to count its bytes");
    }
    return bad_.count(record.path) != 0 ? "" : paths_.InPublic(record.path);
  }

  // Under whichever part: the packages of an earlier signer lie under another one.
  static bool IsPackageOf(const std::string& path, const std::string& name, Kind kind,
                          int version) {
    return path == PackagePath(path.substr(0, path.find('/')), name, kind, version);
  }

  // From every release from which the chain leads on and whose package is still there.
  void ReplayChains(const std::string& name, const std::vector<ReplayPackage>& chain,
                    const std::string& newest) {
    const Tree expected = UnpackRelease(newest, trust_, now_, Work("newest"));
    const int first = chain.front().version - 1;
    for (const Release& start : ReleasesOf(name)) {
      if (start.version < first || start.version >= chain.back().version ||
          bad_.count(start.full.path) != 0) {
        continue;
      }
      steps_({"replaying", ++report_.chains, 0});
      const auto skipped = start.version - first;
      const std::string problem =
          ReplayProblem(name, start, {chain.begin() + skipped, chain.end()}, expected);
      if (!problem.empty()) {
        Wrong(name + ": by deltas from " + std::to_string(start.version) + " to " +
              std::to_string(chain.back().version) + ": " + problem);
      }
    }
  }

  const std::vector<Release>& ReleasesOf(const std::string& name) const {
    static const std::vector<Release> kNone;
    const auto found = catalog_.databases.find(name);
    return found == catalog_.databases.end() ? kNone : found->second.releases;
  }

  std::string ReplayProblem(const std::string& name, const Release& start,
                            const std::vector<ReplayPackage>& chain, const Tree& expected) const {
    ReplayRequest request;
    request.name = name;
    request.installed_version = start.version;
    request.packages = chain;
    request.work_directory = Work("replay");
    request.trust = &trust_;
    request.now = now_;
    for (const ReplayPackage& step : chain) {
      if (step.path.empty()) {
        return "the delta to " + std::to_string(step.version) + " cannot be used";
      }
    }
    RemoveTree(request.work_directory);
    try {
      request.old_tree =
          UnpackRelease(paths_.InPublic(start.full.path), trust_, now_, Work("start"));
      const std::vector<std::string> wrong = CompareTrees(ReplayChain(request), expected);
      return wrong.empty() ? "" : "differs at " + wrong.front() + OthersText(wrong.size() - 1);
    } catch (const ReplayError& error) {
      return error.what();
    }
  }

  static std::string OthersText(std::size_t count) {
    return count == 0 ? "" : " and " + std::to_string(count) + " others";
  }

  std::string Work(const std::string& name) const { return paths_.Work() + '/' + name; }

  const CheckRequest& request_;
  const std::time_t now_;
  const Steps& steps_;
  const RepositoryPaths paths_;
  const RepositoryLock lock_;
  const Settings settings_;
  const Catalog catalog_;
  const package::Trust trust_;
  const std::string unfinished_;
  const std::map<std::string, PackageRecord> packages_;
  std::map<std::string, PackageRecord> links_;
  std::set<std::string> bad_;  // paths
  CheckReport report_;
};

}  // namespace

CheckReport CheckRepository(const CheckRequest& request, std::time_t now, const Steps& steps) {
  return Checker(request, now, steps).Run();
}

}  // namespace tolm::publish
