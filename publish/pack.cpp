#include "publish/pack.h"

#include "package/error.h"
#include "package/package_writer.h"
#include "publish/signer.h"

namespace tolm::publish {

void Pack(const PackRequest& request, std::int64_t now, const package::Progress& progress) {
  try {
    package::WritePackage(request.source_directory, request.package_path, request.seal,
                          request.packing, LoadSigner(request.key, request.certificate_path), now,
                          progress);
  } catch (const package::Error& error) {
    throw package::Error(
        error.code(),
        "pack " + request.source_directory + " into " + request.package_path + ": " + error.what(),
        error.errno_value());
  }
}

}  // namespace tolm::publish
