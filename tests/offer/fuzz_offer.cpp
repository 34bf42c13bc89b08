// A target for libFuzzer. The first byte says what the rest is: a description as a server sends it,
// a signed text, a signature over one, a certificate. Whatever the bytes are: no crash, no access
// beyond what is there, and what is read is the same after it was written and read again.

#include <json/reader.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "base/json_scan.h"
#include "base/rules.h"
#include "offer/acceptance.h"
#include "offer/error.h"
#include "package/error.h"
#include "tests/support/fuzzing.h"

namespace {

using namespace tolm;
using tolm::testing::Expect;

constexpr std::int64_t kAt = 4000000000;  // Within the validity of the certificates of the corpus.

// The root whose key has signed the good texts of the corpus, and nothing else.
const package::Trust& Trusted() {
  static const package::Trust trust =
      package::Trust::Load(TOLM_TEST_SOURCE_DIR "/tests/data/offer/root.pem", "");
  return trust;
}

void Judge(const offer::VerifiedOffer& verified) {
  try {
    const offer::Acceptance first = offer::Judge(verified, {}, verified.offer.info_version, kAt);
    // The same again is accepted, and nothing new.
    Expect(!offer::Judge(verified, first.accepted, verified.offer.info_version, kAt).is_new);
  } catch (const offer::Error& error) {
    Expect(error.code() == offer::Code::kExpired);
  }
}

void ReadText(const std::string& text) {
  offer::VerifiedOffer verified;
  try {
    verified.offer = offer::ParseOffer(text);
  } catch (const offer::Error&) {
    return;
  }
  const std::string written = offer::FormatOffer(verified.offer);
  Expect(offer::FormatOffer(offer::ParseOffer(written)) == written);
  Expect(offer::DocumentOf(verified.offer)["db_list"].size() == verified.offer.databases.size());
  Judge(verified);
}

void ReadDescription(const std::string& text) {
  base::JsonScan scan;
  scan.Add(text);
  if (scan.measure().depth > rules::kDescriptionDepth) {
    return;  // A device parses nothing like that.
  }
  Json::Value document;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr)) {
      return;
    }
  } catch (const Json::Exception&) {
    return;
  }
  try {
    if (const auto signed_text = offer::SignedTextIn(document)) {
      offer::SignerOf(*signed_text);
      Judge(offer::Verify(*signed_text, Trusted(), kAt));
    }
  } catch (const offer::Error&) {
    // What is wrong is told like this.
  }
}

void ReadSignature(const std::string& signature) {
  const offer::SignedText signed_text{"{}", signature};
  try {
    offer::SignerOf(signed_text);
    offer::Verify(signed_text, Trusted(), kAt);
  } catch (const offer::Error&) {
    // As above.
  }
}

void ReadCertificate(const std::string& der) {
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  const package::X509Ptr certificate(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
  if (!certificate) {
    return;
  }
  try {
    package::ScopeOf(certificate.get());
    Trusted().CheckSigner(certificate.get(), nullptr, kAt, package::SignerUse::kDescriptions);
  } catch (const package::Error&) {
    // As above.
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const package::OpenSslErrorScope errors;
  const auto [kind, rest] = tolm::testing::ToInput(data, size);
  switch (kind) {
    case 'd':
      ReadDescription(rest);
      break;
    case 't':
      ReadText(rest);
      break;
    case 's':
      ReadSignature(rest);
      break;
    case 'c':
      ReadCertificate(rest);
      break;
    default:
      break;
  }
  return 0;
}
