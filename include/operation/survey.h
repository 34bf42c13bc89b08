#ifndef TOLM_OPERATION_SURVEY_H_
#define TOLM_OPERATION_SURVEY_H_

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "operation/export.h"
#include "operation/service.h"

namespace tolm::operation {

/// What an update would download.
struct UpdatePlan {
  enum class Road { kNothing, kDeltas, kFullPackage };

  Road road;
  int packages;  ///< 0 for nothing, 1 for the full package, else one for each version.
  /// Bytes of all packages; nothing when the server does not state them.
  std::optional<std::uint64_t> bytes;
};

/// How the library would bring an installed version to the offered one. Deltas that turn out to be
/// of no use are followed by the full package, which nobody knows before. Any thread may call it.
TOLM_OPERATION_API UpdatePlan PlanUpdate(int installed_version, int offered_version,
                                         const std::map<int, dataupdate::DiffInfo>& deltas,
                                         std::optional<std::uint64_t> full_package_bytes);

/// A version that does not reach all devices at once, and how it stands for this one.
struct Rollout {
  enum class State { kRunning, kHeld, kStopped };
  enum class Turn {
    kReached,  ///< It is among the devices that the plan has reached.
    kStays,    ///< It has more than the stable version, and nobody goes back.
    kLater,    ///< It will be, unless the plan is changed.
    kNever     ///< It will not be, by its setting or by the plan.
  };

  int stable = 0;  ///< The version that every device may have.
  int next = 0;    ///< The one that is above it.
  State state = State::kRunning;
  int share = 0;                ///< So many of ten thousand devices are reached.
  std::optional<int> position;  ///< Of ten thousand; a share above it reaches the device.
  std::string setting;          ///< `rollout` of the operator's settings.
  Turn turn = Turn::kNever;
  std::optional<std::int64_t> turn_at;  ///< kLater: when, seconds since 1970, where that is known.

  /// Whether this device is offered that version, and not the stable one.
  bool IsOffered() const { return turn == Turn::kReached || turn == Turn::kStays; }
};

/// In words: what became of the version so far; what follows "this device's turn"; all of it.
TOLM_OPERATION_API std::string StageText(const Rollout& rollout);
TOLM_OPERATION_API std::string TurnText(const Rollout& rollout, std::int64_t now);
TOLM_OPERATION_API std::string RolloutText(const Rollout& rollout, std::int64_t now);

/// What the server offers for one database.
struct Offer {
  int version;
  int fetched_at;  ///< By the publisher, in seconds since 1970.
  bool deprecated;
  std::string link;  ///< Of the full package.
  std::map<int, dataupdate::DiffInfo> deltas;
  std::optional<std::uint64_t> full_package_bytes;
  /// The next update installs it although a higher version is installed, as a newer signer of
  /// descriptions has it. Known to root alone.
  bool replaces_higher = false;
  /// Where a version is offered to a part of the devices, of signed descriptions alone.
  std::optional<Rollout> rollout = {};
};

/// What a signed description says of itself.
struct OffersSignature {
  std::string repository;    ///< Its identity.
  std::int64_t issued = 0;   ///< Seconds since 1970.
  std::int64_t expires = 0;  ///< The same; nothing counts that it offers from then on.
};

/// The server's description at one moment: one request answers for every database.
class TOLM_OPERATION_API Description {
 public:
  /// The present one, by the cache's rules: downloaded, with bounds, when the cached one is older
  /// than an hour. Waits up to 600 s for another process that downloads it; whoever may not open
  /// the lock gets a younger one without it. Throws DamagedSettings, UpdateError,
  /// std::runtime_error as BuildService does, and Interrupted when a signal that Interrupt has
  /// received ends the wait or the download.
  static Description Fetch(const Service& service);
  /// The cached one, however old, without asking the server and without waiting for anything.
  /// Nothing when there is none, or none that can be read.
  static std::optional<Description> FromCache(const Service& service);

