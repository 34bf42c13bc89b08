#include "tests/support/fake_platform.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <stdexcept>

#include "tests/support/syslog_capture.h"
#include "tolm/archive.h"
#include "tolm/err.h"
#include "tolm/exec.h"
#include "tolm/fs.h"
#include "tolm/hwid.h"
#include "tolm/plugin.h"
#include "tolm/volume.h"

struct tolmarchive {
  std::array<std::uint32_t, 3> words;  // The third is the last error.
  std::string destination;
  const tolm::testing::Tree* opened = nullptr;
};

namespace tolm::testing {
namespace {

FakePlatform* active = nullptr;

constexpr int kExecOptions = 187;
constexpr int kKeyType = 6;
constexpr int kExtractFlags = 4;
constexpr std::uint32_t kNoPackage = 5;
constexpr std::size_t kMaxArguments = 16;
constexpr std::array<int, 3> kEnumeration = {0, 1, 0};

// The platform's own function of that name.
template <typename Function>
Function* Real(const char* name) {
  void* const symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    throw std::logic_error(std::string("the platform library has no ") + name);
  }
  return reinterpret_cast<Function*>(symbol);
}

std::string Join(const std::vector<std::string>& words) {
  std::string joined;
  for (const std::string& word : words) {
    joined += " " + word;
  }
  return joined;
}

const char* SeverityName(int priority) {
  static constexpr const char* kNames[] = {"emerg",   "alert",  "crit", "err",
                                           "warning", "notice", "info", "debug"};
  return kNames[LOG_PRI(priority)];
}

// With a next link that leads nowhere, which nobody may follow.
void Fill(TOLMMountVolInfo* record, const FakePlatform::Volume& volume) {
  *record = {};
  record->next = reinterpret_cast<TOLMMountVolInfo*>(std::uintptr_t{1});
  volume.mount_path.copy(record->mount_path, sizeof record->mount_path - 1);
  record->flags = volume.flags;
  record->is_local = volume.is_local;
  record->is_healthy = volume.is_healthy;
  record->available = volume.available;
}

TOLMMountVolInfo* NewList(const std::vector<FakePlatform::Volume>& volumes) {
  TOLMMountVolInfo* list = nullptr;
  for (auto volume = volumes.rbegin(); volume != volumes.rend(); ++volume) {
    auto* const record = new TOLMMountVolInfo;
    Fill(record, *volume);
    record->next = list;
    list = record;
  }
  return list;
}

std::string LogStory(const SyslogLine& line) {
  const std::string text = SyslogCapture::WithoutPlace(line.text);
  const std::string source =
      text == line.text ? "" : " " + line.text.substr(0, line.text.find(':'));
  return SeverityName(line.priority) + source + ": " + text;
}

}  // namespace

FakePlatform::FakePlatform() : log_lines_at_start_(SyslogCapture::Lines().size()) {
  if (active != nullptr) {
    throw std::logic_error("there is a fake platform already");
  }
  active = this;
  SetProgram("/usr/bin/wget", [this](const auto& arguments) { return Download(arguments); });
}

FakePlatform::~FakePlatform() {
  active = nullptr;
  EXPECT_TRUE(archives.empty()) << "an archive was not released";
  EXPECT_TRUE(hwids.empty()) << "a hardware identifier was not released";
  EXPECT_TRUE(volume_lists.empty()) << "a list of volumes was not released";
  for (const auto& [handle, exits] : plugin_exits) {
    EXPECT_GT(exits, 0) << "a plug-in handle was not released";
    delete static_cast<int*>(handle);
  }
}

FakePlatform* FakePlatform::Active() {
  return active;
}

void FakePlatform::SetProgram(const std::string& path, Program program) {
  programs_[path] = std::move(program);
}

const FakePlatform::Program* FakePlatform::FindProgram(const std::string& path) const {
  const auto found = programs_.find(path);
  return found == programs_.end() ? nullptr : &found->second;
}

void FakePlatform::OfferPackage(const std::string& url, const Tree& tree) {
  const std::string content = "package of " + url;
  files_[url] = content;
  packages_[content] = tree;
}

void FakePlatform::OfferFile(const std::string& url, const std::string& content) {
  files_[url] = content;
}

