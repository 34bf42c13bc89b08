#include "publish/replay/replay_platform.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/paths.h"
#include "package/error.h"
#include "package/package.h"
#include "tolm/archive.h"
#include "tolm/err.h"
#include "tolm/exec.h"
#include "tolm/fs.h"
#include "tolm/hwid.h"
#include "tolm/info.h"
#include "tolm/plugin.h"
#include "tolm/volume.h"
#include "vcdiff/decoder.h"

namespace {

using tolm::base::Descriptor;
using tolm::package::Code;
using tolm::package::Error;
using tolm::package::Package;

constexpr char kLinkScheme[] = "replay:";

std::optional<tolm::package::Trust> replay_trust;
std::int64_t replay_now = 0;
std::string last_failure;

// Runs `action` so that no exception leaves the C interface.
bool Succeeds(const std::function<void()>& action) {
  try {
    action();
    return true;
  } catch (const std::exception& error) {
    last_failure = error.what();
    return false;
  }
}

// wget -N URL -O FILE ...
void Download(const std::vector<std::string>& arguments) {
  const std::string& link = arguments.at(1);
  const std::string scheme = kLinkScheme;
  if (link.compare(0, scheme.size(), scheme) != 0) {
    throw Error(Code::kArgument, link + ": not a link of a replay");
  }
  const std::string package = link.substr(scheme.size());
  if (!std::filesystem::is_regular_file(package)) {
    throw Error(Code::kOpen, "not a file");
  }
  std::filesystem::create_symlink(package, arguments.at(3));
}

// tolmdbudvcdiff decode SOURCE OUTPUT DELTA
void DecodeVcdiff(const std::vector<std::string>& arguments) {
  using tolm::vcdiff::FileAccess;
  tolm::vcdiff::FileInput source(arguments.at(1), FileAccess::kRead);
  tolm::vcdiff::FileInput delta(arguments.at(3), FileAccess::kRead);
  tolm::vcdiff::OutputFile target(arguments.at(2), source.Permissions(), FileAccess::kRead);
  tolm::vcdiff::Decode(delta, source, target, {});
  target.Commit();
}

void Execute(const std::string& program, const std::vector<std::string>& arguments) {
  if (program == tolm::paths::kWget) {
    Download(arguments);
  } else if (program == tolm::paths::kVcdiffDecoder) {
    DecodeVcdiff(arguments);
  } else {
    throw Error(Code::kArgument, program + ": no program of a replay");
  }
}

[[noreturn]] void Refuse(const char* function) {
  throw std::logic_error(std::string(function) + ": no part of a replay");
}

}  // namespace

namespace tolm::publish {

void SetReplayPlatform(package::Trust trust, std::int64_t now) {
  replay_trust = std::move(trust);
  replay_now = now;
}

std::string ReplayLink(const std::string& path) {
  return kLinkScheme + path;
}

std::string LastReplayPlatformFailure() {
  return last_failure;
}

}  // namespace tolm::publish

struct tolmarchive {
  std::uint32_t reserved[2];
  std::uint32_t last_error;  // Callers read the third word; the reason is in words here.
  Descriptor destination;
  std::optional<Package> package;
};

int TLIBCExecl(const char* path, int options, ...) {
  std::vector<std::string> arguments;
  va_list list;
  va_start(list, options);
  while (const char* argument = va_arg(list, const char*)) {
    arguments.emplace_back(argument);
  }
  va_end(list);
  return Succeeds([&] { Execute(path, arguments); }) ? 0 : 1;
}

int TOLMFSMkdirP(const char* path, int, int, int, int, int) {
  return Succeeds([&] { std::filesystem::create_directories(path); }) ? 0 : -1;
}

int TLIBTminfoUserAgentGet(const char* product, char* buffer, size_t size) {
  return std::snprintf(buffer, size, "%s", product);
}

tolmarchive* tolmarchive_init(const char* destination) {
  auto* handle = new tolmarchive{};
  handle->destination = Descriptor(::open(destination, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return handle;
}

int tolmarchive_open_with_keytype(tolmarchive* handle, const char* path, int) {
  const bool opened = Succeeds([&] {
    Package package(path);
    package.Verify(*replay_trust, replay_now);
    package.CheckName();
    handle->package = std::move(package);
  });
  handle->last_error = opened ? TOLMARCHIVE_E_NONE : TOLMARCHIVE_E_INTERNAL;
  return opened;
}

int tolmarchive_extract_multiple(tolmarchive* handle, const char* const*, int) {
  const bool extracted =
      Succeeds([&] { handle->package->Extract(handle->destination.Get(), nullptr); });
  handle->last_error = extracted ? TOLMARCHIVE_E_NONE : TOLMARCHIVE_E_INTERNAL;
  return extracted;
}

void tolmarchive_free(tolmarchive* handle) {
  delete handle;
}

// What the library's objects refer to besides, and the update by deltas does not call.

int TLIBCExec(const char*, const char*, const char*, const char*, const char*) {
  Refuse(__func__);
}

int TLIBCFileExist(const char*) {
  Refuse(__func__);
}

int TLIBCErrGet() {
  Refuse(__func__);
}

tolmcrypto_hwid* tolmcrypto_hwid_init() {
  Refuse(__func__);
}

int tolmcrypto_hwid_str(tolmcrypto_hwid*, int) {
  Refuse(__func__);
}

void tolmcrypto_hwid_free(tolmcrypto_hwid*) {
  Refuse(__func__);
}

int TLIBPluginSDKInit(const char*, const char*, void**) {
  Refuse(__func__);
}

int TLIBPluginSetArg(void*, const char*, const char*) {
  Refuse(__func__);
}

int TLIBPluginAction(_tag_sdk_plugin_action_, void*) {
  Refuse(__func__);
}

void TLIBPluginExit(void*) {
  Refuse(__func__);
}

TOLMMountVolInfo* TOLMMountVolAllEnum(int, int, int) {
  Refuse(__func__);
}

int TOLMMountVolInfoGet(const char*, TOLMMountVolInfo*) {
  Refuse(__func__);
}

void TOLMMountVolInfoFree(TOLMMountVolInfo*) {
  Refuse(__func__);
}

int TOLMVolumeServicePolicy(const TOLMMountVolInfo*) {
  Refuse(__func__);
}
