#ifndef TOLM_TESTS_TOOLS_SIGNED_SERVER_H_
#define TOLM_TESTS_TOOLS_SIGNED_SERVER_H_

#include <json/json.h>

#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "base/digest.h"
#include "offer/offer.h"
#include "offer/signed_offer.h"
#include "tests/package/authority.h"
#include "tests/package/payload_builder.h"
#include "tests/support/files.h"
#include "tests/support/publisher.h"
#include "tests/tools/device.h"

namespace tolm::testing {

/// A device that trusts an authority of the test's own, and a server that offers packages of the
/// database "oui" by descriptions that are signed below it. Faster than the publisher's tool, which
/// is tried elsewhere, and able to lie.
class SignedServer {
 public:
  static constexpr int kLifeSeconds = 24 * 3600;
  /// Of descriptions that are made from now on.
  int issued_later_by = 0;

  SignedServer() {
    ConfigureDevice(publisher_, {{"oui", kOnVolume}});
    WriteFile("/usr/tolm/etc/keyring/6.pem", root_.Pem());
    CertificateOptions options;
    options.extended_usage = package::kDescriptionSigningOid;
    info_signer_ = root_.NewSigner(options);
  }

  const Authority& Root() const { return root_; }
  const package::Signer& PackageSigner() const { return package_signer_; }
  HttpServer& Server() { return publisher_.Server(); }

  /// A package of these files, which does not compress them, by the signer.
  static std::string Package(const std::string& kind, int version, const Tree& files,
                             const package::Signer& signer) {
    PayloadBuilder builder(PayloadBuilder::Filter::kNone);
    builder.Seal(R"({"name":"oui","kind":")" + kind + R"(","version":)" + std::to_string(version) +
                 "}");
    for (const auto& [file, content] : files) {
      builder.File(file, content);
    }
    return SignedPackage(builder.Finish(), signer);
  }
  std::string Package(const std::string& kind, int version, const Tree& files) const {
    return Package(kind, version, files, package_signer_);
  }

  void Serve(const std::string& path, const std::string& package) {
    Server().SetBody('/' + path, package);
  }
  static offer::PackageOffer Offered(const std::string& path, const std::string& package) {
    base::Sha384 digest;
    digest.Add(package.data(), package.size());
    return {path, package.size(), digest.Hex()};
  }

  /// Serves it as the description, which the next command asks for.
  void ServeDescription(const std::string& document) {
    Server().SetBody("/database_info/1", document);
    std::filesystem::remove("/var/cache/data_update/database_info.json");
  }
  /// Signs and serves a description of this version; the next command asks for it.
  void Describe(int version, const offer::PackageOffer& full,
                const std::map<int, offer::PackageOffer>& deltas = {},
                const std::string& revocations = "") {
    Describe({version, 1700000000, false, full, deltas}, revocations);
  }
  void Describe(const offer::DatabaseOffer& database, const std::string& revocations = "") {
    offer::Offer offer;
    offer.repository = std::string(32, '7');
    offer.info_version = "1";
    offer.counter = ++counter_;
    offer.issued = std::time(nullptr) + issued_later_by;
    offer.expires = offer.issued + kLifeSeconds;
    offer.base = Server().Url("");
    offer.revocations = revocations;
    offer.databases["oui"] = database;
    Json::Value document(Json::objectValue);
    offer::AddTo(document, offer::Sign(offer::FormatOffer(offer), info_signer_));
    ServeDescription(document.toStyledString());
  }

 private:
  Publisher publisher_;
  Authority root_{"Test root"};
  package::Signer package_signer_ = root_.NewSigner();
  package::Signer info_signer_;
  std::uint64_t counter_ = 0;
};

}  // namespace tolm::testing

#endif  // TOLM_TESTS_TOOLS_SIGNED_SERVER_H_
