#include "operation/survey.h"

#include <sys/stat.h>

#include <boost/format.hpp>
#include <ctime>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"
#include "dataupdate/file_lock.h"
#include "dataupdate/io_utils.h"
#include "offer/offer.h"
#include "offer/signed_offer.h"
#include "operation/belief.h"
#include "operation/bounded_downloads.h"
#include "operation/cool_down.h"
#include "operation/description_reader.h"
#include "operation/installed_record.h"
#include "operation/interruptible_lock.h"
#include "operation/lock_files.h"
#include "operation/lock_holder.h"
#include "operation/offers.h"
#include "operation/recovery.h"
#include "operation/rollout.h"
#include "operation/settings_check.h"
#include "operation/trust_state.h"
#include "operation/write_rights.h"
#include "tolm/volume.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using dataupdate::DiffInfo;
using dataupdate::FileLock;
using dataupdate::IOUtils;
using dataupdate::NoexceptFormat;
using dataupdate::UpdateError;

const Json::Value& Member(const Json::Value& object, const std::string& name) {
  return object.isObject() ? object[name] : Json::Value::nullSingleton();
}

std::int64_t ModifiedAt(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

bool IsChainComplete(int installed, int offered, const std::map<int, DiffInfo>& deltas) {
  // 64 bits: the offered version may be the largest int.
  for (std::int64_t version = installed + std::int64_t{1}; version <= offered; ++version) {
    if (deltas.count(static_cast<int>(version)) == 0) {
      return false;
    }
  }
  return true;
}

UpdatePlan PlanDeltas(int installed, int offered, const std::map<int, DiffInfo>& deltas) {
  UpdatePlan plan{UpdatePlan::Road::kDeltas, 0, 0};
  for (auto delta = deltas.upper_bound(installed); delta != deltas.upper_bound(offered); ++delta) {
    ++plan.packages;
    if (delta->second.file_size < 0) {
      plan.bytes.reset();
    } else if (plan.bytes.has_value()) {
      *plan.bytes += static_cast<std::uint64_t>(delta->second.file_size);
    }
  }
  return plan;
}

// Whether the description is as young as the library demands of a cached one.
bool IsYoung(std::int64_t downloaded_at) {
  return std::time(nullptr) - downloaded_at < rules::kCacheSeconds;
}

bool IsMounted(const std::string& volume) {
  TOLMMountVolInfo record;
  return TOLMMountVolInfoGet(volume.c_str(), &record) != -1;
}

}  // namespace

UpdatePlan PlanUpdate(int installed_version, int offered_version,
                      const std::map<int, DiffInfo>& deltas,
                      std::optional<std::uint64_t> full_package_bytes) {
  if (installed_version >= offered_version) {
    return {UpdatePlan::Road::kNothing, 0, 0};
  }
  if (!deltas.empty() && IsChainComplete(installed_version, offered_version, deltas)) {
    return PlanDeltas(installed_version, offered_version, deltas);
  }
  return {UpdatePlan::Road::kFullPackage, 1, full_package_bytes};
}

Description::Description(const Service& service, Json::Value document)
    : info_(service.info),
      document_(std::move(document)),
      downloaded_at_(ModifiedAt(paths::kDatabaseInfo)) {}

Description Description::Fetch(const Service& service) {
  RequireSoundSettings();
  if (!MayLock(paths::kFreshInfoLock) && !IsCachedDescriptionRefused()) {
    // Whoever may not ask the server may read what it said.
    std::optional<Description> cached = FromCache(service);
    if (cached && IsYoung(cached->downloaded_at())) {
      return *cached;
    }
  }
  Json::Value document;
  // The library's own wait for whoever is asking the server knows no signals.
  InterruptibleLock(paths::kFreshInfoLock);
  WithBoundedDownloads([&] {
    SecureStateDirectory(paths::kCacheDirectory, true);
    IOUtils().TolmMkdir(paths::kCacheDirectory);  // Its file system must be known for the bound.
    document = service.info->GetDatabaseInfo();
  });
  return Description(service, std::move(document));
}

std::optional<Description> Description::FromCache(const Service& service) {
  try {
    Json::Value document = DescriptionReader().ReadJson(paths::kDatabaseInfo);
    if (!ProblemOfDescription(document, ConfiguredDatabases()).empty()) {
      return std::nullopt;  // An earlier release kept whatever it was sent.
    }
    return Description(service, std::move(document));
  } catch (const UpdateError&) {
    return std::nullopt;
  }
}

Offer Description::OfferOf(const std::string& name) const {
  const dataupdate::RemoteInfo remote = OfferIn(document_, name);
  Offer offer{remote.data_version,
              remote.last_fetch_time,
              remote.deprecated,
              remote.download_link,
              DeltasIn(document_, name),
              std::nullopt,
              false,
              RolloutIn(document_, name)};
  const Json::Value& size = Member(Member(Member(document_, "db_list"), name), "file_size");
  if (size.isUInt64()) {
    offer.full_package_bytes = size.asUInt64();
  }
  const std::optional<int> authorized = LookForAuthorized(name);
  offer.replaces_higher =
      offer::IsDocumentOfOffer(document_) && authorized && *authorized <= offer.version;
  return offer;
}

