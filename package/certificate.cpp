#include "package/certificate.h"

#include <array>

#include "base/utc_time.h"
#include "package/error.h"

namespace tolm::package {

std::int64_t SecondsOf(const ASN1_TIME* time) {
  std::tm parts{};
  if (time == nullptr || ASN1_TIME_to_tm(time, &parts) != 1) {
    throw Error(Code::kInternal, "a date of a certificate cannot be read");
  }
  return base::UtcSeconds(parts);
}

std::string NameText(const X509_NAME* name) {
  const BioPtr text = Checked(BioPtr(BIO_new(BIO_s_mem())));
  X509_NAME_print_ex(text.get(), name, 0,
                     XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB));
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

CertificateDetails DetailsOf(const X509* certificate) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  CheckResult(X509_digest(certificate, EVP_sha256(), digest.data(), &size));
  CertificateDetails details;
  details.subject = NameText(X509_get_subject_name(certificate));
  details.not_before = SecondsOf(X509_get0_notBefore(certificate));
  details.not_after = SecondsOf(X509_get0_notAfter(certificate));
  for (unsigned int i = 0; i < size; ++i) {
    details.fingerprint += kDigits[digest[i] >> 4];
    details.fingerprint += kDigits[digest[i] & 15];
  }
  return details;
}

}  // namespace tolm::package
