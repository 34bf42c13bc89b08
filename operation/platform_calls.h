#ifndef TOLM_OPERATION_PLATFORM_CALLS_H_
#define TOLM_OPERATION_PLATFORM_CALLS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "dataupdate/error.h"
#include "operation/failure.h"
#include "operation/guarded_wget.h"
#include "operation/sources.h"

namespace tolm::operation {

/// What an operation is doing at a moment.
enum class StepKind {
  kWait,  ///< For the operation of another process.
  kDownload,
  kVerify,
  kUnpack,
  kPrepare,  ///< What was unpacked is compared or applied to work copies.
  kPatch,
  kPreHooks,
  kInstall,
  kPostHooks
};

struct Step {
  StepKind kind;
  std::string file{};  ///< The package or description that is written or read, where there is one.
  std::string url{};   ///< Of a download: what the library asks for, whoever gives it.
};

/// Why the platform did not accept a package, or did not unpack it.
struct PackageRefusal {
  std::string named;   ///< Its path as the library has it.
  std::string opened;  ///< The path under which it was opened.
  int code;            ///< One of enum tolmarchive_error, or kDiffersFromOffer (package_reason.h).
  std::string detail;  ///< In words; empty where the platform has none.
};

/// Told of the steps of the operations that run in this process, by the thread that runs them. The
/// calls must not throw.
class StepObserver {
 public:
  virtual ~StepObserver() = default;

  /// Whether an operation that has installed nothing yet may go on. False ends it through its own
  /// error path.
  virtual bool MayGoOn() = 0;
  /// The same before a download.
  virtual bool MayDownload(const Step& step) = 0;
  /// How many bytes that download may have; nothing for as many as come. Whatever brings it is
  /// bounded, and nothing else that is written meanwhile.
  virtual std::optional<std::uint64_t> MostBytes() { return std::nullopt; }
  /// Why this source must not be asked for it; empty when it may. Before each of them, of which one
  /// after the other is asked until one has given it.
  virtual std::string ProblemOfAsking(const Source&) { return ""; }
  /// What it has given is fit for use, or why it is not.
  virtual void Answered(const Source&, const DownloadResult&) {}
  /// What the download has come to, after all sources that were asked.
  virtual void Downloaded(const Step& step, const DownloadResult& result) = 0;
  /// Why what these calls have led to was thrown, as far as it is known.
  virtual ExplainedError Explain(const dataupdate::UpdateError& error) {
    return ExplainedError(error.what(), error.code(), FailureOf(error));
  }

  virtual void Refused(const PackageRefusal&) {}
  /// A step begins, and with it the one before it has ended.
  virtual void Began(const Step& step) = 0;
};

/// The library has no call-backs, but whatever takes long it does through the platform's calls, and
/// a program may put functions of its own before those. While one of these objects exists, the
/// calls tell its observer, which is not owned, or that of one that was made later. They are made
/// while no operation runs, and go in the reverse order. Throws as RequirePrecedence() does.
class WatchedSteps {
 public:
  explicit WatchedSteps(StepObserver& observer);
  ~WatchedSteps();
  WatchedSteps(const WatchedSteps&) = delete;
  WatchedSteps& operator=(const WatchedSteps&) = delete;

 private:
  StepObserver* before_;
};

/// Whether there is one of these objects.
bool AreStepsWatched();

/// What an operation demands of these calls, whoever watches it. They are made by the thread that
/// runs it; what they throw passes through the library like a failure of its own.
class CallDemands {
 public:
  virtual ~CallDemands() = default;

  /// Whether the directory may be made. False ends the operation through its own error path.
  virtual bool MayMake(const std::string& directory) = 0;
  /// The path under which the downloaded package is opened.
  virtual std::string PathToOpen(const std::string& package) = 0;
  /// Why it is not opened at all, by that path, as "it has 5 bytes and not 6"; empty when it is.
  virtual std::string DifferenceFromOffer(const std::string& package) = 0;
  /// Whether what was unpacked from the package, by the path under which it was opened, is used.
  virtual bool Accepts(const std::string& package) = 0;
};

/// While it exists, the calls ask these demands, which are not owned. One at a time. Throws as
/// RequirePrecedence() does.
class DemandedCalls {
 public:
  explicit DemandedCalls(CallDemands& demands);
  ~DemandedCalls();
  DemandedCalls(const DemandedCalls&) = delete;
  DemandedCalls& operator=(const DemandedCalls&) = delete;
};

/// All of that is only so where this library comes before the platform in the order in which the
/// process looks names up: throws std::runtime_error otherwise. Any thread may call it.
void RequirePrecedence();

/// For steps that are not the platform's.
void TellBegan(const Step& step);
/// The source that is asked at this moment has given what is of no use.
void TellUnfit();
/// As the observer explains it.
ExplainedError Explain(const dataupdate::UpdateError& error);

/// "... and 2 mirrors failed too", for the failure of the first source that was asked. Nothing
/// changes where there was no other.
std::string WithFurther(const std::string& text, std::size_t further);
/// Whether it is this machine that has failed, so that another source would come to the same.
bool IsOfThisMachine(const Failure& failure);
/// Logs why a source has given nothing, where others are asked.
void LogFailureOf(const Source& source, const Failure& failure);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_PLATFORM_CALLS_H_
