#include "operation/platform_calls.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "base/human_text.h"
#include "base/log.h"
#include "base/paths.h"
#include "dataupdate/io_utils.h"
#include "operation/download_failure.h"
#include "operation/download_limit.h"
#include "operation/interrupt.h"
#include "operation/interruptible_lock.h"
#include "operation/offered_size.h"
#include "operation/own_ground.h"
#include "operation/package_reason.h"
#include "operation/partial_downloads.h"
#include "operation/patch_bounds.h"
#include "operation/tell_road.h"
#include "operation/tree_copy.h"
#include "tolm/archive.h"
#include "tolm/exec.h"
#include "tolm/fs.h"
#include "tolm/plugin.h"

namespace tolm::operation {
namespace {

StepObserver* observer = nullptr;
CallDemands* demands = nullptr;
// Between opening and extracting, a package is known by its handle only. The library's name for it
// may be another one.
std::string opened_package;
std::string named_package;

// Whether a call of the library's arrives here: one that changes nothing, wherever it arrives.
enum class Probe { kNone, kAwaited, kSeen };
thread_local Probe probe = Probe::kNone;

[[noreturn]] void ThrowOvertaken(const std::string& name) {
  throw std::runtime_error(
      "libtolmplatform is found before libtolmoperation in this process, so downloads would have "
      "no bounds: " +
      name +
      "() does not lead to libtolmoperation. Link the program with -ltolmoperation, before "
      "-ltolmplatform if with that at all, or load libtolmoperation before libtolmdbud");
}

const std::string kPlatformLibrary = "libtolmplatform.so";  // and its version

// Whose function a call by that name finds first. A program may put one of its own before this
// file's and pass calls on; nothing is said against that.
enum class Owner { kThisLibrary, kPlatform, kAnother };

Owner OwnerOf(const char* name) {
  Dl_info found;
  Dl_info own;
  if (dladdr(dlsym(RTLD_DEFAULT, name), &found) == 0 || dladdr(&observer, &own) == 0) {
    return Owner::kAnother;
  }
  if (found.dli_fbase == own.dli_fbase) {
    return Owner::kThisLibrary;
  }
  const std::string file = found.dli_fname;
  return file.compare(file.rfind('/') + 1, kPlatformLibrary.size(), kPlatformLibrary) == 0
             ? Owner::kPlatform
             : Owner::kAnother;
}

// The function that this file's own stands before.
template <typename Function>
Function* Platform(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// An appliance's own platform may have codes only, or no words for one of them.
std::string DetailOf(const tolmarchive* handle) {
  static auto* const detail =
      Platform<decltype(tolmarchive_error_detail)>("tolmarchive_error_detail");
  const char* const words = detail == nullptr ? nullptr : detail(handle);
  return words == nullptr ? "" : words;
}

// Not by a code of the platform's: the library would call it a failure without a number.
void RequireAsOffered() {
  const std::string difference =
      demands == nullptr ? "" : demands->DifferenceFromOffer(opened_package);
  if (difference.empty()) {
    return;
  }
  TellRoad("refused " + std::filesystem::path(opened_package).filename().string());
  const PackageRefusal refusal{named_package, opened_package, kDiffersFromOffer, difference};
  if (observer != nullptr) {
    observer->Refused(refusal);
  }
  const Failure failure = PackageFailure(opened_package, kDiffersFromOffer, difference);
  throw ExplainedError(named_package + ": " + failure.text, dataupdate::UpdateError::kGeneral,
                       failure);
}

void TellRefused(const tolmarchive* handle) {
  if (observer != nullptr && handle != nullptr) {
    std::uint32_t words[3];  // The third is the last error.
    std::memcpy(words, handle, sizeof words);
    observer->Refused(
        {named_package, opened_package, static_cast<int>(words[2]), DetailOf(handle)});
  }
}

constexpr std::size_t kMostArguments = 12;
using Arguments = std::array<const char*, kMostArguments>;  // null after the last

// What follows that option; empty when it is not there.
std::string After(const Arguments& arguments, const char* option) {
  for (std::size_t i = 0; i + 1 < arguments.size() && arguments[i + 1] != nullptr; ++i) {
    if (std::strcmp(arguments[i], option) == 0) {
      return arguments[i + 1];
    }
  }
  return "";
}

int Execute(const char* path, int options, const Arguments& a) {
  static auto* const execute = Platform<decltype(TLIBCExecl)>("TLIBCExecl");
  // What comes after the first null pointer is not looked at.
  return execute(path, options, a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10],
                 a[11], static_cast<const char*>(nullptr));
}

constexpr int kNotRun = -1;
constexpr char kUrlBehind[] = "-N";

Step DownloadStep(const Arguments& arguments) {
  return {StepKind::kDownload, After(arguments, "-O"), After(arguments, kUrlBehind)};
}

// Bounds what this process and its programs write, while something is brought.
class BoundOfDownload {
 public:
  BoundOfDownload() {
    if (const auto most = observer == nullptr ? std::nullopt : observer->MostBytes()) {
      limit_.emplace(*most);
    }
  }

