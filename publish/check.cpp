#include "publish/check.h"

#include <sqlite3.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "base/parallel.h"
#include "offer/acceptance.h"
#include "offer/error.h"
#include "package/error.h"
#include "package/package.h"
#include "publish/certificates.h"
#include "publish/check_chain.h"
#include "publish/check_memory.h"
#include "publish/description.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/inspect.h"
#include "publish/json_object.h"
#include "publish/list.h"
#include "publish/replay.h"
#include "publish/revocations.h"
#include "publish/rollout.h"
#include "publish/signed_description.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;
using package::Kind;

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;

// All that decides what comes of applying a delta, besides the packages.
std::string ProvedBy(const package::TrustTexts& trust) {
  // Of the program that compares as well: a version may be built more than once.
  return Sha384OfText(std::string(TOLM_VERSION "\n") + MeasureFile("/proc/self/exe").sha384 + '\n' +
                      ReplayProgramDigest() + '\n' + sqlite3_sourceid() + '\n' +
                      trust.certificates + '\n' + trust.revocations);
}

// What was found out about one package.
struct PackageReport {
  const PackageRecord* record;
  bool is_older;  // CheckRequest::since_days: only its size is looked at
  std::string problem;
  std::string compression;
};

// What was found out about one database.
struct OfferReport {
  std::vector<std::string> wrong;
  ChainOrder chain;  // without deltas when there is nothing to prove
};

