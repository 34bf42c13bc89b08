#ifndef TOLM_PUBLISH_INSTALL_CONFIG_H_
#define TOLM_PUBLISH_INSTALL_CONFIG_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "publish/revocations.h"

namespace tolm::publish {

struct InstallConfigRequest {
  std::string repository;
  std::string root;  ///< "/" on the device itself, or the directory of an image to be
  std::string install_dest = "%VOLUME%";
  std::string revocations_path;  ///< may be empty: what is there of revocations stays
};

struct InstallConfigReport {
  std::size_t databases = 0;
  bool requires_signed = false;  ///< devices were told to take no description without a signature
  std::optional<Revocations> revocations;
  std::size_t refused = 0;  ///< packages that are offered and that a device with these refuses
};

/// Writes below the root what a device needs to follow this repository: its two default
/// configuration files (docs/formats/configuration.md) with all databases that were released so
/// far, and that descriptions must be signed where this repository's are, and the keyring with the
/// repository's root certificate, and perhaps with revocations, which are proved first: see
/// LoadRevocations and RequireNoneTakenBack; the next list may not be due yet. Replaces files that
/// are there. Where the device's administrator has an override file for databases, which hides
/// those that it does not list, the missing ones are added to it, without a setting; a damaged one
/// is left alone. On the device itself waits up to 600 s for others that write settings. Throws
/// Error, package::Error; when what is to be written is unfit, nothing was.
InstallConfigReport InstallConfig(const InstallConfigRequest& request, std::int64_t now);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_INSTALL_CONFIG_H_
