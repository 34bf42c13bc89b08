// Each public header, used by a source that includes nothing else of ours. Here is what such a
// source would get from elsewhere in its program: objects whose classes its header only names.

#include <gtest/gtest.h>
#include <tolm/volume.h>

#include <memory>

#include "dataupdate/config.h"
#include "dataupdate/io_utils.h"
#include "dataupdate/updater.h"

namespace tolm::testing {

std::shared_ptr<dataupdate::IOUtils> MakeIoUtils() {
  return std::make_shared<dataupdate::IOUtils>();
}

std::shared_ptr<dataupdate::ServiceConfig> MakeServiceConfig() {
  return std::make_shared<dataupdate::ServiceConfig>(
      std::make_shared<dataupdate::Config>(MakeIoUtils()));
}

std::shared_ptr<dataupdate::Updater> MakeUpdater() {
  return std::make_shared<dataupdate::Updater>();
}

const void* ReadOnlyVolume() {
  static const TOLMMountVolInfo record{};
  return &record;
}

}  // namespace tolm::testing

// The platform's headers are used from C99. Each function returns what is wrong, or null.
extern "C" {
const char* UseArchiveHeader(void);
const char* UseErrHeader(void);
const char* UseExecHeader(void);
const char* UseExportHeader(void);
const char* UseFsHeader(void);
const char* UseHwidHeader(void);
const char* UseInfoHeader(void);
const char* UsePluginHeader(void);
const char* UseVolumeHeader(void);
}

namespace tolm::testing {
namespace {

TEST(PlatformHeaderTest, ArchiveIsUsableAloneFromC99) {
  EXPECT_STREQ(UseArchiveHeader(), nullptr);
}

TEST(PlatformHeaderTest, ErrIsUsableAloneFromC99) {
  EXPECT_STREQ(UseErrHeader(), nullptr);
}

TEST(PlatformHeaderTest, ExecIsUsableAloneFromC99) {
  EXPECT_STREQ(UseExecHeader(), nullptr);
}

TEST(PlatformHeaderTest, ExportIsUsableAloneFromC99) {
  EXPECT_STREQ(UseExportHeader(), nullptr);
}

TEST(PlatformHeaderTest, FsIsUsableAloneFromC99) {
  EXPECT_STREQ(UseFsHeader(), nullptr);
}

TEST(PlatformHeaderTest, HwidIsUsableAloneFromC99) {
  EXPECT_STREQ(UseHwidHeader(), nullptr);
}

TEST(PlatformHeaderTest, InfoIsUsableAloneFromC99) {
  EXPECT_STREQ(UseInfoHeader(), nullptr);
}

TEST(PlatformHeaderTest, PluginIsUsableAloneFromC99) {
  EXPECT_STREQ(UsePluginHeader(), nullptr);
}

TEST(PlatformHeaderTest, VolumeIsUsableAloneFromC99) {
  EXPECT_STREQ(UseVolumeHeader(), nullptr);
}

}  // namespace
}  // namespace tolm::testing
