// A target for libFuzzer: what stands behind a good signature, and what signatures are judged by.
// The first byte says what the rest is; signatures and lists are signed here, with keys of this
// process, so that its bytes get to who reads what was signed. Whatever they are: no crash, no
// access beyond what is there, what is wrong is told by the types that the headers name, what was
// accepted is accepted again, and nothing goes back behind it.

#include <json/writer.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "base/file.h"
#include "base/paths.h"
#include "dataupdate/error.h"
#include "offer/error.h"
#include "offer/signed_offer.h"
#include "operation/belief.h"
#include "operation/description_reader.h"
#include "operation/device_trust.h"
#include "operation/keyring_dates.h"
#include "operation/offered_package.h"
#include "operation/offers.h"
#include "operation/rollout.h"
#include "operation/sources.h"
#include "operation/survey.h"
#include "operation/trust_state.h"
#include "package/error.h"
#include "package/revocations.h"
#include "tests/package/authority.h"
#include "tests/support/fuzzing.h"

namespace {

using namespace tolm;
using namespace tolm::operation;
using tolm::testing::Expect;

constexpr char kDefaults[] = R"({"config": {"db_ver": "1", "db_netloc": "updates.example.org",
    "download_scheme": "https", "cur_volume": "/volume1"}})";
constexpr char kDatabases[] = R"({"oui": {"install_dest": "%VOLUME%"}, "geo": {}})";
constexpr char kNextOffer[] = "\n====\n";

const tolm::testing::Authority& Root() {
  static const tolm::testing::Authority root;
  return root;
}

const package::Signer& DescriptionSigner() {
  static const package::Signer signer = [] {
    tolm::testing::CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    return Root().NewSigner(options);
  }();
  return signer;
}

void Clear() {
  for (const char* path : {paths::kStateDirectory, paths::kCacheDirectory, paths::kKeyringDirectory,
                           "/usr/tolm/etc/data_update"}) {
    std::filesystem::remove_all(path);
  }
  std::filesystem::create_directories(paths::kStateDirectory);
  std::filesystem::create_directories(paths::kLockDirectory);
  tolm::testing::Put(paths::kServiceDefaults, kDefaults);
  tolm::testing::Put(paths::kDatabaseDefaults, kDatabases);
  tolm::testing::Put(KeyringFile(".pem"), Root().Pem());
}

// ---- Descriptions ----

void PutSigned(const std::string& text) {
  Json::Value document(Json::objectValue);
  offer::AddTo(document, offer::Sign(text, DescriptionSigner()));
  tolm::testing::Put(paths::kDatabaseInfo,
                     Json::writeString(Json::StreamWriterBuilder(), document));
}

// All that operations look for in a document that is believed.
void ReadDocument(const Json::Value& document) {
  for (const std::string& name : document["db_list"].getMemberNames()) {
    const dataupdate::RemoteInfo offered = OfferIn(document, name);
    const OfferedPackages packages = SignedPackagesIn(document, name);
    Expect(packages.count('v' + std::to_string(offered.data_version)) == 1);
    for (const auto& [version, delta] : DeltasIn(document, name)) {
      Expect(packages.count('d' + std::to_string(version)) == 1);
      Expect(!delta.download_link.empty());
    }
    const std::optional<Rollout> rollout = RolloutIn(document, name);
    const auto other = OtherOfferIn(document, name);
    Expect(rollout.has_value() == other.has_value());
    if (rollout) {
      Expect(rollout->next > rollout->stable && OfferedVersionOf(*rollout) == offered.data_version);
      RolloutText(*rollout, 1900000000);
    }
    Expect(!PlacesOf(offered.download_link).empty());
  }
}

// Accepts it as a device does; its counter.
std::optional<std::uint64_t> Accept(const std::string& text) {
  PutSigned(text);
  try {
    const Belief belief = BeliefInCached();
    Expect(belief.acceptance && belief.document);
    ReadDocument(*belief.document);
    Remember(belief);
  } catch (const Disbelieved&) {
    return std::nullopt;
  }
  const Belief again = BeliefInCached();
  Expect(again.acceptance && !again.acceptance->is_new && again.revocations.empty());
  const SignedState state = ReadSignedState();
  Expect(state.is_wanted && !state.accepted.repository.empty());
  return state.accepted.counter;
}

