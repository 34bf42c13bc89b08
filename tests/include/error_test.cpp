#include "dataupdate/error.h"

#include <gtest/gtest.h>

namespace tolm::dataupdate {
namespace {

TEST(PublicHeaderTest, ErrorIsUsableAlone) {
  const UpdateError plain("text");
  EXPECT_STREQ(plain.what(), "text");
  EXPECT_EQ(plain.code(), UpdateError::kGeneral);
  const UpdateError general(std::string("text"));
  EXPECT_STREQ(general.what(), "text");
  const UpdateError missing(std::string("no file"), UpdateError::kFileNotExist);
  UpdateError copy(missing);
  EXPECT_EQ(copy.code(), UpdateError::kFileNotExist);
  copy = plain;
  EXPECT_STREQ(copy.what(), "text");
}

}  // namespace
}  // namespace tolm::dataupdate
