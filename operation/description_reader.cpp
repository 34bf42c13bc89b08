#include "operation/description_reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <new>

#include "base/file.h"
#include "base/json_scan.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/error.h"

namespace tolm::operation {
namespace {

using dataupdate::UpdateError;

constexpr char kLogSource[] = "description";
constexpr char kNotRegular[] = "it is not a regular file";
constexpr std::size_t kPieceBytes = 65536;

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

base::JsonMeasure MeasureFile(const std::string& path) {
  const base::File file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  base::JsonScan scan;
  for (std::string piece = file.Read(0, kPieceBytes); !piece.empty();
       piece = file.Read(scan.measure().bytes, kPieceBytes)) {
    scan.Add(piece);
  }
  return scan.measure();
}

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
    throw UpdateError((problem == kNotRegular ? "Fail to read: " : "Fail to decode: ") + path +
                      " (" + problem + ')');
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

}  // namespace

Json::Value DescriptionReader::ReadJson(const std::string& path) const {
  if (path != paths::kDatabaseInfo) {
    return IOUtils::ReadJson(path);
  }
  RequireWithinBounds(path);
  try {
    return IOUtils::ReadJson(path);
  } catch (const std::bad_alloc&) {
    throw UpdateError("Fail to decode: " + path + " (there is too little memory)");
  }
}

Json::Value DescriptionKeeper::ReadJson(const std::string& path) const {
  try {
    return DescriptionReader::ReadJson(path);
  } catch (const UpdateError& error) {
    if (path == paths::kDatabaseInfo && error.code() != UpdateError::kFileNotExist) {
      Drop(path, error.what());
    }
    throw;
  }
}

bool DescriptionKeeper::FileCreateOver(const std::string& path, int seconds) const {
  if (path == paths::kDatabaseInfo) {
    std::string problem = LookProblem(path);
    if (problem.empty() && IsFromTheFuture(path)) {
      problem = "it is from the future";
    }
    if (!problem.empty()) {
      Drop(path, problem);
      return true;
    }
  }
  return DescriptionReader::FileCreateOver(path, seconds);
}

void DescriptionKeeper::Download(const std::string& output, const std::string& url) const {
  if (output == paths::kDatabaseInfo && LookProblem(output) == kNotRegular) {
    Drop(output, kNotRegular);
  }
  DescriptionReader::Download(output, url);
}

}  // namespace tolm::operation
