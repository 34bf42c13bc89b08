#include "publish/key_generator.h"

#include <fcntl.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <utility>
#include <vector>

#include "base/descriptor.h"
#include "base/utc_time.h"
#include "package/certificate.h"
#include "package/error.h"
#include "package/file_io.h"
#include "package/openssl.h"
#include "package/scope.h"
#include "publish/signer.h"

namespace tolm::publish {
namespace {

using base::Descriptor;
using package::BioPtr;
using package::Checked;
using package::CheckResult;
using package::Code;
using package::KeyPtr;
using package::X509Ptr;

constexpr std::int64_t kDaySeconds = 24 * 60 * 60;
constexpr std::int64_t kRootSeconds = 20 * 365 * kDaySeconds;

// Of scrypt; 16 MiB, and some tens of milliseconds.
constexpr std::uint64_t kScryptCost = 16384;
constexpr std::uint64_t kScryptBlocks = 8;
constexpr std::uint64_t kScryptLanes = 1;

struct Extension {
  int nid;
  std::string value;
};

struct Authority {
  X509* certificate;
  EVP_PKEY* key;
};

// What a certificate is to say.
struct Order {
  const char* name;
  std::vector<Extension> extensions;
  package::Scope scope;
};

KeyPtr NewKey() {
  return Checked(KeyPtr(EVP_EC_gen("P-256")));
}

// 15 random bytes below a 1: positive, and never shorter than it looks.
void SetSerial(X509* certificate) {
  std::array<unsigned char, 16> bytes{};
  CheckResult(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())));
  bytes[0] = 1;
  using NumberPtr = std::unique_ptr<BIGNUM, package::OpenSslDelete<BN_free>>;
  const NumberPtr number =
      Checked(NumberPtr(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr)));
  if (BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) == nullptr) {
    package::ThrowOpenSslError();
  }
}

// The date tells apart the names of an authority and its successor.
std::string DatedName(const char* name, std::int64_t now) {
  return name + base::FormatUtcTime(now, " %Y-%m-%d");
}

// The end may be one that time_t does not reach.
void SetValidity(X509* certificate, std::int64_t now, std::int64_t seconds) {
  const auto begin = static_cast<std::time_t>(now - kDaySeconds);
  const std::int64_t whole = seconds + kDaySeconds;
  if (ASN1_TIME_set(X509_getm_notBefore(certificate), begin) == nullptr ||
      ASN1_TIME_adj(X509_getm_notAfter(certificate), begin, static_cast<int>(whole / kDaySeconds),
                    static_cast<long>(whole % kDaySeconds)) == nullptr) {
    package::ThrowOpenSslError();
  }
}

void AddExtension(X509* certificate, X509* issuer, const Extension& extension) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const package::X509ExtensionPtr made = Checked(package::X509ExtensionPtr(
      X509V3_EXT_conf_nid(nullptr, &context, extension.nid, extension.value.c_str())));
  CheckResult(X509_add_ext(certificate, made.get(), -1));
}

// A certificate for `key`, signed by `authority`, or by itself when there is none.
X509Ptr NewCertificate(EVP_PKEY* key, const Order& order, std::int64_t now, std::int64_t seconds,
                       const Authority* authority) {
  X509Ptr certificate = Checked(X509Ptr(X509_new()));
  X509* issuer = authority != nullptr ? authority->certificate : certificate.get();
  const std::string name = DatedName(order.name, now);
  CheckResult(X509_set_version(certificate.get(), X509_VERSION_3));
  SetSerial(certificate.get());
  SetValidity(certificate.get(), now, seconds);
  CheckResult(X509_set_pubkey(certificate.get(), key));
  CheckResult(
      X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0));
  CheckResult(X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer)));
  for (const Extension& extension : order.extensions) {
    AddExtension(certificate.get(), issuer, extension);
  }
  if (order.scope) {
    const package::X509ExtensionPtr scope = package::NewScopeExtension(*order.scope);
    CheckResult(X509_add_ext(certificate.get(), scope.get(), -1));
  }
  CheckResult(
      X509_sign(certificate.get(), authority != nullptr ? authority->key : key, EVP_sha256()));
  return certificate;
}

