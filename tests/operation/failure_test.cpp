#include "operation/failure.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

#include "base/trusted_directory.h"
#include "operation/interrupt.h"
#include "operation/run.h"
#include "operation/settings_check.h"

namespace tolm::operation {
namespace {

// "<reason>|<text>|<remedy>"
std::string Told(const std::exception& error) {
  const Failure failure = FailureOf(error);
  return failure.reason + '|' + failure.text + '|' + failure.remedy;
}

std::system_error OfSystem(int number) {
  return std::system_error(number, std::generic_category(), "write /x");
}

// As in another language.
class InOtherWords : public std::system_error {
 public:
  explicit InOtherWords(int number) : system_error(number, std::generic_category()) {}
  const char* what() const noexcept override { return "full"; }
};

TEST(FailureTest, DiskOrQuotaThatIsFullIsNoRoomAndOtherErrorsOfTheSystemAreNot) {
  EXPECT_EQ(Told(OfSystem(ENOSPC)),
            std::string("no-room|") + OfSystem(ENOSPC).what() + "|make room there");
  EXPECT_EQ(Told(OfSystem(EDQUOT)),
            std::string("no-room|") + OfSystem(EDQUOT).what() + "|make room there");
  EXPECT_EQ(Told(InOtherWords(ENOSPC)), "no-room|full|make room there");
  EXPECT_EQ(Told(InOtherWords(EDQUOT)), "no-room|full|make room there");
  EXPECT_EQ(Told(InOtherWords(EIO)), "other|full|");
  EXPECT_EQ(Told(OfSystem(EIO)), std::string("other|") + OfSystem(EIO).what() + '|');
  EXPECT_EQ(Told(std::runtime_error("text")), "other|text|");
}

TEST(FailureTest, EachTypeHasItsReason) {
  EXPECT_EQ(Told(NoVolume()),
            "no-volume|no volume is chosen, nothing was done|\"tolmdbud volume show\" says what "
            "there is");
  EXPECT_EQ(Told(NoVolume("/volume1")),
            "no-volume|/volume1 is chosen but not mounted; nothing was done|");
  EXPECT_EQ(Told(DamagedSettings("damaged")), "configuration-damaged|damaged|");
  EXPECT_EQ(Told(base::ForeignGround("/x is a link", "rm /x")),
            "unsafe-directory|/x is a link; nothing was done (rm /x)|");
  EXPECT_EQ(Told(Interrupted()), "interrupted|interrupted|");
  EXPECT_EQ(Told(ExplainedError("message", dataupdate::UpdateError::kGeneral,
                                {reasons::kBusy, "cause", "remedy"})),
            "busy|cause|remedy");
}

TEST(FailureTest, LineHasNoMoreThanThereIs) {
  EXPECT_EQ(LineOf("oui", {reasons::kOther, "text", "remedy", "7"}), "oui 7: text; remedy");
  EXPECT_EQ(LineOf("oui", {reasons::kOther, "text", ""}), "oui: text");
  EXPECT_EQ(LineOf("", {reasons::kOther, "text", "", "7"}), "7: text");
  EXPECT_EQ(LineOf("", {reasons::kOther, "text", "remedy"}), "text; remedy");
}

}  // namespace
}  // namespace tolm::operation