void ReadOffers(const std::string& text) {
  const std::size_t end = text.find(kNextOffer);
  const auto first = Accept(text.substr(0, end));
  if (end == std::string::npos) {
    return;
  }
  const SignedState before = ReadSignedState();
  const auto second = Accept(text.substr(end + sizeof kNextOffer - 1));
  if (first && second) {
    Expect(*second >= *first);
    Expect(ReadSignedState().accepted.repository == before.accepted.repository);
  }
  // What is not signed is not believed any more.
  if (first || second) {
    tolm::testing::Put(paths::kDatabaseInfo, R"({"db_list":{}})");
    try {
      BeliefInCached();
      Expect(false);
    } catch (const Disbelieved&) {
    }
  }
}

// ---- Who is believed ----

void ReadTrust() {
  try {
    DeviceTrust().CheckSigner(DescriptionSigner().certificate.get(), nullptr, 1900000000,
                              package::SignerUse::kDescriptions);
  } catch (const package::Error&) {
    // As the header says.
  }
}

void Judge(const std::string& pem) {
  std::string judged;
  try {
    judged = JudgeRevocations(pem);
  } catch (const offer::Error& error) {
    Expect(error.code() == offer::Code::kForm || error.code() == offer::Code::kKeyring);
    return;
  }
  if (judged.empty()) {
    return;
  }
  DeviceTrust(judged);
  KeepRevocations(judged);
  Expect(JudgeRevocations(judged).empty());
  ReadTrust();
}

// A list of the trusted root's, with all that the bytes say besides.
std::string Signed(const std::string& der) {
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  const package::X509CrlPtr list(d2i_X509_CRL(nullptr, &position, static_cast<long>(der.size())));
  if (!list) {
    return "";
  }
  X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(Root().certificate()));
  return X509_CRL_sign(list.get(), Root().key(), EVP_sha256()) > 0
             ? tolm::testing::PemOf(list.get())
             : "";
}

void ReadList(const std::string& der) {
  const std::string pem = Signed(der);
  if (pem.empty()) {
    return;
  }
  const std::string older = Root().RevocationPem({}, 1500000000, tolm::testing::kFarFuture, 3);
  KeepRevocations(JudgeRevocations(older));
  Judge(pem);
  tolm::testing::Put(KeyringFile(".crl.pem"), pem);
  ReadTrust();
  ReadRevocationDates(KeyringFile(".crl.pem"));
}

void ReadListText(const std::string& pem) {
  Judge(pem);
  tolm::testing::Put(paths::kLearnedRevocations, pem);
  ReadTrust();
  Judge(Root().RevocationPem({}));
  ReadRevocationDates(paths::kLearnedRevocations);
}

void ReadKeyring(const std::string& pem) {
  tolm::testing::Put(KeyringFile(".pem"), pem);
  ReadTrust();
  Judge(Root().RevocationPem({}));
  ReadCertificateDates(KeyringFile(".pem"));
}

std::string CertificatePem(const std::string& der) {
  const package::BioPtr bio = tolm::testing::NewMemoryBio();
  PEM_write_bio(bio.get(), "CERTIFICATE", "", reinterpret_cast<const unsigned char*>(der.data()),
                static_cast<long>(der.size()));
  return tolm::testing::DrainBio(bio.get());
}

void Read(char kind, const std::string& rest) {
  switch (kind) {
    case 'o':
      return ReadOffers(rest);
    case 'r':
      return ReadListText(rest);
    case 'l':
      return ReadList(rest);
    case 'k':
      return ReadKeyring(rest);
    case 'c':
      return ReadKeyring(Root().Pem() + CertificatePem(rest));
    default:
      return;
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const package::OpenSslErrorScope errors;
  Clear();
  const auto [kind, rest] = tolm::testing::ToInput(data, size);
  try {
    Read(kind, rest);
  } catch (const dataupdate::UpdateError&) {
    // What is wrong is told like this, or by one of these, as the headers say.
  } catch (const base::FileError&) {
  } catch (const std::runtime_error&) {
  }
  return 0;
}