 private:
  std::optional<FileSizeLimit> limit_;
};

// Runs the library's wget, for another URL.
class Wget {
 public:
  Wget(const char* path, int options, const Arguments& arguments)
      : path_(path), options_(options), arguments_(arguments) {}

  int operator()(const std::string& url) const {
    Arguments changed = arguments_;
    const auto before = std::find_if(changed.begin(), changed.end(), [](const char* argument) {
      return std::strcmp(argument, kUrlBehind) == 0;
    });
    *std::next(before) = url.c_str();
    const BoundOfDownload bound;
    return Execute(path_, options_, changed);
  }

 private:
  const char* path_;
  int options_;
  const Arguments& arguments_;
};

std::string NameOf(const std::string& file) {
  return std::filesystem::path(file).filename();
}

std::uint64_t SizeOf(const std::string& file) {
  std::error_code ignored;
  const auto bytes = std::filesystem::file_size(file, ignored);
  return ignored ? 0 : bytes;
}

void TellGoingOn(const Step& step, const PartialDownload& partial) {
  const std::optional<Url> url = ParseUrl(step.url);
  if (partial.IsKept() && partial.Received() > 0 && url) {
    TellRoad("going on with " + ShownUrl(*url) + " at " + base::HumanSize(partial.Received()) +
             " of " + base::HumanSize(partial.Bytes()));
  }
}

std::string Shown(const Place& place) {
  return place.source.kind == Source::Kind::kDirectory ? place.address : ShownUrl(place.address);
}

void TellDownload(const Place& place, const DownloadResult& result, std::uint64_t bytes) {
  const std::string of_these =
      result.received_bytes < bytes
          ? ", " + base::HumanSize(result.received_bytes) + " of them in this run"
          : "";
  TellRoad(result.exit_status == 0
               ? "downloaded " + Shown(place) + ", " + base::HumanSize(bytes) + of_these
               : "not downloaded: " + LineOf("", result.failure));
}

int Decode(const char* path, int options, const Arguments& arguments) {
  constexpr std::size_t kOutputAt = 2;
  const char* const output = arguments[kOutputAt];
  return RunDecoder(output == nullptr ? "" : output,
                    [&] { return Execute(path, options, arguments); });
}

// What is patched is named by its copy: "sub.b.txt" for sub/b.txt.
int Patch(const char* path, int options, const Arguments& arguments) {
  constexpr std::size_t kTargetAt = 1;
  const int result = std::strcmp(path, tolm::paths::kVcdiffDecoder) == 0
                         ? Decode(path, options, arguments)
                         : Execute(path, options, arguments);
  const std::string file = arguments[kTargetAt] == nullptr ? "" : NameOf(arguments[kTargetAt]);
  TellRoad((result == 0 ? "patched " : "not patched: ") + file);
  return result;
}

// What one source gives, once it may be asked.
DownloadResult AskOne(const Place& place, const Step& step, const Wget& wget,
                      PartialDownload* partial) {
  if (place.source.kind != Source::Kind::kDirectory) {
    return RunGuarded(place.address, step.file, wget, partial);
  }
  const BoundOfDownload bound;
  DownloadResult result = CopyFromTree(
      place.source.address, place.address.substr(place.source.address.size() + 1), step.file);
  result.received_bytes = SizeOf(step.file);
  return result;
}

// Why it is not asked at all; no failure when it is.
DownloadResult ProblemOf(const Place& place) {
  const std::string refusal = RefusalOfLink(place.address);
  if (!refusal.empty()) {
    return {kNotRun,
            refusal,
            {reasons::kLinkRefused, Shown(place) + ": " + refusal, "ask who runs the server"}};
  }
  const std::string problem = observer == nullptr ? "" : observer->ProblemOfAsking(place.source);
  return {problem.empty() ? 0 : kNotRun, problem, {reasons::kOther, problem}};
}

// Only a signed description says what has to come.
DownloadResult Compared(const Place& place, const Step& step) {
  const std::optional<OfferedPackage> offered = SignedPackage(step.url);
  const std::string difference =
      offered ? DifferenceOf(step.file, *offered, EndWhenInterrupted) : "";
  return difference.empty()
             ? DownloadResult{0, "", {}}
             : DownloadResult{kNotRun,
                              difference,
                              {reasons::kPackageDiffers,
                               Shown(place) + ": " +
                                   PackageFailure(step.file, kDiffersFromOffer, difference).text,
                               "ask who runs the server"}};
}

DownloadResult AskAt(const Place& place, const Step& step, const Wget& wget,
                     PartialDownload* partial, bool is_alone) {
  const Asking asking(place.source);
  DownloadResult result = ProblemOf(place);
  if (result.exit_status != 0) {
    TellDownload(place, result, 0);
    return result;
  }
  result = AskOne(place, step, wget, partial);
  const std::uint64_t bytes = SizeOf(step.file);
  // Before it is opened it is compared in any case.
  if (result.exit_status == 0 && !is_alone) {
    const std::uint64_t received = result.received_bytes;
    result = Compared(place, step);
    result.received_bytes = received;
    if (result.exit_status != 0 && partial != nullptr) {
      partial->Forget();
    }
  }
  TellDownload(place, result, bytes);
  if (observer != nullptr) {
    observer->Answered(place.source, result);
  }
  return result;
}

// What nobody has, since no source is left or the one there is has it elsewhere.
DownloadResult Nowhere(const Step& step) {
  const std::string why = IsTakenFromElsewhere()
                              ? "it does not lie below the base of the signed description"
                              : "every server that may have it is left alone after failures";
  return {kNotRun, why, {reasons::kDownloadFailed, ShownUrl(step.url) + ": " + why}};
}

// Whom to ask for it: whoever was said, or all that may have it.
std::vector<Place> PlacesFor(const Step& step) {
  return AskedSource() ? std::vector<Place>{{*AskedSource(), step.url}} : PlacesOf(step.url);
}

// Asks one after the other, as long as it is they that fail. The first of them says why.
DownloadResult Fetch(const Step& step, const Wget& wget, PartialDownload* partial) {
  const std::vector<Place> places = PlacesFor(step);
  std::optional<DownloadResult> first;
  std::uint64_t received = 0;
  for (std::size_t i = 0; i < places.size(); ++i) {
    DownloadResult result = AskAt(places[i], step, wget, partial, places.size() == 1);
    received += result.received_bytes;
    result.received_bytes = received;
    if (result.exit_status == 0 || Interrupt::Received() != 0 || IsOfThisMachine(result.failure)) {
      return result;
    }
    if (places.size() > 1) {
      LogFailureOf(places[i].source, result.failure);
    }
    first = first ? first : std::make_optional(result);
  }
  if (!first) {
    return Nowhere(step);
  }
  first->further = places.size() - 1;
  first->received_bytes = received;
  return *first;
}

// With what was received of it before, where that is kept.
DownloadResult FetchOrSay(const Step& step, const Wget& wget, PartialDownload& partial) {
  try {
    TellGoingOn(step, partial);
    return Fetch(step, wget, partial.IsKept() ? &partial : nullptr);
  } catch (const std::exception& error) {
    return {kNotRun, error.what(), FailureOf(error)};
  }
}

int Download(const char* path, int options, const Arguments& arguments) {
  const Step step = DownloadStep(arguments);
  if (!observer->MayDownload(step)) {
    return kNotRun;
  }
  PartialDownload partial(step.url, step.file);
  observer->Began(step);
  const DownloadResult result = FetchOrSay(step, Wget(path, options, arguments), partial);
  observer->Downloaded(step, result);
  return result.exit_status;
}

int DownloadUnobserved(const char* path, int options, const Arguments& arguments) {
  constexpr char kLogSource[] = "wget";
  const Step step = DownloadStep(arguments);
  PartialDownload partial(step.url, step.file);
  const DownloadResult result = FetchOrSay(step, Wget(path, options, arguments), partial);
  if (!result.reason.empty()) {
    syslog(LOG_NOTICE, "%s:%d %s: %s", TOLM_LOG_HERE, step.url.c_str(), result.reason.c_str());
  }
  return result.exit_status;
}

}  // namespace

void RequirePrecedence() {
  for (const char* name : {"TLIBCExecl", "TOLMFSMkdirP", "tolmarchive_open_with_keytype",
                           "tolmarchive_extract_multiple", "TLIBPluginAction"}) {
    if (OwnerOf(name) == Owner::kPlatform) {
      ThrowOvertaken(name);
    }
  }
  if (OwnerOf("TOLMFSMkdirP") != Owner::kThisLibrary) {
    return;
  }
  // The library may have been loaded earlier, with another order of its own.
  probe = Probe::kAwaited;
  try {
    dataupdate::IOUtils().TolmMkdir("/");
  } catch (...) {
    probe = Probe::kNone;
    throw;
  }
  if (std::exchange(probe, Probe::kNone) != Probe::kSeen) {
    ThrowOvertaken("TOLMFSMkdirP");
  }
}

WatchedSteps::WatchedSteps(StepObserver& told) : before_(observer) {
  RequirePrecedence();
  observer = &told;
}

WatchedSteps::~WatchedSteps() {
  BoundScripts(false);
  observer = before_;
}

bool AreStepsWatched() {
  return observer != nullptr;
}

DemandedCalls::DemandedCalls(CallDemands& asked) {
  RequirePrecedence();
  demands = &asked;
}

DemandedCalls::~DemandedCalls() {
  demands = nullptr;
  BoundScripts(false);
}

void TellBegan(const Step& step) {
  if (observer != nullptr) {
    observer->Began(step);
  }
}

void TellUnfit() {
  if (observer != nullptr && AskedSource()) {
    observer->Answered(*AskedSource(), {kNotRun, "it is of no use", {}});
  }
}

ExplainedError Explain(const dataupdate::UpdateError& error) {
  return observer == nullptr ? ExplainedError(error.what(), error.code(), FailureOf(error))
                             : observer->Explain(error);
}

std::string WithFurther(const std::string& text, std::size_t further) {
  return further == 0
             ? text
             : text + ", and " +
                   (further == 1 ? std::string("a mirror") : std::to_string(further) + " mirrors") +
                   " failed too";
}

bool IsOfThisMachine(const Failure& failure) {
  return failure.reason == reasons::kNoRoom;
}

void LogFailureOf(const Source& source, const Failure& failure) {
  constexpr char kLogSource[] = "sources";
  syslog(LOG_NOTICE, "%s:%d %s: %s", TOLM_LOG_HERE, source.address.c_str(),
         LineOf("", failure).c_str());
}

}  // namespace tolm::operation

