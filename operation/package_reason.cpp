#include "operation/package_reason.h"

#include <algorithm>
#include <filesystem>

#include "base/messages.h"
#include "operation/room.h"
#include "tolm/archive.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;

struct Reason {
  int code;
  const char* reason;
  const char* text;
};

constexpr Reason kReasons[] = {
    {kDiffersFromOffer, reasons::kPackageDiffers,
     "it is not the package that the signed description names"},
    {TOLMARCHIVE_E_INTERNAL, reasons::kOther, "an internal failure"},
    {TOLMARCHIVE_E_MEMORY, reasons::kOther, "memory is exhausted"},
    {TOLMARCHIVE_E_ARGUMENT, reasons::kOther, "an internal failure"},
    {TOLMARCHIVE_E_OPEN, reasons::kOther, "the file cannot be opened"},
    {TOLMARCHIVE_E_READ, reasons::kOther, "the file cannot be read"},
    {TOLMARCHIVE_E_NOT_A_PACKAGE, reasons::kPackageDamaged, "not a package, or cut short"},
    {TOLMARCHIVE_E_SIGNATURE_SIZE, reasons::kPackageDamaged,
     "the signature has an impossible length"},
    {TOLMARCHIVE_E_CHANGED, reasons::kOther, "the file was changed while it was read"},
    {TOLMARCHIVE_E_KEYRING, reasons::kNoKeyring, "this machine has no usable keyring"},
    {TOLMARCHIVE_E_SIGNATURE_FORM, reasons::kPackageDamaged, "the signature is damaged"},
    {TOLMARCHIVE_E_EMBEDDED_CONTENT, reasons::kPackageNotTrusted,
     "the signature has content of its own"},
    {TOLMARCHIVE_E_NO_SIGNER, reasons::kPackageNotTrusted, "the signature names no signer"},
    {TOLMARCHIVE_E_WEAK_DIGEST, reasons::kPackageNotTrusted, "the signature is too weak"},
    {TOLMARCHIVE_E_WRONG_USAGE, reasons::kPackageWrongUsage,
     "the signer's certificate is not for signing packages"},
    {TOLMARCHIVE_E_UNTRUSTED, reasons::kPackageNotTrusted,
     "this machine does not trust the signer"},
    {TOLMARCHIVE_E_EXPIRED, reasons::kPackageExpired, "the signer's certificate has expired"},
    {TOLMARCHIVE_E_NOT_YET_VALID, reasons::kPackageNotYetValid,
     "the signer's certificate is not valid yet"},
    {TOLMARCHIVE_E_REVOKED, reasons::kPackageRevoked, "the signer's certificate was revoked"},
    {TOLMARCHIVE_E_BAD_SIGNATURE, reasons::kPackageDamaged, "the content is not what was signed"},
    {TOLMARCHIVE_E_OUT_OF_SCOPE, reasons::kPackageNotTrusted,
     "the signer's certificate is for other databases"},
    {TOLMARCHIVE_E_PAYLOAD, reasons::kPackageDamaged,
     "the content is damaged or of an unknown form"},
    {TOLMARCHIVE_E_NO_SEAL, reasons::kPackageDamaged, "it does not say what it is"},
    {TOLMARCHIVE_E_BAD_SEAL, reasons::kPackageDamaged, "it does not say what it is"},
    {TOLMARCHIVE_E_WRONG_NAME, reasons::kPackageForAnother, "it is another database's"},
    {TOLMARCHIVE_E_WRONG_KIND, reasons::kPackageForAnother,
     "a delta in place of a full package, or the reverse"},
    {TOLMARCHIVE_E_WRONG_VERSION, reasons::kPackageForAnother, "it is of another version"},
    {TOLMARCHIVE_E_NO_MEMBERS, reasons::kPackageDamaged, "it is empty"},
    {TOLMARCHIVE_E_NO_MEMBER, reasons::kPackageDamaged, "a file is missing in it"},
    {TOLMARCHIVE_E_MEMBER_TYPE, reasons::kPackageUnsafe,
     "it holds something that is neither file, directory nor link"},
    {TOLMARCHIVE_E_MEMBER_PATH, reasons::kPackageUnsafe, "it holds a path that leads elsewhere"},
    {TOLMARCHIVE_E_HARD_LINK, reasons::kPackageUnsafe, "it holds a hard link that leads elsewhere"},
    {TOLMARCHIVE_E_THROUGH_LINK, reasons::kPackageUnsafe, "a symbolic link is in the way"},
    {TOLMARCHIVE_E_IN_THE_WAY, reasons::kPackageUnsafe,
     "a directory is in a file's way, or the reverse"},
    {TOLMARCHIVE_E_NO_SPACE, reasons::kNoRoom, "there is not enough room for it"},
    {TOLMARCHIVE_E_WRITE, reasons::kOther, "writing failed"},
};

struct Remedy {
  const char* reason;
  const char* text;
};

