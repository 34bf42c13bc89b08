#include "publish/signer.h"

#include <openssl/store.h>
#include <openssl/ui.h>

#include <iterator>
#include <utility>

#include "package/error.h"
#include "package/file_io.h"
#include "package/openssl.h"

namespace tolm::publish {
namespace {

using package::Code;
using package::Error;
using package::KeyPtr;
using StorePtr = std::unique_ptr<OSSL_STORE_CTX, package::OpenSslDelete<OSSL_STORE_close>>;
using StoreInfoPtr = std::unique_ptr<OSSL_STORE_INFO, package::OpenSslDelete<OSSL_STORE_INFO_free>>;

constexpr std::size_t kMaxCertificateBytes = 1024 * 1024;

KeyPtr LoadKey(const std::string& key) {
  const package::OpenSslErrorScope errors;
  // Providers come from OpenSSL's configuration file.
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
  const StorePtr store(
      OSSL_STORE_open(key.c_str(), UI_get_default_method(), nullptr, nullptr, nullptr));
  if (!store) {
    throw Error(Code::kArgument, "key " + key + ": " + package::OpenSslReason());
  }
  OSSL_STORE_expect(store.get(), OSSL_STORE_INFO_PKEY);
  while (OSSL_STORE_eof(store.get()) == 0) {
    const StoreInfoPtr info(OSSL_STORE_load(store.get()));
    if (info && OSSL_STORE_INFO_get_type(info.get()) == OSSL_STORE_INFO_PKEY) {
      return KeyPtr(OSSL_STORE_INFO_get1_PKEY(info.get()));
    }
    if (OSSL_STORE_error(store.get()) != 0) {
      break;
    }
  }
  throw Error(Code::kArgument, "key " + key + ": no private key in it");
}

}  // namespace

package::Signer LoadSigner(const std::string& key, const std::string& certificate_path) {
  package::Signer signer;
  signer.key = LoadKey(key);
  auto certificates = package::ParseCertificates(
      package::ReadSmallFile(certificate_path, kMaxCertificateBytes, Code::kKeyring),
      certificate_path);
  signer.certificate = std::move(certificates.front());
  signer.chain.assign(std::make_move_iterator(certificates.begin() + 1),
                      std::make_move_iterator(certificates.end()));
  return signer;
}

}  // namespace tolm::publish
