#include "operation/description_reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include "base/file.h"
#include "base/json_scan.h"
#include "base/log.h"
#include "base/messages.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/config.h"
#include "dataupdate/error.h"
#include "operation/belief.h"
#include "operation/interrupt.h"
#include "operation/interruptible_lock.h"
#include "operation/platform_calls.h"
#include "operation/server_config.h"
#include "operation/tell_road.h"
#include "operation/trust_state.h"

namespace tolm::operation {
namespace {

using dataupdate::UpdateError;

constexpr char kLogSource[] = "description";
constexpr char kFailToRead[] = "Fail to read: ";
constexpr char kNotRegular[] = "it is not a regular file";
constexpr char kCached[] = "the cached description";
constexpr std::size_t kPieceBytes = 65536;
constexpr int kNotFound = 404;

std::string Beyond(std::uint64_t value, std::uint64_t bound, const std::string& unit) {
  return value <= bound ? ""
                        : "it has " + std::to_string(value) + unit + ", " +
                              std::to_string(value - bound) + " more than a description may have";
}

std::string BoundProblem(const base::JsonMeasure& measure) {
  for (const std::string& problem :
       {Beyond(measure.bytes, rules::kDescriptionBytes, " bytes"),
        Beyond(measure.depth, rules::kDescriptionDepth, " levels"),
        Beyond(measure.values, rules::kDescriptionValues, " values")}) {
    if (!problem.empty()) {
      return problem;
    }
  }
  return "";
}

// What can be said without reading it; empty when nothing, also when it is not there.
std::string LookProblem(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) {
    return "";
  }
  if (!S_ISREG(status.st_mode)) {
    return kNotRegular;
  }
  return Beyond(static_cast<std::uint64_t>(status.st_size), rules::kDescriptionBytes, " bytes");
}

// Whoever opens a pipe waits for its other end, and hears no signal. Of anything else that is no
// file the library says what it says.
void RequireNoPipe(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode)) {
    throw UpdateError(kFailToRead + path);
  }
}

base::JsonMeasure MeasureFile(const std::string& path) {
  const base::File file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  base::JsonScan scan;
  for (std::string piece = file.Read(0, kPieceBytes); !piece.empty();
       piece = file.Read(scan.measure().bytes, kPieceBytes)) {
    scan.Add(piece);
  }
  return scan.measure();
}

// What is measured is called by the name of the cached description.
void RequireWithinBounds(const std::string& path) {
  std::string problem = LookProblem(path);
  if (problem.empty()) {
    try {
      problem = BoundProblem(MeasureFile(path));
    } catch (const base::FileError&) {
      return;  // The library says what is amiss.
    }
  }
  if (!problem.empty()) {
    throw UpdateError((problem == kNotRegular ? kFailToRead : "Fail to decode: ") +
                      std::string(paths::kDatabaseInfo) + " (" + problem + ')');
  }
}

Json::Value ReadWithinBounds(const std::string& path) {
  RequireWithinBounds(path);
  try {
    return dataupdate::IOUtils().ReadJson(path);
  } catch (const std::bad_alloc&) {
    throw UpdateError("Fail to decode: " + std::string(paths::kDatabaseInfo) +
                      " (there is too little memory)");
  }
}

bool IsFromTheFuture(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 &&
         status.st_mtime > std::time(nullptr) + rules::kClockToleranceSeconds;
}

void Drop(const std::string& path, const std::string& why) {
  syslog(LOG_WARNING, "%s:%d removed %s: %s", TOLM_LOG_HERE, path.c_str(), why.c_str());
  dataupdate::IOUtils().RmRf(path);
}

// What is no JSON, by its look.
std::string LookOfText(const std::string& path) {
  std::string text;
  try {
    text = base::File(path, O_RDONLY | O_NOFOLLOW).Read(0, kPieceBytes);
  } catch (const base::FileError& error) {
    return error.what();
  }
  const std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) {
    return "it is empty";
  }
  return text[begin] == '<' ? "it is a web page: a portal or proxy may be in the way"
                            : "it is no JSON";
}

// Another one for every change of the file; empty where the next one might have the same, since the
// file system's clock is coarse.
std::string StampOf(const std::string& path) {
  constexpr std::int64_t kNanoseconds = 1000000000;
  constexpr std::int64_t kTickNanoseconds = kNanoseconds / 10;
  struct stat status;
  timespec now;
  if (lstat(path.c_str(), &status) != 0 || clock_gettime(CLOCK_REALTIME, &now) != 0) {
    return "";
  }
  const auto in_ns = [](const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * kNanoseconds + time.tv_nsec;
  };
  if (in_ns(now) - in_ns(status.st_ctim) < kTickNanoseconds) {
    return "";
  }
  return path + ' ' + std::to_string(status.st_dev) + ' ' + std::to_string(status.st_ino) + ' ' +
         std::to_string(status.st_size) + ' ' + std::to_string(in_ns(status.st_mtim)) + ' ' +
         std::to_string(in_ns(status.st_ctim));
}