Order RootOrder() {
  return {"Database package root",
          {{NID_basic_constraints, "critical,CA:TRUE"},
           {NID_key_usage, "critical,keyCertSign,cRLSign"},
           {NID_subject_key_identifier, "hash"}},
          {}};
}

Order SignerOrder(const char* name, const std::string& usage, const package::Scope& scope) {
  return {name,
          {{NID_basic_constraints, "critical,CA:FALSE"},
           {NID_key_usage, "critical,digitalSignature"},
           {NID_ext_key_usage, usage},
           {NID_subject_key_identifier, "hash"},
           {NID_authority_key_identifier, "keyid:always"}},
          scope};
}

Order SigningOrder(const package::Scope& scope) {
  return SignerOrder("Database package signing", "codeSigning", scope);
}

Order InfoOrder() {
  return SignerOrder("Database description signing",
                     std::string("critical,") + package::kDescriptionSigningOid, {});
}

std::string TextOf(BIO* bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

std::string KeyPem(EVP_PKEY* key) {
  const BioPtr bio = Checked(BioPtr(BIO_new(BIO_s_secmem())));
  CheckResult(PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr));
  return TextOf(bio.get());
}

using KeyInfoPtr =
    std::unique_ptr<PKCS8_PRIV_KEY_INFO, package::OpenSslDelete<PKCS8_PRIV_KEY_INFO_free>>;
using EncryptedKeyPtr = std::unique_ptr<X509_SIG, package::OpenSslDelete<X509_SIG_free>>;
using AlgorithmPtr = std::unique_ptr<X509_ALGOR, package::OpenSslDelete<X509_ALGOR_free>>;

std::string EncryptedKeyPem(EVP_PKEY* key, const std::string& passphrase) {
  const KeyInfoPtr info = Checked(KeyInfoPtr(EVP_PKEY2PKCS8(key)));
  AlgorithmPtr algorithm = Checked(AlgorithmPtr(PKCS5_pbe2_set_scrypt(
      EVP_aes_256_cbc(), nullptr, 0, nullptr, kScryptCost, kScryptBlocks, kScryptLanes)));
  const EncryptedKeyPtr encrypted = Checked(EncryptedKeyPtr(PKCS8_set0_pbe(
      passphrase.data(), static_cast<int>(passphrase.size()), info.get(), algorithm.get())));
  static_cast<void>(algorithm.release());  // It is the encrypted key's now.
  const BioPtr bio = Checked(BioPtr(BIO_new(BIO_s_mem())));
  CheckResult(PEM_write_bio_PKCS8(bio.get(), encrypted.get()));
  return TextOf(bio.get());
}

std::string CertificatePem(X509* certificate) {
  const BioPtr bio = Checked(BioPtr(BIO_new(BIO_s_mem())));
  CheckResult(PEM_write_bio_X509(bio.get(), certificate));
  return TextOf(bio.get());
}

// Files that appear in a directory together, or not at all.
class NewFiles {
 public:
  explicit NewFiles(const std::string& directory) : directory_(directory) {
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
      throw package::WriteError(directory, errno);
    }
    fd_ = Descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd_.IsOpen()) {
      throw package::WriteError(directory, errno);
    }
  }

  ~NewFiles() {
    for (const std::string& name : remove_) {
      ::unlinkat(fd_.Get(), name.c_str(), 0);
    }
  }
  NewFiles(const NewFiles&) = delete;
  NewFiles& operator=(const NewFiles&) = delete;

  void Prepare(const std::string& name, const std::string& content, mode_t mode) {
    const std::string temporary = "." + name + "." + std::to_string(::getpid());
    Descriptor file(
        ::openat(fd_.Get(), temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file.IsOpen()) {
      throw package::WriteError(Path(temporary), errno);
    }
    remove_.push_back(temporary);
    package::WriteAll(file.Get(), content.data(), content.size(), Path(name));
    if (::fchmod(file.Get(), mode) != 0 || ::fsync(file.Get()) != 0) {
      throw package::WriteError(Path(name), errno);
    }
    prepared_.emplace_back(temporary, name);
  }

  void PutInPlace() {
    for (const auto& [temporary, name] : prepared_) {
      if (::renameat2(fd_.Get(), temporary.c_str(), fd_.Get(), name.c_str(), RENAME_NOREPLACE) !=
          0) {
        throw package::WriteError(Path(name), errno);
      }
      remove_.push_back(name);
    }
    if (::fsync(fd_.Get()) != 0) {
      throw package::WriteError(directory_, errno);
    }
    remove_.clear();
  }

 private:
  std::string Path(const std::string& name) const { return directory_ + "/" + name; }

  std::string directory_;
  Descriptor fd_;
  std::vector<std::pair<std::string, std::string>> prepared_;  // temporary and final names
  std::vector<std::string> remove_;                            // on failure
};