const Tree* FakePlatform::FindPackage(const std::string& content) const {
  const auto found = packages_.find(content);
  return found == packages_.end() ? nullptr : &found->second;
}

const FakePlatform::Volume* FakePlatform::FindVolume(const std::string& mount_path) const {
  const auto found = std::find_if(volumes.begin(), volumes.end(), [&](const Volume& volume) {
    return volume.mount_path == mount_path;
  });
  return found == volumes.end() ? nullptr : &*found;
}

int FakePlatform::Download(const std::vector<std::string>& arguments) {
  if (arguments.size() != 9) {
    ADD_FAILURE() << "unexpected arguments of wget:" << Join(arguments);
    return 2;
  }
  const std::string& url = arguments[1];
  const std::string& output = arguments[3];
  const std::vector<std::string> expected = {
      "-N",       url, "-O", output, "-U", arguments[5], "--dns-timeout=8", "--connect-timeout=15",
      "--tries=3"};
  EXPECT_EQ(arguments, expected);
  EXPECT_FALSE(arguments[5].empty());
  Record("download " + url + " to " + output);
  if (before_download) {
    before_download(url, output);
  }
  const auto file = files_.find(url);
  WriteFile(output, file == files_.end() ? "" : file->second);
  return file == files_.end() ? 8 : 0;
}

void FakePlatform::Record(const std::string& call) {
  calls_.push_back({call, SyslogCapture::Lines().size()});
}

std::vector<std::string> FakePlatform::Calls() const {
  std::vector<std::string> texts;
  for (const Call& call : calls_) {
    texts.push_back(call.text);
  }
  return texts;
}

std::vector<std::string> FakePlatform::Story() const {
  const std::vector<SyslogLine> lines = SyslogCapture::Lines();
  std::vector<std::string> story;
  std::size_t line = log_lines_at_start_;
  const auto tell_log = [&](std::size_t end) {
    for (; line < std::min(end, lines.size()); ++line) {
      if (LOG_PRI(lines[line].priority) != LOG_DEBUG) {
        story.push_back(LogStory(lines[line]));
      }
    }
  };
  for (const Call& call : calls_) {
    tell_log(call.log_lines_before);
    story.push_back(call.text);
  }
  tell_log(lines.size());
  return story;
}

}  // namespace tolm::testing

using tolm::testing::active;
using tolm::testing::Real;

