#include "package/payload_bio.h"

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <cerrno>

#include "package/cancellation.h"
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
  PayloadCursor cursor{file.fd(), 2, 17};
  const BioPtr bio = package::NewPayloadBio(cursor);
  EXPECT_EQ(Drain(bio.get()), "23456789abcdefg") << "7 bytes, 7 and 1";
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

TEST(PayloadBioTest, NothingIsReadAtItsEnd) {
  const PayloadFile file("0");
  PayloadCursor cursor{file.fd(), 0, 1};
  const BioPtr bio = package::NewPayloadBio(cursor);
  char byte = 0;
  std::size_t count = 7;
  EXPECT_EQ(BIO_read_ex(bio.get(), &byte, 1, &count), 1);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(BIO_read_ex(bio.get(), &byte, 1, &count), 0);
  EXPECT_EQ(count, 0U);
}

TEST(PayloadBioTest, NothingIsReadWhenReadingIsCancelled) {
  const PayloadFile file("0");
  PayloadCursor cursor{file.fd(), 0, 1};
  const BioPtr bio = package::NewPayloadBio(cursor);
  char byte = 0;
  std::size_t count = 7;
  package::CancelReading(true);
  const int result = BIO_read_ex(bio.get(), &byte, 1, &count);
  package::CancelReading(false);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(cursor.errno_value, ECANCELED);
  EXPECT_EQ(cursor.offset, 0U);
}

// A filter before it may ask.
TEST(PayloadBioTest, NothingIsHeldBackAndThereIsNothingElseToAsk) {
  PayloadCursor cursor{-1, 0, 0};
  const BioPtr bio = package::NewPayloadBio(cursor);
  ERR_clear_error();
  EXPECT_EQ(BIO_flush(bio.get()), 1);
  EXPECT_EQ(BIO_reset(bio.get()), 0);
  EXPECT_EQ(ERR_peek_error(), 0U) << "it was answered";
}

TEST(PayloadBioTest, KeepsTheReasonOfAFailedRead) {
  PayloadCursor cursor{-1, 0, 10};
  const BioPtr bio = package::NewPayloadBio(cursor);
  EXPECT_EQ(Drain(bio.get()), "");
  EXPECT_EQ(cursor.errno_value, EBADF);
}

}  // namespace
}  // namespace tolm::testing
