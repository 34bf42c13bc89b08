#include <exception>

#include "dataupdate/error.h"
#include "dataupdate/strategy.h"
#include "strategy_support.h"

namespace tolm::dataupdate {

ForceInstallByLink::ForceInstallByLink(const std::string& name, const std::string& link,
                                       const std::string& cur_volume,
                                       const std::string& install_prefix,
                                       const std::string& root_directory)
    : name_(name),
      link_(link),
      cur_volume_(cur_volume),
      install_prefix_(install_prefix),
      root_directory_(root_directory) {}

ForceInstallByLink::~ForceInstallByLink() {
  CleanTarball(tarball_path_);
  RemoveTemporaryData("clean", [this] { return TemporaryRoot(cur_volume_); });
}

void ForceInstallByLink::PrepareUpdate() {
  const IOUtils io;
  tarball_path_ = PackageFile(cur_volume_, name_, "debug");
  io.TolmMkdir(TemporaryRoot(cur_volume_));
  io.Download(tarball_path_, link_);
  io.TolmMkdir(install_prefix_);
}

void ForceInstallByLink::ApplyUpdate() {
  try {
    const FileLock lock = LockOutReaders(name_);
    _ExtractTarballTo(tarball_path_, install_prefix_);
  } catch (const std::exception& error) {
    throw UpdateError(std::string("Fail to force install: ") + TextOf(error));
  }
}

}  // namespace tolm::dataupdate
