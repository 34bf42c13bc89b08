#include "operation/library_failure.h"

#include <json/value.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "base/messages.h"
#include "base/paths.h"
#include "base/rules.h"
#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "operation/belief.h"
#include "operation/download_failure.h"
#include "operation/lock_holder.h"
#include "operation/package_reason.h"
#include "operation/room.h"
#include "operation/server_config.h"
#include "operation/settings_file.h"
#include "operation/sources.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

constexpr char kServiceSection[] = "'config'-";
constexpr std::string_view kBetweenKeys = "'-'";

std::string UpTo(const std::string& text, const std::string& end) {
  return text.substr(0, text.find(end));
}

bool IsSettings(const std::string& path) {
  const auto is_it = [&path](const char* file) { return path == file; };
  constexpr const char* kFiles[] = {paths::kServiceDefaults, paths::kServiceOverrides,
                                    paths::kDatabaseDefaults, paths::kDatabaseOverrides};
  return std::any_of(std::begin(kFiles), std::end(kFiles), is_it);
}

// ---- Settings ----

// "<file> is damaged: line 3, column 5: Missing ',' or '}' in object declaration"
std::string DamagedText(const std::string& path) {
  const std::string text = path + " is damaged";
  const std::string problem = ProblemOfSettings(path);
  if (problem.empty()) {  // It is another one since.
    return text;
  }
  return text + ": " + (problem.rfind("line ", 0) == 0 ? "" : "it ") + problem;
}

Failure DamagedSettings(const std::string& what) {
  return {reasons::kConfigurationDamaged, what, "\"tolmdbpub install-config\" makes it anew"};
}

Failure Missing(const std::string& path) {
  if (!IsSettings(path)) {
    return {reasons::kOther, path + " is missing"};
  }
  return {reasons::kNotConfigured, "not configured: " + path + " is missing",
          "see tolmdbpub install-config"};
}

Failure Unreadable(const std::string& rest) {
  const std::string path = UpTo(rest, " (");
  const std::string text = path + " cannot be read";
  return IsSettings(path) ? DamagedSettings(text) : Failure{reasons::kOther, text};
}

std::string ServerText() {
  const std::optional<Url> server = ConfiguredServer();
  return server ? "from " + TextOf(*server) : "of the server";
}

Failure OfTheWrongServer(const std::string& text) {
  return {reasons::kDescriptionDamaged, text,
          "is that the right server (" + SettingOfSource() +
              ")? The publisher's \"tolmdbpub check\" tells what it has"};
}

Failure DamagedDescription(const std::string& problem) {
  return OfTheWrongServer("the description " + ServerText() + ' ' + problem);
}

Failure NoDescription(const std::string& rest) {
  return OfTheWrongServer(messages::kAnswerFrom + rest);
}

Failure Undecodable(const std::string& rest) {
  const std::string path = UpTo(rest, " (");
  if (path == paths::kDatabaseInfo) {
    const std::size_t problem = rest.find(" (");
    return DamagedDescription(problem == std::string::npos
                                  ? "is no JSON"
                                  : "is refused: " + UpTo(rest.substr(problem + 2), ")"));
  }
  if (IsSettings(path)) {
    return DamagedSettings(DamagedText(path));
  }
  return {reasons::kOther, DamagedText(path)};
}

// Sections of the overrides are databases, too.
bool IsInOverridesOnly(const std::string& section) {
  const auto has = [&section](const char* file) {
    const std::optional<Json::Value> document = ReadSettings(file);
    return document && document->isMember(section);
  };
  return has(paths::kDatabaseOverrides) && !has(paths::kDatabaseDefaults);
}

Failure NotConfiguredButListed(const std::string& section) {
  return {reasons::kConfigurationDamaged,
          std::string(paths::kDatabaseOverrides) + " lists " + section + ", which " +
              paths::kDatabaseDefaults + " does not have",
          "take it out of the former"};
}

// "'config'-'db_netloc' not found"
Failure MissingSetting(const std::string& rest) {
  const bool is_service = rest.rfind(kServiceSection, 0) == 0;
  const std::string section = UpTo(rest.substr(1), std::string(kBetweenKeys));
  if (!is_service && IsInOverridesOnly(section)) {
    return NotConfiguredButListed(section);
  }
  std::string name = UpTo(rest, " not found");
  if (const std::size_t between = name.find(kBetweenKeys); between != std::string::npos) {
    name.replace(between, kBetweenKeys.size(), ".");
  }
  name.erase(std::remove(name.begin(), name.end(), '\''), name.end());
  return DamagedSettings(
      std::string(is_service ? paths::kServiceDefaults : paths::kDatabaseDefaults) +
      " is damaged: " + name + " is missing");
}

Failure WrongDestination(const std::string& rest) {
  return DamagedSettings(std::string(paths::kDatabaseDefaults) + " or " +
                         paths::kDatabaseOverrides + " is damaged: install_dest is \"" +
                         UpTo(rest, "'") + "\" and not %VOLUME% or %ROOTFS%");
}

Failure WrongType(const std::string&) {
  return DamagedSettings(std::string("a setting in ") + paths::kServiceDefaults + " or " +
                         paths::kDatabaseDefaults + " is of the wrong type");
}

std::string ConfiguredDatabases() {
  constexpr std::size_t kMostShown = 20;
  const auto config = std::make_shared<dataupdate::Config>(std::make_shared<dataupdate::IOUtils>());
  const std::vector<std::string> names = dataupdate::ServiceConfig(config).GetDatabaseIDs();
  std::string text;
  for (std::size_t i = 0; i < std::min(names.size(), kMostShown); ++i) {
    text += (text.empty() ? "" : ", ") + names[i];
  }
  return names.empty() ? "none" : names.size() > kMostShown ? text + ", ..." : text;
}