// A key, and its certificate below the authority, under these names.
void PrepareSigner(NewFiles& files, const std::string& name, const Order& order, std::int64_t now,
                   std::int64_t seconds, const Authority& authority) {
  const KeyPtr key = NewKey();
  const X509Ptr certificate = NewCertificate(key.get(), order, now, seconds, &authority);
  files.Prepare(name + ".key", KeyPem(key.get()), 0600);
  files.Prepare(name + ".pem", CertificatePem(certificate.get()), 0644);
}

// The authority of a request, and for how many seconds it can sign something at most.
package::Signer LoadAuthority(const SigningKeyRequest& request, std::int64_t now,
                              std::int64_t& seconds) {
  package::Signer root = LoadSigner(request.root_key, request.root_path, request.passphrase);
  const auto refuse = [&request](const std::string& what) {
    throw package::Error(Code::kArgument, request.root_path + ": " + what);
  };
  if (X509_check_private_key(root.certificate.get(), root.key.get()) != 1) {
    refuse("the key " + request.root_key + " does not belong to this certificate");
  }
  if (X509_check_ca(root.certificate.get()) == 0) {
    refuse("no certificate of an authority");
  }
  const std::int64_t end = package::DetailsOf(root.certificate.get()).not_after;
  if (end <= now) {
    refuse("the authority's certificate has expired");
  }
  seconds = end - now;
  return root;
}

bool IsThere(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

}  // namespace

void GenerateKeys(const std::string& directory, std::int64_t now, const KeysOptions& options) {
  const package::OpenSslErrorScope errors;
  const KeyPtr root_key = NewKey();
  const X509Ptr root = NewCertificate(root_key.get(), RootOrder(), now, kRootSeconds, nullptr);
  const Authority authority{root.get(), root_key.get()};
  NewFiles files(directory);
  files.Prepare("root.key",
                options.passphrase.empty() ? KeyPem(root_key.get())
                                           : EncryptedKeyPem(root_key.get(), options.passphrase),
                0600);
  files.Prepare("root.pem", CertificatePem(root.get()), 0644);
  PrepareSigner(files, "signing", SigningOrder(options.scope), now, kSigningDays * kDaySeconds,
                authority);
  PrepareSigner(files, "info", InfoOrder(), now, kInfoDays * kDaySeconds, authority);
  files.PutInPlace();
}

void GenerateSigningKey(const SigningKeyRequest& request, std::int64_t now) {
  const package::OpenSslErrorScope errors;
  std::int64_t seconds = 0;
  const package::Signer root = LoadAuthority(request, now, seconds);
  NewFiles files(request.directory);
  PrepareSigner(files, "signing", SigningOrder(request.scope), now,
                std::min(request.days * kDaySeconds, seconds),
                {root.certificate.get(), root.key.get()});
  files.PutInPlace();
}

void GenerateInfoKey(const SigningKeyRequest& request, std::int64_t now) {
  const package::OpenSslErrorScope errors;
  std::int64_t seconds = 0;
  const package::Signer root = LoadAuthority(request, now, seconds);
  seconds = std::min(kInfoDays * kDaySeconds, seconds);
  const Authority authority{root.certificate.get(), root.key.get()};
  const std::string key_path = request.directory + "/info.key";
  NewFiles files(request.directory);
  if (IsThere(key_path) && !IsThere(request.directory + "/info.pem")) {
    const X509Ptr certificate =
        NewCertificate(LoadKey(key_path).get(), InfoOrder(), now, seconds, &authority);
    files.Prepare("info.pem", CertificatePem(certificate.get()), 0644);
  } else {
    PrepareSigner(files, "info", InfoOrder(), now, seconds, authority);
  }
  files.PutInPlace();
}

}  // namespace tolm::publish
