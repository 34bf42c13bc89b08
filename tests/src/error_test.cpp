#include "dataupdate/error.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "tests/support/vtable_slot.h"

namespace tolm::dataupdate {
namespace {

using tolm::testing::VtableSlot;

// A second exception while the first is being made would end the process in a worse place.
static_assert(std::is_nothrow_constructible_v<UpdateError, const char*>);
static_assert(std::is_nothrow_constructible_v<UpdateError, const std::string&>);
static_assert(
    std::is_nothrow_constructible_v<UpdateError, const std::string&, UpdateError::ErrorCode>);
static_assert(std::is_nothrow_copy_constructible_v<UpdateError>);

TEST(UpdateErrorTest, IsAStandardExceptionAndNothingElse) {
  EXPECT_TRUE((std::is_convertible_v<UpdateError*, std::exception*>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, UpdateError>));
  EXPECT_FALSE((std::is_base_of_v<std::logic_error, UpdateError>));
  // One base, not a virtual one, then the message and the code.
  struct Layout : std::exception {
    std::string message;
    std::int32_t code;
  };
  EXPECT_EQ(sizeof(UpdateError), sizeof(Layout));
}

TEST(UpdateErrorTest, OperationsKeepTheirSlots) {
  EXPECT_EQ(VtableSlot(&UpdateError::what), 2U);
  EXPECT_EQ(VtableSlot(&UpdateError::code), 3U);
}

TEST(UpdateErrorTest, CodesHaveTheirNumbersAndSize) {
  EXPECT_EQ(static_cast<int>(UpdateError::kGeneral), 0);
  EXPECT_EQ(static_cast<int>(UpdateError::kFileNotExist), 1);
  EXPECT_EQ(sizeof(UpdateError::ErrorCode), 4U);
}

TEST(UpdateErrorTest, CodeIsGeneralUnlessGiven) {
  EXPECT_EQ(UpdateError("text").code(), UpdateError::kGeneral);
  EXPECT_EQ(UpdateError(std::string("text")).code(), UpdateError::kGeneral);
  EXPECT_EQ(UpdateError(std::string("text"), UpdateError::kFileNotExist).code(),
            UpdateError::kFileNotExist);
}

TEST(UpdateErrorTest, MessageIsTheTextWithoutAnyAddition) {
  EXPECT_STREQ(UpdateError("Fail to read: /a").what(), "Fail to read: /a");
  EXPECT_STREQ(UpdateError(std::string("100% %s")).what(), "100% %s");
  EXPECT_STREQ(UpdateError(std::string("x"), UpdateError::kFileNotExist).what(), "x");
}

TEST(UpdateErrorTest, EmptyMessageIsLegal) {
  EXPECT_STREQ(UpdateError("").what(), "");
  EXPECT_STREQ(UpdateError(std::string()).what(), "");
}

TEST(UpdateErrorTest, TextIsCopied) {
  std::string text = "before";
  const UpdateError error(text);
  text = "after!";
  EXPECT_STREQ(error.what(), "before");
}

TEST(UpdateErrorTest, CopyHoldsMessageAndCode) {
  auto original =
      std::make_unique<const UpdateError>(std::string("gone"), UpdateError::kFileNotExist);
  const UpdateError copy(*original);
  EXPECT_NE(copy.what(), original->what()) << "the text must be its own";
  UpdateError assigned("other");
  assigned = *original;
  original.reset();
  EXPECT_STREQ(copy.what(), "gone");
  EXPECT_EQ(copy.code(), UpdateError::kFileNotExist);
  EXPECT_STREQ(assigned.what(), "gone");
  EXPECT_EQ(assigned.code(), UpdateError::kFileNotExist);
}

TEST(UpdateErrorTest, MessageIsSeenThroughTheStandardException) {
  try {
    throw UpdateError(std::string("seen"), UpdateError::kFileNotExist);
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "seen");
    return;
  }
}

TEST(UpdateErrorDeathTest, NullTextEndsTheProcessInsteadOfThrowing) {
  const char* volatile text = nullptr;
  EXPECT_DEATH({ UpdateError error(text); }, "terminate called");
}

}  // namespace
}  // namespace tolm::dataupdate