// Operations ask again and again for what is in the file. Of a signed one that takes longer than
// all else that they do when nothing is new, and its text is kept. Throws as ReadWithinBounds()
// does.
std::shared_ptr<const Claim> ClaimIn(const std::string& path) {
  static std::mutex mutex;
  static std::string known_stamp;
  static std::shared_ptr<const Claim> known;
  const std::lock_guard<std::mutex> lock(mutex);
  const std::string stamp = StampOf(path);
  if (!known || stamp.empty() || stamp != known_stamp) {
    known.reset();
    auto claim = std::make_shared<const Claim>(ReadWithinBounds(path));
    if (!claim->signed_text) {
      return claim;  // It is read fast enough, and may take much memory.
    }
    known = std::move(claim);
    known_stamp = stamp;
  }
  return known;
}

// What is believed of a file with a description, or why it is none.
struct Reading {
  Belief belief;
  std::string problem;  // Empty for a description.
};

// Throws UpdateError for one beyond a bound and Disbelieved, called like that.
Reading ReadDescription(const std::string& path, const std::string& called) {
  std::shared_ptr<const Claim> claim;
  try {
    claim = ClaimIn(path);
  } catch (const UpdateError&) {
    RequireWithinBounds(path);
    return {{}, LookOfText(path)};
  }
  const std::vector<std::string> databases = ConfiguredDatabases();
  if (claim->document) {
    // Of the page of a portal nobody wants to know that it is not signed.
    const std::string problem = ProblemOfDescription(*claim->document, databases);
    return problem.empty() ? Reading{Believe(*claim, called), ""} : Reading{{}, problem};
  }
  Belief belief = Believe(*claim, called);
  const std::string problem = ProblemOfDescription(*belief.document, databases);
  return {std::move(belief), problem};
}

// The query says who asks, and nothing of the answer.
std::string WithoutQuery(const std::string& url) {
  return url.substr(0, url.find('?'));
}

std::atomic<bool> is_refused{false};
// Of the file that holds what the server has given this process.
std::atomic<ino_t> own_answer{0};

ino_t InodeOf(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 ? status.st_ino : 0;
}

// Why the cached description does not count, whatever its age; empty when it does. Throws
// Disbelieved.
std::string ProblemOfCached(const std::string& path) {
  const std::string problem = LookProblem(path);
  if (!problem.empty()) {
    return problem;
  }
  if (IsFromTheFuture(path)) {
    return "it is from the future";
  }
  try {
    return ReadDescription(path, kCached).problem;
  } catch (const Disbelieved&) {
    throw;
  } catch (const UpdateError& error) {
    return error.what();
  }
}

// A large one is not copied where nobody else has it.
Json::Value Taken(std::shared_ptr<const Json::Value> document) {
  if (document.use_count() == 1) {
    return std::move(*std::const_pointer_cast<Json::Value>(document));
  }
  return *document;
}

// Throws UpdateError for what is no description, or is not believed.
Belief BeliefInAnswer(const std::string& file, const Source& source, const std::string& url) {
  const std::string place = source.kind == Source::Kind::kDirectory ? url : WithoutQuery(url);
  const std::string called = messages::kDescriptionFrom + place;
  try {
    Reading answer = ReadDescription(file, called);
    if (!answer.problem.empty()) {
      // As a text: the library makes another error of every one that passes through it.
      throw UpdateError(messages::kAnswerFrom + place + " is no description of databases (" +
                        answer.problem + ')');
    }
    if (source.kind != Source::Kind::kServer) {
      RequireSigned(answer.belief, called);
    }
    return std::move(answer.belief);
  } catch (const UpdateError& error) {
    TellUnfit();
    TellRoad(std::string("not used: ") + error.what());
    throw;
  }
}

void RememberWhatIsCached() {
  const std::optional<SignedState> state = LookForSignedState();
  if (state && !state->accepted.repository.empty()) {
    return;
  }
  try {
    RememberCached(*ClaimIn(paths::kDatabaseInfo));
  } catch (const UpdateError&) {
    // There is none that can be read.
  }
}

}  // namespace

std::string ProblemOfDescription(const Json::Value& document,
                                 const std::vector<std::string>& databases) {
  if (!document.isObject()) {
    return "it is no JSON object";
  }
  const Json::Value& list = document["db_list"];
  if (!list.isObject()) {
    return "it has no db_list";
  }
  const bool has_one = std::any_of(databases.begin(), databases.end(),
                                   [&](const std::string& name) { return list.isMember(name); });
  return has_one || databases.empty() ? "" : "it lists none of the configured databases";
}

