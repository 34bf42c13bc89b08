#include "operation/belief.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "base/paths.h"
#include "operation/description_reader.h"
#include "operation/device_trust.h"
#include "tests/offer/offers.h"
#include "tests/package/authority.h"
#include "tests/support/files.h"

namespace tolm::operation {
namespace {

namespace fs = std::filesystem;
using testing::Authority;

// What is kept of a file is told from another by times that go on in ticks.
void WaitForTicks() {
  usleep(200000);
}

void Put(const offer::Offer& offer, const package::Signer& signer) {
  Json::Value document(Json::objectValue);
  offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), signer));
  testing::WriteFile(paths::kDatabaseInfo,
                     Json::writeString(Json::StreamWriterBuilder(), document));
}

std::string OfferedVersionRead() {
  return DescriptionReader()
      .ReadJson(paths::kDatabaseInfo)["db_list"]["oui"]["data_version"]
      .asString();
}

TEST(BeliefTest, WhatIsKeptOfASignedOneIsThatOfTheFileAndJudgedEachTime) {
  const Authority root;
  testing::CertificateOptions options;
  options.extended_usage = package::kDescriptionSigningOid;
  const package::Signer signer = root.NewSigner(options);
  testing::WriteFile(KeyringFile(".pem"), root.Pem());
  testing::WriteFile(paths::kServiceDefaults, R"({"config": {"db_ver": "1"}})");
  offer::Offer offer = testing::SomeOffer();
  Put(offer, signer);
  WaitForTicks();
  EXPECT_EQ(OfferedVersionRead(), "7");
  EXPECT_EQ(OfferedVersionRead(), "7");
  offer.databases["oui"].version = 8;
  Put(offer, signer);
  EXPECT_EQ(OfferedVersionRead(), "8") << "written in its place, and as long";
  WaitForTicks();
  EXPECT_EQ(OfferedVersionRead(), "8");
  testing::WriteFile(KeyringFile(".crl.pem"), root.RevocationPem({signer.certificate.get()}));
  EXPECT_THROW(OfferedVersionRead(), Disbelieved) << "the file is the same";
}

}  // namespace
}  // namespace tolm::operation