constexpr char kPublisherChecks[] = "the publisher's \"tolmdbpub check\" tells what the server has";
constexpr char kSignAnew[] = "the publisher signs anew by \"tolmdbpub resign\"";
constexpr char kDate[] = "is the date of this machine right?";

constexpr Remedy kRemedies[] = {
    {reasons::kPackageDamaged, kPublisherChecks},
    {reasons::kPackageForAnother, kPublisherChecks},
    {reasons::kPackageDiffers, kPublisherChecks},
    {reasons::kPackageUnsafe, kPublisherChecks},
    {reasons::kPackageNotTrusted, "is it the right server, or has the publisher a new root?"},
    {reasons::kPackageExpired, kSignAnew},
    {reasons::kPackageNotYetValid, kDate},
    {reasons::kPackageRevoked, kSignAnew},
    {reasons::kPackageWrongUsage, kSignAnew},
    {reasons::kNoKeyring, "\"tolmdbpub install-config\" makes it"},
    {reasons::kNoRoom, "make room there"},
};

const Reason* ReasonFor(std::optional<int> code) {
  for (const Reason& reason : kReasons) {
    if (reason.code == code) {
      return &reason;
    }
  }
  return nullptr;
}

std::string RemedyFor(const std::string& reason) {
  for (const Remedy& remedy : kRemedies) {
    if (reason == remedy.reason) {
      return remedy.text;
    }
  }
  return "";
}

// The platform names the signer, and then there is nothing to add.
bool TellsAll(const std::string& detail) {
  return detail.rfind("signed by ", 0) == 0;
}

std::string TextFor(const Reason& reason, const std::string& package, const std::string& detail) {
  if (reason.code == TOLMARCHIVE_E_NO_SPACE) {
    const std::string where = "no room on " + MountPointOf(fs::path(package).parent_path());
    return detail.empty() ? where : where + ": " + detail;
  }
  if (detail.empty() || TellsAll(detail)) {
    return detail.empty() ? reason.text : detail;
  }
  return std::string(reason.text) + ": " + detail;
}

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

struct PackageMessage {
  std::string package;
  int code;
};

// What stands for %s and %d when the last line ends with such a message, which has %d at its end.
std::optional<PackageMessage> PartsOf(const std::string& text, const std::string& message) {
  constexpr std::size_t kMaxDigits = 4;
  const std::string before = message.substr(0, message.find("%s"));
  const std::string after =
      message.substr(before.size() + 2, message.find("%d") - before.size() - 2);
  const std::size_t number = text.find_last_not_of("0123456789") + 1;
  const std::size_t digits = text.size() - number;
  if (digits == 0 || digits > kMaxDigits || number < after.size() ||
      text.compare(number - after.size(), after.size(), after) != 0) {
    return std::nullopt;
  }
  const std::size_t end = number - after.size();
  const std::size_t line = text.find_last_of("\r\n") + 1;
  const std::size_t begin = text.find(before, line);
  if (begin == std::string::npos || begin + before.size() > end) {
    return std::nullopt;
  }
  const std::size_t package = begin + before.size();
  return PackageMessage{text.substr(package, end - package), std::stoi(text.substr(number))};
}

std::optional<PackageMessage> PartsOf(const std::string& text) {
  const std::optional<PackageMessage> opening = PartsOf(text, messages::kArchiveOpenFailed);
  return opening ? opening : PartsOf(text, messages::kArchiveExtractFailed);
}

}  // namespace

Failure PackageFailure(const std::string& package, int code, const std::string& detail) {
  Failure failure;
  failure.item = ItemOf(package);
  failure.reason = reasons::kOther;
  failure.text = "the package is refused, with error " + std::to_string(code);
  if (const Reason* reason = ReasonFor(code)) {
    failure.reason = reason->reason;
    failure.text = TextFor(*reason, package, detail);
    failure.remedy = RemedyFor(failure.reason);
  }
  return failure;
}

std::optional<Failure> PackageFailureIn(const std::string& message) {
  const std::optional<PackageMessage> parts = PartsOf(message);
  return parts ? std::make_optional(PackageFailure(parts->package, parts->code, "")) : std::nullopt;
}

std::string ItemOf(const std::string& file) {
  const std::string name = fs::path(file).filename();
  const std::size_t tag = name.rfind('_');
  if (tag == std::string::npos || !IsNumber(name.substr(std::min(tag + 2, name.size())))) {
    return "";
  }
  const std::string version = name.substr(tag + 2);
  return name[tag + 1] == 'v' ? version : name[tag + 1] == 'd' ? "delta " + version : "";
}

std::string WithPackageReason(const std::string& message) {
  const std::optional<PackageMessage> parts = PartsOf(message);
  const Reason* reason = parts ? ReasonFor(parts->code) : nullptr;
  return reason == nullptr ? message : message + " (" + reason->text + ')';
}

}  // namespace tolm::operation
