#include "operation/keyring_dates.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <ctime>
#include <memory>
#include <stdexcept>
#include <utility>

#include "base/file.h"
#include "base/keyring_bounds.h"
#include "base/utc_time.h"

namespace tolm::operation {
namespace {

template <typename Type, void (*Free)(Type*)>
struct Freer {
  void operator()(Type* object) const { Free(object); }
};
using Bio = std::unique_ptr<BIO, Freer<BIO, BIO_free_all>>;
using Certificate = std::unique_ptr<X509, Freer<X509, X509_free>>;
using RevocationList = std::unique_ptr<X509_CRL, Freer<X509_CRL, X509_CRL_free>>;

std::int64_t SecondsOf(const ASN1_TIME* time) {
  std::tm broken{};
  return time != nullptr && ASN1_TIME_to_tm(time, &broken) == 1 ? base::UtcSeconds(broken) : 0;
}

std::string NameOf(const X509_NAME* name) {
  const Bio text(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

CertificateDates DatesOf(const Certificate& certificate) {
  return {NameOf(X509_get_subject_name(certificate.get())),
          SecondsOf(X509_get0_notBefore(certificate.get())),
          SecondsOf(X509_get0_notAfter(certificate.get()))};
}

RevocationDates DatesOf(const RevocationList& list) {
  return {NameOf(X509_CRL_get_issuer(list.get())), SecondsOf(X509_CRL_get0_nextUpdate(list.get()))};
}

template <typename Dates, typename Pointer, typename Reader>
std::vector<std::optional<Dates>> ReadAll(const std::string& file, std::size_t most_bytes,
                                          Reader read) {
  const std::string text = base::File(file, O_RDONLY).Read(0, most_bytes + 1);
  if (text.size() > most_bytes) {
    throw std::runtime_error("it is larger than " + std::to_string(most_bytes) +
                             " bytes, no package can be verified");
  }
  const Bio memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  std::vector<std::optional<Dates>> all;
  while (const Pointer object{read(memory.get(), nullptr, nullptr, nullptr)}) {
    all.push_back(DatesOf(object));
  }
  // Reading always ends with an error of its own, be it that nothing more begins.
  if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
    all.push_back(std::nullopt);
  }
  ERR_clear_error();
  return all;
}

}  // namespace

std::vector<std::optional<CertificateDates>> ReadCertificateDates(const std::string& file) {
  return ReadAll<CertificateDates, Certificate>(file, rules::kKeyringBytes, PEM_read_bio_X509);
}

std::vector<std::optional<RevocationDates>> ReadRevocationDates(const std::string& file) {
  return ReadAll<RevocationDates, RevocationList>(file, rules::kRevocationBytes,
                                                  PEM_read_bio_X509_CRL);
}

}  // namespace tolm::operation