  /// Throws UpdateError or std::runtime_error when the record is missing or of the wrong form.
  Offer OfferOf(const std::string& name) const;
  /// Nothing where it is not signed.
  std::optional<OffersSignature> Signature() const;
  /// When it was downloaded, in seconds since 1970.
  std::int64_t downloaded_at() const { return downloaded_at_; }

 private:
  Description(const Service& service, Json::Value document);

  std::shared_ptr<RecordingInfoGetter> info_;
  Json::Value document_;
  std::int64_t downloaded_at_;
};

/// Removes the cached description under its lock (waits up to 600 s), so that the next question
/// asks the server. Throws UpdateError, and Interrupted when a signal ends the wait.
TOLM_OPERATION_API void DropCachedDescription();

/// From now on this process asks the server for the description, however young the cached one is,
/// until it has got one: the next operation or Description::Fetch does. What is cached stays until
/// there is another. Any thread may call it.
TOLM_OPERATION_API void AskServerAnew() noexcept;

/// When the server gave the description that is cached now.
struct Asked {
  std::int64_t at;       ///< Seconds since 1970.
  bool by_this_process;  ///< And not by an earlier one, whose answer counts for an hour.
};
/// Nothing without one. Waits for nothing; any thread may call it.
TOLM_OPERATION_API std::optional<Asked> LastAsked();

/// Of the cached description, where there is no Description of it because its time is over, too;
/// nothing where there is none, it is not
/// signed, or it is not believed for another reason. Waits for nothing; any thread may call it.
TOLM_OPERATION_API std::optional<OffersSignature> SignatureOfOffers();

/// What is installed of one database, and where.
struct Installed {
  int version;     ///< -1: never installed.
  int fetched_at;  ///< By the publisher, in seconds since 1970.
  /// An operation ended while it may have been changing files: the next one installs in full.
  bool cut_short;
  std::string directory;
  std::string volume;  ///< Empty for a database that is not kept on a volume.
  bool scheduled;
  bool volume_missing;  ///< That volume is not mounted.
};

/// Throws UpdateError or std::runtime_error when the database is not configured or its settings or
/// its record are damaged. Waits for nothing.
TOLM_OPERATION_API Installed ExamineInstalled(const Service& service, const std::string& name);

/// A process that holds one of the database's locks, or one that every operation takes.
struct LockUse {
  std::string lock;  ///< The file's name.
  int process;
  std::string program;  ///< Empty when it has ended.
};

/// What else there is to know about a database.
struct Details {
  enum class Record { kNone, kOutdated, kDamaged, kCurrent };

  /// Below which version nothing is installed; -1: none. Nothing where that cannot be read.
  std::optional<int> floor;
  /// Of all installed files. Outdated: another program has installed since.
  Record record;
  std::vector<LockUse> locks;  ///< As far as the system tells.
};

/// Takes no lock, waits for nothing and throws nothing but std::bad_alloc. Any thread may call it.
TOLM_OPERATION_API Details ExamineDetails(const std::string& name);

/// The version that is recorded as installed, whatever is wrong with the settings: -1 for none, or
/// none that can be read.
TOLM_OPERATION_API int RecordedVersion(const Service& service, const std::string& name);

/// A server that scheduled runs leave alone after failures. A run by hand is not held back.
struct ServerCoolDown {
  std::string server;  ///< "host:port".
  int failures;        ///< In a row.
  std::int64_t until;  ///< Seconds since 1970.
};

/// Those of this moment, by name. Takes no lock and changes nothing.
TOLM_OPERATION_API std::vector<ServerCoolDown> PresentCoolDowns();

/// The name by which the configured server's cool-down is kept; empty where the settings name none.
TOLM_OPERATION_API std::string ConfiguredServerName(const Service& service);

/// Whether an operation is running, on the database or, without a name, on any; as Checker says it,
/// but also to who may not make or open the lock's file: nobody holds one that is not there, and
/// the system's list of locks tells of the others. Throws UpdateError for a database that is not
/// configured.
TOLM_OPERATION_API bool IsOperationRunning(const Service& service, const std::string& name);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_SURVEY_H_
