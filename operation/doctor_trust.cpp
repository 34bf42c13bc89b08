// Looks at what packages are trusted for, and by which clock.

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <system_error>
#include <utility>

#include "base/paths.h"
#include "base/rules.h"
#include "base/trusted_directory.h"
#include "operation/device_trust.h"
#include "operation/doctor_looks.h"
#include "operation/history.h"
#include "operation/keyring_dates.h"
#include "operation/trust_state.h"

namespace tolm::operation {
namespace {

constexpr char kKeyring[] = "keyring";
constexpr char kRevocations[] = "revocations";
constexpr char kClock[] = "clock";
constexpr std::int64_t kWarningSeconds = std::int64_t{60} * 24 * 60 * 60;
constexpr char kBringKeyring[] =
    "bring the publisher's present root certificate there (root.pem; tolmdbpub install-config)";
constexpr char kBringRevocations[] =
    "bring the publisher's present revocation list there (without that file nothing counts as "
    "revoked)";
constexpr char kRemoveLearned[] =
    "remove it and run \"tolmdbud check --refresh\", which brings the lists of the signed "
    "description again";
constexpr char kSetClock[] = "set the clock";

bool IsThere(const std::string& file) {
  struct stat status;
  return stat(file.c_str(), &status) == 0;
}

// Certificates are judged by a clock that was never set as by the time of this build.
void LookAtCertificate(const CertificateDates& certificate, const std::string& file,
                       std::int64_t now, Findings& findings) {
  const auto& [name, begin, end] = certificate;
  if (end <= now) {
    findings.Problem(
        kKeyring, file,
        name + " has expired on " + TimeText(end) + ": nothing that it vouches for is installed",
        kBringKeyring);
  } else if (end - now < kWarningSeconds) {
    findings.Problem(kKeyring, file, name + " ends on " + TimeText(end), kBringKeyring);
  } else if (begin > std::max<std::int64_t>(now, TOLM_BUILD_DATE)) {
    findings.Problem(kKeyring, file, name + " is not valid before " + TimeText(begin), kSetClock);
  } else {
    findings.Ok(kKeyring, file, name + " is valid until " + TimeText(end));
  }
}

void LookAtCertificates(const std::string& file, std::int64_t now, Findings& findings) {
  const auto certificates = ReadCertificateDates(file);
  if (certificates.empty()) {
    findings.Problem(kKeyring, file, "it holds no certificate", kBringKeyring);
  }
  for (const std::optional<CertificateDates>& certificate : certificates) {
    if (certificate) {
      LookAtCertificate(*certificate, file, now, findings);
    } else {
      findings.Problem(kKeyring, file, "it is damaged, no package can be verified", kBringKeyring);
    }
  }
}

void LookAtRevocations(const std::string& file, const char* remedy, std::int64_t now,
                       Findings& findings) {
  const auto lists = ReadRevocationDates(file);
  if (lists.empty()) {
    findings.Problem(kRevocations, file, "it holds no revocation list, no package can be verified",
                     remedy);
  }
  for (const std::optional<RevocationDates>& list : lists) {
    if (!list) {
      findings.Problem(kRevocations, file, "it is damaged, no package can be verified", remedy);
      continue;
    }
    const auto& [name, next] = *list;
    if (next != 0 && next <= now) {
      findings.Problem(kRevocations, file,
                       "the list of " + name + " should have been replaced on " + TimeText(next) +
                           ": later revocations are not known",
                       remedy);
    } else {
      findings.Ok(kRevocations, file,
                  "the list of " + name + (next == 0 ? "" : " counts until " + TimeText(next)));
    }
  }
}

// The time of the newest thing that must lie in the past, and what it is.
struct Witness {
  std::int64_t time;
  std::string what;
};

std::vector<Witness> Witnesses(const Patient& patient) {
  std::vector<Witness> witnesses = {{TOLM_BUILD_DATE, "this program was built"}};
  for (const std::string& name : patient.names) {
    try {
      witnesses.push_back({patient.service.info->GetDatabaseStatus(name).last_fetch_time,
                           "the installed data of " + name + " was made"});
    } catch (const std::exception&) {
      // LookAtRecords says so.
    }
  }
  const std::optional<SignedState> state = LookForSignedState();
  if (state && !state->accepted.repository.empty()) {
    witnesses.push_back({state->accepted.issued, "the newest accepted description was signed"});
  }
  struct stat status;
  if (stat(paths::kDatabaseInfo, &status) == 0) {
    witnesses.push_back({status.st_mtime, "the server was last asked"});
  }
  return witnesses;
}

// Whoever opens a pipe waits for its other end.
void LookInto(const std::string& check, const std::string& file, const char* remedy,
              Findings& findings, const std::function<void()>& look) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(file, ignored)) {
    findings.Problem(check, file, "it is no regular file, no package can be verified", remedy);
    return;
  }
  findings.Try(check, file, remedy, [&] { base::RequireTrustedProgram(file); });
  findings.Try(check, file, remedy, look);
}

}  // namespace

void LookAtKeyring(const Patient& patient, Findings& findings) {
  const std::string keyring = KeyringFile(".pem");
  const std::string revocations = KeyringFile(".crl.pem");
  if (!IsThere(keyring)) {
    findings.Problem(kKeyring, keyring, "it is missing, no package can be verified", kBringKeyring);
  } else {
    LookInto(kKeyring, keyring, kBringKeyring, findings,
             [&] { LookAtCertificates(keyring, patient.now, findings); });
  }
  for (const auto& [file, remedy] :
       {std::pair<std::string, const char*>{revocations, kBringRevocations},
        std::pair<std::string, const char*>{paths::kLearnedRevocations, kRemoveLearned}}) {
    if (IsThere(file)) {
      LookInto(kRevocations, file, remedy, findings, [&, file = file, remedy = remedy] {
        LookAtRevocations(file, remedy, patient.now, findings);
      });
    }
  }
}

void LookAtClock(const Patient& patient, Findings& findings) {
  for (const Witness& witness : Witnesses(patient)) {
    if (witness.time > patient.now + rules::kClockToleranceSeconds) {
      findings.Problem(kClock, "",
                       "it says " + TimeText(patient.now) + ", before " + witness.what + " (" +
                           TimeText(witness.time) +
                           "): certificates of servers and ages are judged wrongly",
                       kSetClock);
      return;
    }
  }
  findings.Ok(kClock, "", "it says " + TimeText(patient.now));
}

}  // namespace tolm::operation
