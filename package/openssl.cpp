#include "package/openssl.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <system_error>

#include "package/error.h"

namespace tolm::package {
namespace {

// Reads objects of one kind up to the end of the text. `read` is OpenSSL's PEM reader for the kind.
template <typename Pointer, typename Reader>
std::vector<Pointer> ParsePem(const std::string& pem, const std::string& what, Reader read) {
  const OpenSslErrorScope errors;
  const BioPtr text = ViewOf(pem);
  std::vector<Pointer> objects;
  while (Pointer object{read(text.get(), nullptr, nullptr, nullptr)}) {
    objects.push_back(std::move(object));
  }
  const unsigned long last = ERR_peek_last_error();
  const bool at_end =
      ERR_GET_LIB(last) == ERR_LIB_PEM && ERR_GET_REASON(last) == PEM_R_NO_START_LINE;
  if (!at_end) {
    throw Error(Code::kKeyring, what + ": " + OpenSslReason());
  }
  if (objects.empty()) {
    throw Error(Code::kKeyring, what + ": nothing usable in it");
  }
  return objects;
}

}  // namespace

OpenSslErrorScope::OpenSslErrorScope() noexcept {
  ERR_set_mark();
}

OpenSslErrorScope::~OpenSslErrorScope() {
  ERR_pop_to_mark();
}

std::string OpenSslReason() {
  const unsigned long error = ERR_peek_last_error();
  if (ERR_SYSTEM_ERROR(error)) {
    return std::generic_category().message(ERR_GET_REASON(error));
  }
  const char* reason = ERR_reason_error_string(error);
  return reason != nullptr ? reason : "unknown reason";
}

void ThrowOpenSslError() {
  throw Error(Code::kInternal, OpenSslReason());
}

void CheckResult(int result) {
  if (result <= 0) {
    ThrowOpenSslError();
  }
}

BioPtr ViewOf(const std::string& data) {
  return Checked(BioPtr(BIO_new_mem_buf(data.data(), static_cast<int>(data.size()))));
}

std::vector<X509Ptr> ParseCertificates(const std::string& pem, const std::string& what) {
  return ParsePem<X509Ptr>(pem, what, PEM_read_bio_X509);
}

std::vector<X509CrlPtr> ParseRevocations(const std::string& pem, const std::string& what) {
  return ParsePem<X509CrlPtr>(pem, what, PEM_read_bio_X509_CRL);
}

}  // namespace tolm::package