Failure UnknownDatabase(const std::string&) {
  return {reasons::kUnknownDatabase, "there is no such database",
          "configured: " + ConfiguredDatabases()};
}

// ---- The offer ----

Failure NoOffer(const std::string&) {
  return DamagedDescription("has no usable record of it");
}

Failure NoDeltas(const std::string&) {
  return DamagedDescription("has a damaged record of a delta for it");
}

Failure NoNumber(const std::string& problem) {
  return DamagedDescription("is damaged: " + problem);
}

// ---- The machine ----

std::string HoldersText(const std::string& lock_file) {
  std::string text;
  for (const LockHolder& holder : HoldersOf(lock_file)) {
    text += (text.empty() ? "" : "; ") + TextOf(holder);
  }
  return text.empty() ? "by nobody who is seen from here" : "by " + text;
}

Failure Held(const std::string& rest) {
  const std::string lock_file = UpTo(rest, " (");
  constexpr char kUsing[] = "using_";
  const std::string name = fs::path(lock_file).filename();
  const bool is_readers = name.rfind(kUsing, 0) == 0;
  return {reasons::kBusy,
          std::string(is_readers ? "readers do not let go of the database"
                                 : "another operation does not end") +
              ": " + lock_file + " is held " + HoldersText(lock_file),
          is_readers ? "end that process, or wait for it" : "try again when that has ended"};
}

Failure TooLittleRoom(const std::string&) {
  return {reasons::kNoRoom,
          std::string("no room: more is needed than is free beyond the ") + rules::kReserveText,
          "make room there"};
}

Failure NoDirectory(const std::string& path) {
  const std::optional<std::uint64_t> room = RoomIn(MountPointOf(path));
  if (room && *room == 0) {
    return NoRoom(path, *room);
  }
  return {reasons::kOther, path + " cannot be made"};
}

Failure NoSuitableVolume(const std::string&) {
  return {reasons::kNoVolume, "no volume is suitable", "\"tolmdbud volume show\" says why"};
}

Failure NoDownload(const std::string& url) {
  return {reasons::kDownloadFailed, ShownUrl(url) + " was not downloaded"};
}

struct Text {
  const char* begin;
  Failure (*failure)(const std::string& rest);
};

// In this order: what stands behind the first ones is a server's to choose.
constexpr Text kTexts[] = {
    {"Fail to wget url: ", NoDownload},
    {messages::kFailToLock, Held},
    {messages::kAnswerFrom, NoDescription},
    {"File not exist: ", Missing},
    {"Fail to decode: ", Undecodable},
    {"Fail to read: ", Unreadable},
    {"section-key: ", MissingSetting},
    {"Invalid value '", WrongDestination},
    {"Bad type conversion", WrongType},
    {"Invalid json object for RemoteInfo", NoOffer},
    {"Invalid json object for DiffInfo", NoDeltas},
    {"Cannot find suitable volume.", NoSuitableVolume},
    {messages::kDiskSpaceTooLow, TooLittleRoom},
    {"Fail to create dir ", NoDirectory},
};

bool Ends(const std::string& text, const std::string& end) {
  return text.size() >= end.size() &&
         text.compare(text.size() - end.size(), std::string::npos, end) == 0;
}

std::string ChosenVolume() {
  const auto config = std::make_shared<dataupdate::Config>(std::make_shared<dataupdate::IOUtils>());
  return dataupdate::ServiceConfig(config).GetCurVolume();
}

// What the library says without a name, in words that have one.
std::string NamedPlace(const std::string& message) {
  const std::string error = std::strerror(EIO);
  if (message == messages::kNotReadForDigest) {
    return "an installed file cannot be read to its end";
  }
  if (message == error || Ends(message, "update: " + error) || Ends(message, "install: " + error)) {
    return UpTo(message, error) + "a directory cannot be read: " + error;
  }
  if (Ends(message, messages::kNoArchive)) {
    return "a directory for unpacking in " +
           (dataupdate::NoexceptFormat(paths::kTemporaryRoot) % ChosenVolume()).str() +
           " cannot be opened";
  }
  if (Ends(message, messages::kNoFileSystem) || Ends(message, messages::kNoSpaceSeen)) {
    return "whether there is room on " + ChosenVolume() + " cannot be seen";
  }
  return "";
}

std::optional<Failure> OfABadDisk(const std::string& message) {
  const std::string place = NamedPlace(message);
  return place.empty() ? std::nullopt
                       : std::make_optional(
                             Failure{reasons::kOther, place, "does a disk fail? \"dmesg\" tells"});
}

bool IsFull(const std::string& message) {
  return message.find("No space left on device") != std::string::npos ||
         message.find("Disk quota exceeded") != std::string::npos;
}

}  // namespace

std::optional<Failure> FailureIn(const std::string& message) {
  if (std::optional<Failure> refusal = RefusalIn(message)) {
    return refusal;
  }
  if (std::optional<Failure> package = PackageFailureIn(message)) {
    return package;
  }
  if (message.rfind("Project ", 0) == 0 && Ends(message, " not supported")) {
    return UnknownDatabase("");
  }
  for (const Text& text : kTexts) {
    const std::size_t begin = message.find(text.begin);
    if (begin != std::string::npos) {
      return text.failure(message.substr(begin + std::strlen(text.begin)));
    }
  }
  for (const char* problem : {"the version that the server offers is no number",
                              "a version that the server offers a delta for is no number"}) {
    if (message == problem) {
      return NoNumber(problem);
    }
  }
  if (IsFull(message)) {
    return Failure{reasons::kNoRoom, message, "make room there"};
  }
  return OfABadDisk(message);
}

}  // namespace tolm::operation