using tolm::operation::BoundScripts;
using tolm::operation::demands;
using tolm::operation::Download;
using tolm::operation::DownloadUnobserved;
using tolm::operation::Execute;
using tolm::operation::MakeRoomToUnpack;
using tolm::operation::named_package;
using tolm::operation::NameOf;
using tolm::operation::observer;
using tolm::operation::opened_package;
using tolm::operation::OwnGround;
using tolm::operation::Patch;
using tolm::operation::Platform;
using tolm::operation::RequireAsOffered;
using tolm::operation::StepKind;
using tolm::operation::TellBegan;
using tolm::operation::TellRefused;
using tolm::operation::TellRoad;

int TLIBCExecl(const char* path, int options, ...) {
  tolm::operation::Arguments arguments{};
  va_list list;
  va_start(list, options);
  std::size_t count = 0;
  const char* argument = va_arg(list, const char*);
  while (argument != nullptr && count < arguments.size()) {
    arguments[count++] = argument;
    argument = va_arg(list, const char*);
  }
  va_end(list);
  if (argument != nullptr) {
    return -1;  // More than any of the library's calls has.
  }
  if (std::strcmp(path, tolm::paths::kWget) == 0) {
    return observer != nullptr ? Download(path, options, arguments)
                               : DownloadUnobserved(path, options, arguments);
  }
  if (observer == nullptr) {
    return Execute(path, options, arguments);
  }
  observer->Began({StepKind::kPatch});
  return Patch(path, options, arguments);
}

