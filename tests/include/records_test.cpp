#include "dataupdate/records.h"

#include <gtest/gtest.h>

namespace tolm::dataupdate {
namespace {

TEST(PublicHeaderTest, RecordsIsUsableAlone) {
  const RemoteInfo remote(7, 70, false, "http://host/x");
  EXPECT_TRUE(RemoteInfo::FromJson(RemoteInfo::ToJson(remote)) == remote);

  Json::Value offered;
  offered["7"]["download_link"] = "http://host/d7";
  offered["7"]["file_size"] = 5;
  EXPECT_TRUE(DiffInfo::FromJson(offered["7"]) == DiffInfo("http://host/d7", 5));
  EXPECT_TRUE(DiffInfo::BatchFromJson(offered).at(7) == DiffInfo("http://host/d7", 5));

  const FileStatus file("digest");
  EXPECT_TRUE(FileStatus::FromJson(FileStatus::ToJson(file)) == file);
  EXPECT_TRUE(file != FileStatus("other"));
  const std::map<std::string, FileStatus> files{{"/a", file}};
  EXPECT_TRUE(FileStatus::BatchFromJson(FileStatus::BatchToJson(files)) == files);

  const DatabaseStatus status(7, 70, files);
  EXPECT_TRUE(DatabaseStatus::FromJson(DatabaseStatus::ToJson(status)) == status);
  EXPECT_TRUE(status != DatabaseStatus());
}

}  // namespace
}  // namespace tolm::dataupdate
