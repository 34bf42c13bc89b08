#include "publish/upgrade.h"

#include <filesystem>
#include <vector>

#include "publish/error.h"
#include "publish/files.h"
#include "publish/key_generator.h"
#include "publish/refresh.h"

namespace tolm::publish {
namespace {

namespace fs = std::filesystem;

fs::path DirectoryOfKey(const Settings& settings) {
  const fs::path key = settings.KeyLocation();
  if (!fs::exists(key)) {
    throw Error("key " + settings.key +
                ": no file, beside which an info key could be made; make one with \"tolmdbpub "
                "keygen DIR --root-key KEY --root FILE --info\" and give it by --info-key and "
                "--info-cert");
  }
  return key.parent_path();
}

// Files that were made, until it is known that they are of use.
class MadeFiles {
 public:
  ~MadeFiles() {
    for (const fs::path& file : files_) {
      std::error_code ignored;
      fs::remove(file, ignored);
    }
  }
  void WillMake(const fs::path& file) {
    if (!fs::exists(file)) {
      files_.push_back(file);
    }
  }
  void Keep() { files_.clear(); }

 private:
  std::vector<fs::path> files_;
};

KeyFiles FilesFor(const UpgradeRequest& request, const Settings& settings, std::int64_t now,
                  MadeFiles& made) {
  if (request.keys.IsInfoGiven()) {
    return request.keys;
  }
  if (request.root_key.empty()) {
    throw Error(settings.directory +
                ": its descriptions are not signed yet; --root-key KEY makes a key for them, or "
                "--info-key KEY and --info-cert FILE give one");
  }
  const fs::path directory = DirectoryOfKey(settings);
  KeyFiles files;
  files.info_key = directory / kInfoKeyName;
  files.info_certificate_path = directory / kInfoCertificateName;
  if (!fs::exists(files.info_key) || !fs::exists(files.info_certificate_path)) {
    SigningKeyRequest order;
    order.directory = directory;
    order.root_key = request.root_key;
    order.root_path = request.root_path.empty() ? settings.RootFile() : request.root_path;
    order.passphrase = request.passphrase;
    made.WillMake(files.info_key);
    made.WillMake(files.info_certificate_path);
    GenerateInfoKey(order, now);
  }
  return files;
}

}  // namespace

UpgradeReport UpgradeRepository(const UpgradeRequest& request, std::int64_t now,
                                const Notes& notes) {
  RepositoryChange change(request.repository, notes);
  Settings& settings = change.settings;
  UpgradeReport report;
  report.is_signed_already = settings.IsSigned();
  MadeFiles made;
  if (!report.is_signed_already) {
    TakeKeyFiles(FilesFor(request, settings, now, made), settings);
    settings.identity = NewIdentity();
    LoadInfoSigner(settings, now);
    made.Keep();
  }
  if (!request.refresh_group.empty()) {
    ShareForRefresh(change.paths(), settings, request.refresh_group);
  }
  report.info_key = settings.InfoKeyLocation();
  report.databases = change.catalog.databases.size();
  if (!report.is_signed_already) {
    change.Begin("upgrade");
    change.Commit();
    report.expires = change.DescriptionExpires();
  }
  return report;
}

}  // namespace tolm::publish