int TOLMFSMkdirP(const char* path, int reserved1, int reserved2, int uid, int gid, int mode) {
  static auto* const make = Platform<decltype(TOLMFSMkdirP)>("TOLMFSMkdirP");
  if (tolm::operation::probe == tolm::operation::Probe::kAwaited) {
    tolm::operation::probe = tolm::operation::Probe::kSeen;
    return 0;
  }
  BoundScripts(false);
  // An operation makes directories this way as long as it prepares, and none while it installs.
  const bool may_make = (observer == nullptr || observer->MayGoOn()) &&
                        (demands == nullptr || demands->MayMake(path));
  OwnGround* const ground = OwnGround::InForce();
  // In any case: the library will remove what stands there.
  if (ground != nullptr && ground->IsTemporary(path)) {
    return ground->Make(path) && may_make ? 0 : -1;
  }
  if (!may_make) {
    return -1;
  }
  if (ground != nullptr && ground->IsInstallation(path)) {
    return ground->Make(path) ? 0 : -1;
  }
  return make(path, reserved1, reserved2, uid, gid, mode);
}

int tolmarchive_open_with_keytype(tolmarchive* handle, const char* package, int key_type) {
  static auto* const open =
      Platform<decltype(tolmarchive_open_with_keytype)>("tolmarchive_open_with_keytype");
  if (observer != nullptr && !observer->MayGoOn()) {
    return 0;
  }
  BoundScripts(false);
  named_package = package;
  opened_package = demands == nullptr ? package : demands->PathToOpen(package);
  TellBegan({StepKind::kVerify, opened_package});
  RequireAsOffered();
  const int result = open(handle, opened_package.c_str(), key_type);
  if (result == 0) {
    TellRefused(handle);
  }
  TellRoad((result == 0 ? "refused " : "verified ") + NameOf(opened_package));
  return result;
}