std::optional<OffersSignature> Description::Signature() const {
  if (!offer::IsDocumentOfOffer(document_)) {
    return std::nullopt;
  }
  const Json::Value& of_offer = document_["signed"];
  return OffersSignature{of_offer["repository"].asString(), of_offer["issued"].asInt64(),
                         of_offer["expires"].asInt64()};
}

void DropCachedDescription() {
  const FileLock lock = InterruptibleLock(paths::kFreshInfoLock);
  IOUtils().RmRf(paths::kDatabaseInfo);
}

void AskServerAnew() noexcept {
  RefuseCachedDescription();
}

std::optional<OffersSignature> SignatureOfOffers() {
  try {
    const std::optional<offer::Acceptance> acceptance = BeliefInCached().acceptance;
    if (!acceptance) {
      return std::nullopt;
    }
    const offer::Accepted& accepted = acceptance->accepted;
    return OffersSignature{accepted.repository, accepted.issued, accepted.expires};
  } catch (const Disbelieved& error) {
    if (error.failure().reason != reasons::kDescriptionExpired) {
      return std::nullopt;
    }
  } catch (const std::exception&) {
    return std::nullopt;
  }
  try {
    const auto signed_text = offer::SignedTextIn(IOUtils().ReadJson(paths::kDatabaseInfo));
    if (!signed_text) {
      return std::nullopt;
    }
    const offer::Offer offer = offer::ParseOffer(signed_text->text);
    return OffersSignature{offer.repository, offer.issued, offer.expires};
  } catch (const std::exception&) {
    return std::nullopt;  // It is another one since.
  }
}

std::optional<Asked> LastAsked() {
  const std::int64_t at = ModifiedAt(paths::kDatabaseInfo);
  return at == 0 ? std::nullopt : std::make_optional(Asked{at, IsCachedDescriptionOwn()});
}

bool IsOperationRunning(const Service& service, const std::string& name) {
  if (!name.empty()) {
    service.config->CheckSupported(name);
  }
  const std::string lock = name.empty() ? std::string(paths::kUpdateAnyLock)
                                        : (NoexceptFormat(paths::kUpdateLock) % name).str();
  std::error_code error;
  if (!fs::exists(lock, error) && !error) {
    return false;
  }
  if (!MayLock(lock)) {
    return IsHeld(lock);
  }
  return name.empty() ? service.checker->IsAnyUpdating() : service.checker->IsUpdating(name);
}

Installed ExamineInstalled(const Service& service, const std::string& name) {
  service.config->CheckSupported(name);
  const auto settings = service.config->GetDatabaseConfig(name);
  const dataupdate::DatabaseStatus status = service.info->GetDatabaseStatus(name);
  std::error_code ignored;
  // A mark stands there during an operation, too.
  const bool is_marked = fs::exists(RecoveryMarkPath(name), ignored);
  const std::string root = settings->GetRootDirectory();
  return {status.data_version,
          status.last_fetch_time,
          is_marked && !IsHeld(paths::kOperatorLock),
          settings->GetInstallPrefix(),
          root == "/" ? "" : root,
          settings->GetScheduled(),
          root != "/" && !root.empty() && !IsMounted(root)};
}

Details ExamineDetails(const std::string& name) {
  Details details{LookForFloor(name), Details::Record::kNone, {}};
  switch (ReadRecordHead(name).state) {
    case RecordState::kMissing:
      break;
    case RecordState::kOutdated:
      details.record = Details::Record::kOutdated;
      break;
    case RecordState::kDamaged:
    case RecordState::kUnreadable:
      details.record = Details::Record::kDamaged;
      break;
    case RecordState::kCurrent:
      details.record = Details::Record::kCurrent;
      break;
  }
  for (const std::string& lock :
       {std::string(paths::kOperatorLock), std::string(paths::kUpdateAnyLock),
        (NoexceptFormat(paths::kUpdateLock) % name).str(),
        (NoexceptFormat(paths::kUsingLock) % name).str()}) {
    for (const LockHolder& holder : HoldersOf(lock)) {
      details.locks.push_back({fs::path(lock).filename(), holder.pid, holder.program});
    }
  }
  return details;
}

int RecordedVersion(const Service& service, const std::string& name) {
  try {
    if (const RecordHead head = ReadRecordHead(name); head.state == RecordState::kCurrent) {
      return head.version;
    }
    return service.info->GetDatabaseStatus(name).data_version;
  } catch (const std::exception&) {
    return kNeverInstalled;
  }
}

std::vector<ServerCoolDown> PresentCoolDowns() {
  return CoolDown::LookForAll(CoolDownTimes(), std::time(nullptr));
}

std::string ConfiguredServerName(const Service& service) {
  try {
    return ServerOf(service.config->GetDownloadScheme(), service.config->GetDBInfoDomainName());
  } catch (const std::exception&) {
    return "";
  }
}

}  // namespace tolm::operation
