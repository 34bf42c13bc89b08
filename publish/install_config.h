#ifndef TOLM_PUBLISH_INSTALL_CONFIG_H_
#define TOLM_PUBLISH_INSTALL_CONFIG_H_

#include <cstddef>
#include <string>

namespace tolm::publish {

struct InstallConfigRequest {
  std::string repository;
  std::string root;  ///< "/" on the device itself, or the directory of an image to be
  std::string install_dest = "%VOLUME%";
};

/// Writes below the root what a device needs to follow this repository: its two default
/// configuration files (docs/formats/configuration.md) with all databases that were released so
/// far, and the keyring with the repository's root certificate. Replaces files that are there.
/// Where the device's administrator has an override file for databases, which hides those that it
/// does not list, the missing ones are added to it, without a setting; a damaged one is left alone.
/// On the device itself waits up to 600 s for others that write settings. Returns how many
/// databases it wrote. Throws Error, package::Error.
std::size_t InstallConfig(const InstallConfigRequest& request);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_INSTALL_CONFIG_H_