int tolmarchive_extract_multiple(tolmarchive* handle, const char* const* members, int flags) {
  static auto* const extract =
      Platform<decltype(tolmarchive_extract_multiple)>("tolmarchive_extract_multiple");
  if (observer != nullptr && !observer->MayGoOn()) {
    return 0;
  }
  TellBegan({StepKind::kUnpack, opened_package});
  MakeRoomToUnpack(opened_package);
  const int result = extract(handle, members, flags);
  if (result == 0) {
    TellRefused(handle);
  }
  TellRoad((result == 0 ? "not unpacked: " : "unpacked ") + NameOf(opened_package));
  TellBegan({StepKind::kPrepare, opened_package});
  // What comes next is the application of a delta's patches, as long as it is that.
  BoundScripts(observer != nullptr);
  const bool is_unpacked = result != 0;
  return is_unpacked && demands != nullptr && !demands->Accepts(opened_package) ? 0 : result;
}

int TLIBPluginAction(enum _tag_sdk_plugin_action_ action, void* handle) {
  static auto* const act = Platform<decltype(TLIBPluginAction)>("TLIBPluginAction");
  BoundScripts(false);
  const bool is_before = action == SDK_PLUGIN_ACTION_PRE;
  TellBegan({is_before ? StepKind::kPreHooks : StepKind::kPostHooks});
  TellRoad(is_before ? "plug-ins before the change" : "plug-ins after the change");
  const int result = act(action, handle);
  if (is_before) {
    TellRoad("installing");
    TellBegan({StepKind::kInstall});
  }
  return result;
}
