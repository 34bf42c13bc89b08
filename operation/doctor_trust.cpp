// Looks at what packages are trusted for, and by which clock.

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/file.h"
#include "base/keyring_bounds.h"
#include "base/paths.h"
#include "base/rules.h"
#include "base/trusted_directory.h"
#include "operation/device_trust.h"
#include "operation/doctor_looks.h"
#include "operation/history.h"
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

template <typename Type, void (*Free)(Type*)>
struct Freer {
  void operator()(Type* object) const { Free(object); }
};
using Bio = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using Certificate = std::unique_ptr<X509, Freer<X509, X509_free>>;
using RevocationList = std::unique_ptr<X509_CRL, Freer<X509_CRL, X509_CRL_free>>;

bool IsThere(const std::string& file) {
  struct stat status;
  return stat(file.c_str(), &status) == 0;
}

std::int64_t SecondsOf(const ASN1_TIME* time) {
  std::tm broken{};
  return time != nullptr && ASN1_TIME_to_tm(time, &broken) == 1 ? timegm(&broken) : 0;
}

std::string NameOf(const X509_NAME* name) {
  const Bio text(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

// Every object of that kind in the file; the last one is null where one cannot be read.
template <typename Pointer, typename Reader>
std::vector<Pointer> ReadAll(const std::string& file, std::size_t most_bytes, Reader read) {
  const std::string text = base::File(file, O_RDONLY).Read(0, most_bytes + 1);
  if (text.size() > most_bytes) {
    throw std::runtime_error("it is larger than " + std::to_string(most_bytes) +
                             " bytes, no package can be verified");
  }
  const Bio memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  std::vector<Pointer> objects;
  ERR_clear_error();
  while (Pointer object{read(memory.get(), nullptr, nullptr, nullptr)}) {
    objects.push_back(std::move(object));
  }
  if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
    objects.push_back(nullptr);
  }
  ERR_clear_error();
  return objects;
}

// Certificates are judged by a clock that was never set as by the time of this build.
void LookAtCertificate(const X509* certificate, const std::string& file, std::int64_t now,
                       Findings& findings) {
  const std::string name = NameOf(X509_get_subject_name(certificate));
  const std::int64_t begin = SecondsOf(X509_get0_notBefore(certificate));
  const std::int64_t end = SecondsOf(X509_get0_notAfter(certificate));
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
  const auto certificates = ReadAll<Certificate>(file, rules::kKeyringBytes, PEM_read_bio_X509);
  if (certificates.empty()) {
    findings.Problem(kKeyring, file, "it holds no certificate", kBringKeyring);
  }
  for (const Certificate& certificate : certificates) {
    if (certificate) {
      LookAtCertificate(certificate.get(), file, now, findings);
    } else {
      findings.Problem(kKeyring, file, "it is damaged, no package can be verified", kBringKeyring);
    }
  }
}

void LookAtRevocations(const std::string& file, const char* remedy, std::int64_t now,
                       Findings& findings) {
  const auto lists = ReadAll<RevocationList>(file, rules::kRevocationBytes, PEM_read_bio_X509_CRL);
  if (lists.empty()) {
    findings.Problem(kRevocations, file, "it holds no revocation list, no package can be verified",
                     remedy);
  }
  for (const RevocationList& list : lists) {
    if (!list) {
      findings.Problem(kRevocations, file, "it is damaged, no package can be verified", remedy);
      continue;
    }
    const std::string name = NameOf(X509_CRL_get_issuer(list.get()));
    const std::int64_t next = SecondsOf(X509_CRL_get0_nextUpdate(list.get()));
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
