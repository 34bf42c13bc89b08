#include "publish/signer.h"

#include <openssl/store.h>
#include <openssl/ui.h>

#include <algorithm>
#include <cstring>
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

using UiMethodPtr = std::unique_ptr<UI_METHOD, package::OpenSslDelete<UI_destroy_method>>;

constexpr std::size_t kMaxCertificateBytes = 1024 * 1024;

// Who answers when a key has a pass phrase.
struct Answer {
  std::string key;
  std::string given;
  bool was_wanted = false;
  bool was_refused = false;
};

// OpenSSL asks again for each form that a key may have: once is enough for whoever has said no.
int GivePassphrase(char* buffer, int size, int /*writing*/, void* data) {
  Answer& answer = *static_cast<Answer*>(data);
  answer.was_wanted = true;
  if (answer.given.empty()) {
    const std::string prompt = "Pass phrase of " + answer.key + ": ";
    answer.was_refused = answer.was_refused ||
                         UI_UTIL_read_pw_string(buffer, size, prompt.c_str(), /*verify=*/0) != 0;
    return answer.was_refused ? -1 : static_cast<int>(std::strlen(buffer));
  }
  if (answer.given.size() > static_cast<std::size_t>(size)) {
    return -1;
  }
  std::copy(answer.given.begin(), answer.given.end(), buffer);
  return static_cast<int>(answer.given.size());
}

std::string WithoutKey(const Answer& answer) {
  const std::string where = "key " + answer.key + ": ";
  if (answer.was_refused) {
    return where + "no pass phrase was given";
  }
  return where + "no private key in it" + (answer.was_wanted ? " that this pass phrase opens" : "");
}

}  // namespace

KeyPtr LoadKey(const std::string& key, const std::string& passphrase) {
  const package::OpenSslErrorScope errors;
  // Providers come from OpenSSL's configuration file.
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
  const UiMethodPtr method =
      package::Checked(UiMethodPtr(UI_UTIL_wrap_read_pem_callback(GivePassphrase, 0)));
  Answer answer{key, passphrase};
  const StorePtr store(OSSL_STORE_open(key.c_str(), method.get(), &answer, nullptr, nullptr));
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
  throw Error(Code::kArgument, WithoutKey(answer));
}

package::Signer LoadSigner(const std::string& key, const std::string& certificate_path,
                           const std::string& passphrase) {
  package::Signer signer;
  signer.key = LoadKey(key, passphrase);
  auto certificates = package::ParseCertificates(
      package::ReadSmallFile(certificate_path, kMaxCertificateBytes, Code::kKeyring),
      certificate_path);
  signer.certificate = std::move(certificates.front());
  signer.chain.assign(std::make_move_iterator(certificates.begin() + 1),
                      std::make_move_iterator(certificates.end()));
  return signer;
}

}  // namespace tolm::publish