std::vector<std::string> ConfiguredDatabases() {
  try {
    return ServerConfig().GetDatabaseIDs();
  } catch (const UpdateError&) {
    return {};
  }
}

void RefuseCachedDescription() noexcept {
  is_refused = true;
}

bool IsCachedDescriptionRefused() noexcept {
  return is_refused;
}

bool IsCachedDescriptionOwn() noexcept {
  const ino_t own = own_answer;
  return own != 0 && own == InodeOf(paths::kDatabaseInfo);
}

Belief BeliefInCached() {
  return Believe(*ClaimIn(paths::kDatabaseInfo), kCached);
}

Json::Value DescriptionReader::ReadJson(const std::string& path) const {
  if (path == paths::kDatabaseInfo) {
    return Taken(BeliefInCached().document);
  }
  RequireNoPipe(path);
  return IOUtils::ReadJson(path);
}

Json::Value DescriptionKeeper::ReadJson(const std::string& path) const {
  try {
    return DescriptionReader::ReadJson(path);
  } catch (const Disbelieved&) {
    throw;
  } catch (const UpdateError& error) {
    if (path == paths::kDatabaseInfo && error.code() != UpdateError::kFileNotExist) {
      Drop(path, error.what());
    }
    throw;
  }
}

bool DescriptionKeeper::FileCreateOver(const std::string& path, int seconds) const {
  if (path != paths::kDatabaseInfo) {
    return DescriptionReader::FileCreateOver(path, seconds);
  }
  try {
    const std::string problem = ProblemOfCached(path);
    if (!problem.empty()) {
      Drop(path, problem);
      return true;
    }
  } catch (const Disbelieved& error) {
    // It may count again: when a clock is set, or a keyring brought.
    syslog(LOG_NOTICE, "%s:%d the server is asked anew: %s", TOLM_LOG_HERE, error.what());
    return true;
  }
  return is_refused || DescriptionReader::FileCreateOver(path, seconds);
}

void DescriptionKeeper::Download(const std::string& output, const std::string& url) const {
  if (output == paths::kDatabaseInfo) {
    DownloadDescription(url);
  } else {
    DescriptionReader::Download(output, url);
  }
}

bool IsPlaceOfDescription(const std::string& file) {
  return file == paths::kDatabaseInfo || file == paths::kDatabaseInfoAnswer;
}

// What the first one's failure was is told for all; the log has each.
void DescriptionKeeper::DownloadDescription(const std::string& url) const {
  const std::vector<Source> sources = PresentSources();
  std::optional<ExplainedError> first;
  for (const Source& source : sources) {
    const Asking asking(source);
    try {
      const std::string place = DescriptionPlace(source, url);
      sources.size() == 1 ? DownloadFromOnly(source, place) : DownloadFrom(source, place);
      return;
    } catch (const UpdateError& error) {
      if (sources.size() == 1 || Interrupt::Received() != 0) {
        throw;
      }
      const ExplainedError explained = Explain(error);
      if (IsOfThisMachine(explained.failure())) {
        throw;
      }
      LogFailureOf(source, explained.failure());
      first = first ? first : std::make_optional(explained);
    }
  }
  if (!first) {
    throw UpdateError("every server is left alone after failures");
  }
  Failure failure = first->failure();
  failure.text = WithFurther(failure.text, sources.size() - 1);
  ThrowRefusal(WithFurther(first->what(), sources.size() - 1), first->code(), failure);
}

// Some stores have none for a moment while a new one takes the old one's place. A server that says
// itself that it has trouble is left alone.
void DescriptionKeeper::DownloadFromOnly(const Source& source, const std::string& url) const {
  try {
    DownloadFrom(source, url);
  } catch (const UpdateError& error) {
    if (Explain(error).failure().http_status != kNotFound) {
      throw;
    }
    TellRoad("there is no description at this moment; it is asked for once more");
    PauseUnlessInterrupted(rules::kSecondsBeforeSecondRequest);
    if (Interrupt::Received() != 0) {
      throw;
    }
    DownloadFrom(source, url);
  }
}

void DescriptionKeeper::DownloadFrom(const Source& source, const std::string& url) const {
  RmRf(paths::kDatabaseInfoAnswer);  // Perhaps no file, or a link.
  base::Replacement replacement(paths::kDatabaseInfo, paths::kDatabaseInfoAnswer);
  DescriptionReader::Download(replacement.staging(), url);
  RememberWhatIsCached();
  const Belief belief = BeliefInAnswer(replacement.staging(), source, url);
  if (LookProblem(paths::kDatabaseInfo) == kNotRegular) {
    Drop(paths::kDatabaseInfo, kNotRegular);
  }
  Remember(belief);
  own_answer = InodeOf(replacement.staging().c_str());
  replacement.PutInPlace();
  is_refused = false;
}

}  // namespace tolm::operation