class Checker {
 public:
  Checker(const CheckRequest& request, std::int64_t now, const Steps& steps)
      : request_(request),
        now_(now),
        steps_(steps),
        paths_(request.repository),
        lock_(paths_),
        settings_(LoadSettings(paths_.SettingsFile())),
        catalog_(LoadCatalog(paths_.CatalogFile())),
        trust_(LoadRoot(settings_).Texts()),
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
    Part("description", [&] { CheckDescription(description); });
    for (const std::string& warning : DescriptionWarnings(description)) {
      Remark(warning);
    }
    Part("signature", [&] { CheckSignature(description); });
    CheckCertificates();
    Part("revocations", [&] { CheckRevocations(); });
    RemarkWithdrawn();
    Part("rollouts", [&] { CheckRollouts(); });
    Part("files", [&] { CheckFilesOfPublic(IsOneBefore(description)); });
    Part("packages", [&] { CheckPackages(); });
    std::map<std::string, Offer> offers;
    Part("description", [&] {
      try {
        // That it is not there has been said.
        offers = description.empty() ? offers
                                     : ParseDescription(description, paths_.Description(settings_));
      } catch (const Error& error) {
        Wrong(error.what());
      }
    });
    Part("offers", [&] { CheckOffers(offers, StagedOffersIn(description)); });
    EmptyDirectory(paths_.Work());
    return std::move(report_);
  }

 private:
  // Counts what it finds.
  void Part(const char* name, const std::function<void()>& check) {
    const std::size_t before = report_.wrong.size();
    check();
    report_.problems[name] += report_.wrong.size() - before;
  }

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

  void CheckRollouts() {
    for (const auto& [name, database] : catalog_.databases) {
      const std::optional<OpenRollout> rollout = RolloutOf(name, database);
      if (!rollout) {
        continue;
      }
      Remark(name + ' ' + RolloutText(*rollout, now_));
      if (const std::string care = RolloutCare(*rollout, paths_.Root(), now_); !care.empty()) {
        Remark(name + ": " + care);
      }
      if (!settings_.IsSigned()) {
        Wrong(name + ": a rollout is open, and the descriptions that could say so are not signed");
      }
    }
  }

  // Where a command was interrupted between its two steps, what the description offers is in the
  // catalog no more, and is as it is.
  void CheckFilesOfPublic(bool offers_the_ones_before) {
    const std::string description =
        paths_.Description(settings_).substr(paths_.Public().size() + 1);
    for (const std::string& path : ListPublic(paths_)) {
      if (path == description || packages_.count(path) != 0) {
        continue;
      }
      if (!unfinished_.empty() && IsPackagePath(path)) {
        Remark(path + ": not released; the next command removes it");
        if (offers_the_ones_before) {
          const FileFacts facts = MeasureFile(paths_.InPublic(path));
          links_.emplace(PackageLink(settings_.base_url, path),
                         PackageRecord{path, facts.size_bytes, facts.sha384});
        }
      } else {
        Wrong(path + ": does not belong here");
      }
    }
  }

  // Of retired packages the signature is no matter: their signer may be the reason.
  std::set<std::string> RetiredPaths() const {
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
    return retired;
  }

  bool IsRecent(const Release& release) const {
    return !request_.since_days || release.released >= now_ - *request_.since_days * kDaySeconds;
  }

  // Of the releases since then, and of the one before each, from which its delta leads.
  std::set<std::string> PathsToRead() const {
    std::set<std::string> paths;
    for (const auto& [name, database] : catalog_.databases) {
      const Release* before = nullptr;
      for (const Release& release : database.releases) {
        if (IsRecent(release)) {
          paths.insert(release.full.path);
          paths.insert(release.delta ? release.delta->package.path : release.full.path);
          paths.insert(before == nullptr ? release.full.path : before->full.path);
        }
        before = &release;
      }
    }
    return paths;
  }

  void CheckPackages() {
    const std::set<std::string> retired = RetiredPaths();
    const std::set<std::string> to_read = PathsToRead();
    std::vector<PackageReport> reports;
    for (const auto& [path, record] : packages_) {
      const bool is_older = request_.since_days && to_read.count(path) == 0;
      reports.push_back({&record, is_older, "", ""});
    }
    base::ForEach(reports.size(), request_.jobs, [&](std::size_t number) {
      PackageReport& report = reports[number];
      const PackageRecord& record = *report.record;
      Tell("checking packages", reports.size());
      if (report.is_older) {
        report.problem = SizeProblem(record);
      } else {
        report.problem = PackageProblem(record, retired.count(record.path) == 0);
        report.compression = CompressionOfPackage(paths_.InPublic(record.path));
      }
    });
    for (const PackageReport& report : reports) {
      Count(report);
      if (!report.problem.empty()) {
        bad_.insert(report.record->path);
        Wrong(report.record->path + ": " + report.problem);
      }
    }
  }

  void Count(const PackageReport& report) {
    if (report.is_older) {
      ++report_.older_packages;
      return;
    }
    ++report_.packages;
    if (!report.compression.empty()) {
      ++report_.compressions[report.compression];
    }
  }

  // How far it has come, from whichever thread.
  void Tell(const char* what, std::size_t total) {
    const std::lock_guard<std::mutex> guard(mutex_);
    done_ = what == what_ ? done_ + 1 : 0;
    what_ = what;
    steps_({what, done_, total});
  }

  std::string SizeProblem(const PackageRecord& record) const {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(paths_.InPublic(record.path), error);
    return error                       ? error.message()
           : size == record.size_bytes ? ""
                                       : "not the package that was released";
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
        package.Verify(package::Trust::FromTexts(trust_), now_);
        package.CheckName();
        if (!request_.quick) {
          package.ForEachMember([](const package::Member&) {});
        }
      }
    } catch (const package::Error& error) {
      return error.what();
    }
    return {};
  }

  // Deltas are proved side by side, and told of in the order of names.
  void CheckOffers(const std::map<std::string, Offer>& offers,
                   const std::map<std::string, Offer>& staged) {
    std::vector<OfferReport> reports;
    for (const auto& [name, offer] : offers) {
      const auto next = staged.find(name);
      reports.push_back(CheckDatabase(name, offer, next == staged.end() ? nullptr : &next->second));
    }
    if (!request_.quick) {
      ProveChains(reports);
    }
    for (const OfferReport& report : reports) {
      report_.wrong.insert(report_.wrong.end(), report.wrong.begin(), report.wrong.end());
    }
  }

  // @p next is the staged version; null when there is none.
  OfferReport CheckDatabase(const std::string& name, const Offer& offer, const Offer* next) const {
    OfferReport report;
    report.chain.name = name;
    CheckOffer(offer, report);
    if (next != nullptr) {
      report.chain.stable = offer.version;
      CheckOffer(*next, report);
    }
    AddReleases(name, report.chain);
    return report;
  }

  // Adds its deltas to the chain, when they can be proved.
  void CheckOffer(const Offer& offer, OfferReport& report) const {
    const std::string& name = report.chain.name;
    const bool is_newest_there =
        !CheckLink(name, Kind::kFull, offer.version, offer.full, report).path.empty();
    const std::string problem = LinkProblem(offer.full.link, offer.version);
    if (!problem.empty()) {
      report.wrong.push_back(name + ": " + problem);
    }
    std::vector<ChainDelta> deltas;
    int expected = offer.version - static_cast<int>(offer.deltas.size());
    for (const auto& [version, delta] : offer.deltas) {
      if (version != ++expected) {
        report.wrong.push_back(name + ": the delta to " + std::to_string(version) +
                               " is not one of a chain that leads to " +
                               std::to_string(offer.version));
        return;
      }
      deltas.push_back({version, CheckLink(name, Kind::kDelta, version, delta, report), {}});
    }
    if (is_newest_there) {
      report.chain.deltas.insert(report.chain.deltas.end(), deltas.begin(), deltas.end());
    }
  }

  // Those that are still there and sound.
  void AddReleases(const std::string& name, ChainOrder& chain) const {
    const auto found = catalog_.databases.find(name);
    if (found == catalog_.databases.end() || chain.deltas.empty()) {
      return;
    }
    std::map<int, const Release*> releases;
    bool is_older = true;
    for (const Release& release : found->second.releases) {
      releases[release.version] = &release;
      if (is_older && IsRecent(release)) {
        chain.since = release.version;
        is_older = false;
      }
      if (bad_.count(release.full.path) == 0) {
        chain.releases[release.version] = {
            {paths_.InPublic(release.full.path), release.full.sha384}, release.content};
      }
    }
    chain.since = is_older ? INT_MAX : chain.since;
    for (ChainDelta& delta : chain.deltas) {
      const auto release = releases.find(delta.version);
      if (release != releases.end() && release->second->delta) {
        delta.keys = release->second->delta->keys;
      }
    }
  }

  void ProveChains(std::vector<OfferReport>& reports) {
    std::vector<OfferReport*> with_chain;
    std::size_t deltas = 0;
    for (OfferReport& report : reports) {
      if (!report.chain.deltas.empty()) {
        with_chain.push_back(&report);
        deltas += report.chain.deltas.size();
      }
    }
    ForgetRemoved();
    if (with_chain.empty()) {
      return;
    }
    proved_by_ = ProvedBy(trust_);
    const int side_by_side = std::min<int>(request_.jobs, static_cast<int>(with_chain.size()));
    std::vector<ChainReport> chains(with_chain.size());
    base::ForEach(with_chain.size(), request_.jobs, [&](std::size_t number) {
      ChainOrder& chain = with_chain[number]->chain;
      chain.work_directory = paths_.Work() + '/' + std::to_string(number);
      chain.carried_directory = paths_.Checked() + '/' + chain.name + "/carried";
      chain.trust = trust_;
      chain.now = now_;
      chain.jobs = std::max(request_.jobs / side_by_side, 1);
      chain.progress = [this, deltas] { Tell("replaying", deltas); };
      chains[number] = ProveAndRemember(chain);
    });
    for (std::size_t number = 0; number < chains.size(); ++number) {
      Take(chains[number], *with_chain[number]);
    }
  }

  ChainReport ProveAndRemember(const ChainOrder& chain) const {
    const std::string directory = paths_.Checked() + '/' + chain.name;
    const std::string results = directory + "/results.json";
    ProvedChain proved = request_.again ? ProvedChain() : LoadProvedChain(results, proved_by_);
    RemoveTree(chain.work_directory);
    ChainReport report = ProveChain(chain, proved);
    RemoveTree(chain.work_directory);
    if (report.replayed + report.together > 0) {
      try {
        MakeDirectories(directory);
        ReplaceFile(results, FormatProvedChain(proved, proved_by_), results + ".new");
      } catch (const package::Error& error) {
        report.remarks.push_back(std::string("what was proved is not remembered: ") + error.what());
      }
    }
    return report;
  }

  // Nothing is kept of databases that are not there any more.
  void ForgetRemoved() const {
    try {
      for (const std::string& name : NamesIn(paths_.Checked())) {
        if (catalog_.databases.count(name) == 0) {
          RemoveTree(paths_.Checked() + '/' + name);
        }
      }
    } catch (const package::Error&) {
      // It is in nobody's way.
    }
  }

  void Take(const ChainReport& chain, OfferReport& offer) {
    for (const std::string& sentence : chain.wrong) {
      offer.wrong.push_back(offer.chain.name + ": " + sentence);
    }
    for (const std::string& remark : chain.remarks) {
      Remark(offer.chain.name + ": " + remark);
    }
    report_.replayed += chain.replayed;
    report_.remembered += chain.remembered;
    report_.together += chain.together;
    report_.without_start += chain.without_start;
  }

  // Where the offered package lies, when it is there and sound; otherwise without a path.
  ChainPackage CheckLink(const std::string& name, Kind kind, int version,
                         const OfferedPackage& offered, OfferReport& report) const {
    const auto wrong = [&](const std::string& what) {
      report.wrong.push_back(name + ": " + offered.link + ": " + what);
    };
    const auto found = links_.find(offered.link);
    if (found == links_.end() || !IsPackageOf(found->second.path, name, kind, version)) {
      wrong("no package of version " + std::to_string(version));
      return {};
    }
    const PackageRecord& record = found->second;
    if (offered.size_bytes != record.size_bytes) {
      wrong("the stated size is not the file's");
    }
    if (offered.sha384 && *offered.sha384 != record.sha384) {
      wrong("the stated digest is not the file's");
    }
    if (kind == Kind::kDelta && record.size_bytes > INT_MAX) {
      wrong("too large for devices to count its bytes");
    }
    return {bad_.count(record.path) != 0 ? "" : paths_.InPublic(record.path), record.sha384};
  }

  // Under whichever part: the packages of an earlier signer lie under another one.
  static bool IsPackageOf(const std::string& path, const std::string& name, Kind kind,
                          int version) {
    return path == PackagePath(path.substr(0, path.find('/')), name, kind, version);
  }

  const CheckRequest& request_;
  const std::int64_t now_;
  const Steps& steps_;
  const RepositoryPaths paths_;
  const RepositoryLock lock_;
  const Settings settings_;
  const Catalog catalog_;
  const package::TrustTexts trust_;
  const std::string unfinished_;
  const std::map<std::string, PackageRecord> packages_;
  std::map<std::string, PackageRecord> links_;
  std::set<std::string> bad_;  // paths
  std::mutex mutex_;           // of what follows, while there are several threads
  const char* what_ = nullptr;
  std::uint64_t done_ = 0;
  std::string proved_by_;
  CheckReport report_;
};

}  // namespace

CheckReport CheckRepository(const CheckRequest& request, std::int64_t now, const Steps& steps) {
  return Checker(request, now, steps).Run();
}

}  // namespace tolm::publish
