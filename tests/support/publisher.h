#ifndef TOLM_SUPPORT_PUBLISHER_H_
#define TOLM_SUPPORT_PUBLISHER_H_

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/http_server.h"

namespace tolm::testing {

/// A publisher with its server on loopback, for tests of the installed programs inside a private
/// root. Keys and packages are made by the installed tolmdbpub; the description is written by hand.
/// All members throw std::runtime_error when a program fails.
class Publisher {
 public:
  Publisher();

  HttpServer& Server() { return server_; }

  /// "xz" or "zstd" for all that is packed from now on, in place of the smaller one.
  void SetCompression(const std::string& compression) { compression_ = compression; }
  /// Packs the files as the full package of this version.
  void PackFull(const std::string& name, int version, const Tree& files);
  /// Packs patch_infos.json and the input files as the delta to this version.
  void PackDelta(const std::string& name, int version, const std::string& patch_infos,
                 const Tree& inputs);
  /// Signs a payload made elsewhere, however strange, with the publisher's key.
  void PackPayload(const std::string& payload, const std::filesystem::path& package);
  /// From now on the server offers this version, with these deltas. Drops the device's cached
  /// description.
  void Offer(const std::string& name, int version, const std::vector<int>& deltas = {});

  std::filesystem::path FullPackage(const std::string& name, int version) const;
  std::filesystem::path DeltaPackage(const std::string& name, int version) const;
  /// The path that the server knows a package by.
  static std::string PathOf(const std::filesystem::path& package);

  /// Where keygen put root.key, root.pem, signing.key and signing.pem.
  std::filesystem::path Keys() const { return "/tmp/publisher/keys"; }

 private:
  void Pack(const std::string& name, const std::string& kind, int version, const Tree& files,
            const std::filesystem::path& package);

  std::string compression_ = "auto";
  HttpServer server_;
  std::map<std::string, std::string> records_;  // name to its record in the description
};

/// Writes the device's default configuration: the publisher's server, the volume /volume1, and the
/// databases with their "install_dest"; and makes the device trust the publisher's root.
void ConfigureDevice(Publisher& publisher, const std::map<std::string, std::string>& databases,
                     const std::string& volume = "/volume1");

/// Why the newest operation failed, in the library's words, as the device's history has it; empty
/// when it did not, and without a history.
std::string LastMessage();

/// "data_version" of the database's version.json; empty when there is none.
std::string InstalledVersion(const std::string& name);

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_PUBLISHER_H_
