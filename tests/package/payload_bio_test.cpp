#include "package/payload_bio.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/package/payload_file.h"

namespace tolm::testing {
namespace {

using package::BioPtr;
using package::PayloadCursor;

std::string Drain(BIO* bio) {
  std::string content;
  char buffer[7];
  for (int count = 0; (count = BIO_read(bio, buffer, sizeof buffer)) > 0;) {
    content.append(buffer, static_cast<std::size_t>(count));
  }
  return content;
}

TEST(PayloadBioTest, GivesThePartAndNothingBehindIt) {
  const PayloadFile file("0123456789abcdefghij");
  PayloadCursor cursor{file.fd(), 2, 18};
  const BioPtr bio = package::NewPayloadBio(cursor);
  EXPECT_EQ(Drain(bio.get()), "23456789abcdefgh");
  EXPECT_EQ(cursor.offset, cursor.end);
  EXPECT_EQ(cursor.errno_value, 0);
}

TEST(PayloadBioTest, TellsAnEarlyEndByItsCursor) {
  const PayloadFile file("01234");
  PayloadCursor cursor{file.fd(), 0, 10};
  const BioPtr bio = package::NewPayloadBio(cursor);
  EXPECT_EQ(Drain(bio.get()), "01234");
  EXPECT_EQ(cursor.offset, 5U);
}

TEST(PayloadBioTest, KeepsTheReasonOfAFailedRead) {
  PayloadCursor cursor{-1, 0, 10};
  const BioPtr bio = package::NewPayloadBio(cursor);
  EXPECT_EQ(Drain(bio.get()), "");
  EXPECT_EQ(cursor.errno_value, EBADF);
}

}  // namespace
}  // namespace tolm::testing