extern "C" {

int TLIBCExecl(const char* path, int options, ...) {
  std::vector<const char*> arguments;
  va_list list;
  va_start(list, options);
  while (const char* argument = va_arg(list, const char*)) {
    arguments.push_back(argument);
  }
  va_end(list);
  const auto* program = active == nullptr ? nullptr : active->FindProgram(path);
  if (program != nullptr) {
    EXPECT_EQ(options, tolm::testing::kExecOptions);
    const std::vector<std::string> words(arguments.begin(), arguments.end());
    if (std::string(path) != "/usr/bin/wget") {
      active->Record(std::string("run ") + path + tolm::testing::Join(words));
    }
    return (*program)(words);
  }
  if (arguments.size() > 9) {
    throw std::logic_error("more arguments than the real call is handed here");
  }
  arguments.resize(tolm::testing::kMaxArguments, nullptr);
  return Real<int(const char*, int, ...)>("TLIBCExecl")(
      path, options, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
      arguments[5], arguments[6], arguments[7], arguments[8], static_cast<char*>(nullptr));
}

int TLIBCExec(const char* program, const char* a1, const char* a2, const char* a3, const char* a4) {
  const auto* fake = active == nullptr ? nullptr : active->FindProgram(program);
  if (fake == nullptr) {
    return Real<int(const char*, const char*, const char*, const char*, const char*)>("TLIBCExec")(
        program, a1, a2, a3, a4);
  }
  std::vector<std::string> words;
  for (const char* argument : {a1, a2, a3, a4}) {
    if (argument == nullptr) {
      break;
    }
    words.push_back(argument);
  }
  active->Record(std::string("run ") + program + tolm::testing::Join(words));
  return (*fake)(words);
}

int TLIBCErrGet(void) {
  if (active == nullptr || active->platform_error == 0) {
    return Real<int()>("TLIBCErrGet")();
  }
  return active->platform_error;
}

int TOLMFSMkdirP(const char* path, int reserved1, int reserved2, int uid, int gid, int mode) {
  if (active != nullptr) {
    EXPECT_EQ((std::array<int, 5>{reserved1, reserved2, uid, gid, mode}),
              (std::array<int, 5>{0, 0, -1, -1, -1}));
    active->Record(std::string("mkdir ") + path);
    if (active->refused_directories.count(path) != 0) {
      return -1;
    }
  }
  return Real<int(const char*, int, int, int, int, int)>("TOLMFSMkdirP")(path, reserved1, reserved2,
                                                                         uid, gid, mode);
}

tolmcrypto_hwid* tolmcrypto_hwid_init(void) {
  if (active == nullptr) {
    return Real<tolmcrypto_hwid*()>("tolmcrypto_hwid_init")();
  }
  if (active->hwid_init_fails) {
    return nullptr;
  }
  auto* const context = new tolmcrypto_hwid{};
  active->hwids.insert(context);
  return context;
}

int tolmcrypto_hwid_str(tolmcrypto_hwid* context, int length) {
  if (active == nullptr) {
    return Real<int(tolmcrypto_hwid*, int)>("tolmcrypto_hwid_str")(context, length);
  }
  EXPECT_EQ(active->hwids.count(context), 1U);
  if (active->hwid_str_fails) {
    std::strcpy(context->text, "garbage");
    return 0;
  }
  std::strcpy(context->text, active->hwid.substr(0, static_cast<std::size_t>(length)).c_str());
  return 1;
}

void tolmcrypto_hwid_free(tolmcrypto_hwid* context) {
  if (active == nullptr) {
    Real<void(tolmcrypto_hwid*)>("tolmcrypto_hwid_free")(context);
    return;
  }
  EXPECT_EQ(active->hwids.erase(context), 1U);
  delete context;
}

tolmarchive* tolmarchive_init(const char* destination) {
  if (active == nullptr) {
    return Real<tolmarchive*(const char*)>("tolmarchive_init")(destination);
  }
  if (active->archive_init_fails) {
    return nullptr;
  }
  auto* const handle = new tolmarchive{{0, 0, 0}, destination, nullptr};
  active->archives.insert(handle);
  return handle;
}

int tolmarchive_open_with_keytype(tolmarchive* handle, const char* package, int key_type) {
  if (active == nullptr) {
    return Real<int(tolmarchive*, const char*, int)>("tolmarchive_open_with_keytype")(
        handle, package, key_type);
  }
  EXPECT_EQ(active->archives.count(handle), 1U);
  EXPECT_EQ(handle->opened, nullptr) << "opened twice";
  EXPECT_EQ(key_type, tolm::testing::kKeyType);
  active->Record(std::string("open ") + package);
  handle->opened = active->FindPackage(tolm::testing::ReadFile(package));
  handle->words[2] = active->archive_open_error != 0 ? active->archive_open_error
                     : handle->opened == nullptr     ? tolm::testing::kNoPackage
                                                     : 0;
  return handle->words[2] == 0 ? 1 : 0;
}

int tolmarchive_extract_multiple(tolmarchive* handle, const char* const* members, int flags) {
  if (active == nullptr) {
    return Real<int(tolmarchive*, const char* const*, int)>("tolmarchive_extract_multiple")(
        handle, members, flags);
  }
  EXPECT_EQ(active->archives.count(handle), 1U);
  EXPECT_EQ(members, nullptr);
  EXPECT_EQ(flags, tolm::testing::kExtractFlags);
  if (handle->opened == nullptr) {
    ADD_FAILURE() << "not opened";
    return 0;
  }
  active->Record("extract to " + handle->destination);
  tolm::testing::Tree tree = *handle->opened;
  if (active->archive_extract_error != 0) {
    tree.erase(std::next(tree.begin(), static_cast<std::ptrdiff_t>((tree.size() + 1) / 2)),
               tree.end());
  }
  for (const auto& entry : tree) {  // New inodes, as the real one makes them.
    if (entry.first.back() != '/') {
      std::filesystem::remove(handle->destination + "/" + entry.first);
    }
  }
  tolm::testing::MakeTree(handle->destination, tree);
  if (active->after_extract) {
    active->after_extract(handle->destination);
  }
  handle->words[2] = active->archive_extract_error;
  return active->archive_extract_error == 0 ? 1 : 0;
}

void tolmarchive_free(tolmarchive* handle) {
  if (active == nullptr) {
    Real<void(tolmarchive*)>("tolmarchive_free")(handle);
    return;
  }
  EXPECT_EQ(active->archives.erase(handle), 1U);
  delete handle;
}

int TLIBPluginSDKInit(const char* module, const char* path, void** handle) {
  if (active == nullptr) {
    return Real<int(const char*, const char*, void**)>("TLIBPluginSDKInit")(module, path, handle);
  }
  EXPECT_EQ(*handle, nullptr) << "the handle must start at null";
  active->Record(std::string("plugin init ") + module + " " + path);
  if (active->plugin_init_gives_handle) {
    *handle = new int(0);
    active->plugin_exits[*handle] = 0;
  }
  return active->plugin_init_result;
}

int TLIBPluginSetArg(void* handle, const char* key, const char* value) {
  if (active == nullptr) {
    return Real<int(void*, const char*, const char*)>("TLIBPluginSetArg")(handle, key, value);
  }
  EXPECT_EQ(active->plugin_exits.count(handle), 1U);
  active->Record(std::string("plugin set ") + key + "=" + value);
  return active->plugin_set_result;
}

int TLIBPluginAction(enum _tag_sdk_plugin_action_ action, void* handle) {
  if (active == nullptr) {
    return Real<int(enum _tag_sdk_plugin_action_, void*)>("TLIBPluginAction")(action, handle);
  }
  EXPECT_EQ(active->plugin_exits.count(handle), 1U);
  EXPECT_EQ(active->plugin_exits[handle], 0) << "the handle was released";
  active->Record("plugin action " + std::to_string(static_cast<int>(action)));
  return active->plugin_action ? active->plugin_action(static_cast<int>(action)) : 0;
}

void TLIBPluginExit(void* handle) {
  if (active == nullptr) {
    Real<void(void*)>("TLIBPluginExit")(handle);
    return;
  }
  EXPECT_EQ(active->plugin_exits.count(handle), 1U);
  active->Record("plugin exit");
  ++active->plugin_exits[handle];
  if (active->plugin_exit) {
    active->plugin_exit();
  }
}

TOLMMountVolInfo* TOLMMountVolAllEnum(int reserved1, int reserved2, int reserved3) {
  if (active == nullptr) {
    return Real<TOLMMountVolInfo*(int, int, int)>("TOLMMountVolAllEnum")(reserved1, reserved2,
                                                                         reserved3);
  }
  EXPECT_EQ((std::array<int, 3>{reserved1, reserved2, reserved3}), tolm::testing::kEnumeration);
  active->Record("list volumes");
  TOLMMountVolInfo* const list = tolm::testing::NewList(active->volumes);
  if (list != nullptr) {
    active->volume_lists.insert(list);
  }
  return list;
}

int TOLMMountVolInfoGet(const char* path, TOLMMountVolInfo* info) {
  if (active == nullptr) {
    return Real<int(const char*, TOLMMountVolInfo*)>("TOLMMountVolInfoGet")(path, info);
  }
  active->Record(std::string("describe ") + path);
  const auto* const volume = active->FindVolume(path);
  if (volume == nullptr) {
    return -1;
  }
  tolm::testing::Fill(info, *volume);
  return 0;
}

void TOLMMountVolInfoFree(TOLMMountVolInfo* list) {
  if (active == nullptr) {
    Real<void(TOLMMountVolInfo*)>("TOLMMountVolInfoFree")(list);
    return;
  }
  active->Record("release volumes");
  if (active->volume_lists.erase(list) == 0) {
    ADD_FAILURE() << "not a list of volumes, or released already";
    return;
  }
  while (list != nullptr) {
    TOLMMountVolInfo* const next = list->next;
    delete list;
    list = next;
  }
}

int TOLMVolumeServicePolicy(const TOLMMountVolInfo* info) {
  if (active == nullptr) {
    return Real<int(const TOLMMountVolInfo*)>("TOLMVolumeServicePolicy")(info);
  }
  active->Record(std::string("policy of ") + info->mount_path);
  const auto* const volume = active->FindVolume(info->mount_path);
  return volume != nullptr && volume->allowed ? 1 : 0;
}
}
