#include "operation/package_reason.h"

#include <optional>
#include <regex>

#include "base/messages.h"
#include "tolm/archive.h"

namespace tolm::operation {
namespace {

struct Reason {
  int code;
  const char* text;
};

constexpr Reason kReasons[] = {
    {TOLMARCHIVE_E_INTERNAL, "an internal failure"},
    {TOLMARCHIVE_E_MEMORY, "memory is exhausted"},
    {TOLMARCHIVE_E_ARGUMENT, "an internal failure"},
    {TOLMARCHIVE_E_OPEN, "the file cannot be opened"},
    {TOLMARCHIVE_E_READ, "the file cannot be read"},
    {TOLMARCHIVE_E_NOT_A_PACKAGE, "not a package, or cut short"},
    {TOLMARCHIVE_E_SIGNATURE_SIZE, "the signature has an impossible length"},
    {TOLMARCHIVE_E_CHANGED, "the file was changed while it was read"},
    {TOLMARCHIVE_E_KEYRING, "this machine has no usable keyring"},
    {TOLMARCHIVE_E_SIGNATURE_FORM, "the signature is damaged"},
    {TOLMARCHIVE_E_EMBEDDED_CONTENT, "the signature has content of its own"},
    {TOLMARCHIVE_E_NO_SIGNER, "the signature names no signer"},
    {TOLMARCHIVE_E_WEAK_DIGEST, "the signature is too weak"},
    {TOLMARCHIVE_E_WRONG_USAGE, "the signer's certificate is not for signing packages"},
    {TOLMARCHIVE_E_UNTRUSTED, "this machine does not trust the signer"},
    {TOLMARCHIVE_E_EXPIRED, "the signer's certificate has expired"},
    {TOLMARCHIVE_E_NOT_YET_VALID, "the signer's certificate is not valid yet"},
    {TOLMARCHIVE_E_REVOKED, "the signer's certificate was revoked"},
    {TOLMARCHIVE_E_BAD_SIGNATURE, "the content is not what was signed"},
    {TOLMARCHIVE_E_PAYLOAD, "the content is damaged or of an unknown form"},
    {TOLMARCHIVE_E_NO_SEAL, "it does not say what it is"},
    {TOLMARCHIVE_E_BAD_SEAL, "it does not say what it is"},
    {TOLMARCHIVE_E_WRONG_NAME, "it is another database's"},
    {TOLMARCHIVE_E_WRONG_KIND, "a delta in place of a full package, or the reverse"},
    {TOLMARCHIVE_E_WRONG_VERSION, "it is of another version"},
    {TOLMARCHIVE_E_NO_MEMBERS, "it is empty"},
    {TOLMARCHIVE_E_NO_MEMBER, "a file is missing in it"},
    {TOLMARCHIVE_E_MEMBER_TYPE, "it holds something that is neither file, directory nor link"},
    {TOLMARCHIVE_E_MEMBER_PATH, "it holds a path that leads elsewhere"},
    {TOLMARCHIVE_E_HARD_LINK, "it holds a hard link that leads elsewhere"},
    {TOLMARCHIVE_E_THROUGH_LINK, "a symbolic link is in the way"},
    {TOLMARCHIVE_E_IN_THE_WAY, "a directory is in a file's way, or the reverse"},
    {TOLMARCHIVE_E_NO_SPACE, "there is not enough room for it"},
    {TOLMARCHIVE_E_WRITE, "writing failed"},
};

// What the message looks like, with its number as the only group.
std::string PatternOf(const std::string& message) {
  return std::regex_replace(std::regex_replace(message, std::regex("%s"), ".*"), std::regex("%d"),
                            "([0-9]{1,4})") +
         '$';
}

std::optional<int> CodeIn(const std::string& text) {
  for (const char* message : {messages::kArchiveOpenFailed, messages::kArchiveExtractFailed}) {
    std::smatch match;
    if (std::regex_search(text, match, std::regex(PatternOf(message)))) {
      return std::stoi(match[1]);
    }
  }
  return std::nullopt;
}

}  // namespace

std::string WithPackageReason(const std::string& message) {
  const std::optional<int> code = CodeIn(message);
  for (const Reason& reason : kReasons) {
    if (reason.code == code) {
      return message + " (" + reason.text + ')';
    }
  }
  return message;
}

}  // namespace tolm::operation
