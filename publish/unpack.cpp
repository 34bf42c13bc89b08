#include "publish/unpack.h"

#include <fcntl.h>

#include <cerrno>
#include <filesystem>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/package.h"
#include "publish/error.h"
#include "publish/files.h"
#include "publish/new_tree.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

void ExtractTo(const package::Package& package, const std::string& directory) {
  const base::Descriptor target(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!target.IsOpen()) {
    throw package::WriteError(directory, errno);
  }
  package.Extract(target.Get(), nullptr);
}

// What goes wrong with the package names it.
template <typename Action>
auto WithName(const std::string& package_path, const Action& action) {
  try {
    return action();
  } catch (const package::Error& error) {
    throw package::Error(error.code(), package_path + ": " + error.what(), error.errno_value());
  }
}

}  // namespace

Tree UnpackRelease(const std::string& package_path, const package::Trust& trust, std::int64_t now,
                   const std::string& directory, int jobs) {
  WithName(package_path, [&] {
    const package::Package package(package_path);
    package.Verify(trust, now);
    package.CheckName();
    EmptyDirectory(directory);
    ExtractTo(package, directory);
  });
  ScanOptions options;
  options.jobs = jobs;
  return ScanTree(directory, options);
}

Tree UnpackKnown(const std::string& package_path, const std::string& sha384,
                 const std::string& directory) {
  if (MeasureFile(package_path).sha384 != sha384) {
    throw Error(package_path + ": is not the package that was released");
  }
  WithName(package_path, [&] {
    const package::Package package(package_path);
    EmptyDirectory(directory);
    ExtractTo(package, directory);
  });
  return ScanTree(directory);
}

UnpackReport UnpackPackage(const UnpackRequest& request, std::int64_t now) {
  if (!request.revocations_path.empty() && !fs::exists(request.revocations_path)) {
    throw package::SystemError(package::Code::kKeyring, request.revocations_path, ENOENT);
  }
  const package::Trust trust = package::Trust::Load(request.keyring_path, request.revocations_path);
  fs::path target = fs::absolute(request.directory).lexically_normal();
  target = target.has_filename() ? target : target.parent_path();
  NewTree tree(target.string());
  UnpackReport report;
  WithName(request.package_path, [&] {
    const package::Package package(request.package_path);
    package.Verify(trust, now);
    package.CheckName();
    report.seal = package.ReadSeal();
    package.ForEachMember([&report](const package::Member& member) {
      report.files += member.type != package::MemberType::kDirectory ? 1 : 0;
    });
    ExtractTo(package, tree.path());
  });
  tree.PutInPlace();
  return report;
}

}  // namespace tolm::publish
