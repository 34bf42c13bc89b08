#include "package/scope.h"

#include <openssl/asn1.h>
#include <openssl/objects.h>

#include <algorithm>
#include <iterator>

#include "package/error.h"
#include "package/seal.h"

namespace tolm::package {
namespace {

using ObjectPtr = std::unique_ptr<ASN1_OBJECT, OpenSslDelete<ASN1_OBJECT_free>>;
using OctetsPtr = std::unique_ptr<ASN1_OCTET_STRING, OpenSslDelete<ASN1_OCTET_STRING_free>>;

struct SequenceDelete {
  void operator()(ASN1_SEQUENCE_ANY* sequence) const noexcept {
    sk_ASN1_TYPE_pop_free(sequence, ASN1_TYPE_free);
  }
};
using SequencePtr = std::unique_ptr<ASN1_SEQUENCE_ANY, SequenceDelete>;
using TypePtr = std::unique_ptr<ASN1_TYPE, OpenSslDelete<ASN1_TYPE_free>>;

[[noreturn]] void Refuse() {
  throw Error(Code::kWrongUsage, "the databases that a certificate is limited to cannot be read");
}

ObjectPtr ScopeObject() {
  return Checked(ObjectPtr(OBJ_txt2obj(kScopeOid, 1)));
}

SequencePtr SequenceOf(const std::set<std::string>& names) {
  SequencePtr sequence = Checked(SequencePtr(sk_ASN1_TYPE_new_null()));
  for (const std::string& name : names) {
    if (const std::string problem = NameProblem(name); !problem.empty()) {
      throw Error(Code::kArgument, "\"" + name + "\": " + problem);
    }
    TypePtr element = Checked(TypePtr(ASN1_TYPE_new()));
    ASN1_STRING* text = ASN1_UTF8STRING_new();
    ASN1_TYPE_set(element.get(), V_ASN1_UTF8STRING, text);
    CheckResult(ASN1_STRING_set(text, name.data(), static_cast<int>(name.size())));
    CheckResult(sk_ASN1_TYPE_push(sequence.get(), element.get()));
    element.release();
  }
  return sequence;
}

std::string Encoded(const ASN1_SEQUENCE_ANY* sequence) {
  unsigned char* der = nullptr;
  const int size = i2d_ASN1_SEQUENCE_ANY(sequence, &der);
  CheckResult(size);
  std::string encoded(reinterpret_cast<const char*>(der), static_cast<std::size_t>(size));
  OPENSSL_free(der);
  return encoded;
}

std::string NameIn(const ASN1_TYPE* element) {
  if (ASN1_TYPE_get(element) != V_ASN1_UTF8STRING) {
    Refuse();
  }
  const ASN1_STRING* text = element->value.utf8string;
  std::string name(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                   static_cast<std::size_t>(ASN1_STRING_length(text)));
  if (!NameProblem(name).empty()) {
    Refuse();
  }
  return name;
}

}  // namespace

X509ExtensionPtr NewScopeExtension(const std::set<std::string>& names) {
  if (names.empty()) {
    throw Error(Code::kArgument, "a certificate for no database at all signs nothing");
  }
  const std::string der = Encoded(SequenceOf(names).get());
  const OctetsPtr octets = Checked(OctetsPtr(ASN1_OCTET_STRING_new()));
  CheckResult(ASN1_OCTET_STRING_set(octets.get(),
                                    reinterpret_cast<const unsigned char*>(der.data()),
                                    static_cast<int>(der.size())));
  return Checked(X509ExtensionPtr(
      X509_EXTENSION_create_by_OBJ(nullptr, ScopeObject().get(), 0, octets.get())));
}

Scope ScopeOf(const X509* certificate) {
  const ObjectPtr object = ScopeObject();
  const int at = X509_get_ext_by_OBJ(certificate, object.get(), -1);
  if (at < 0) {
    return std::nullopt;
  }
  if (X509_get_ext_by_OBJ(certificate, object.get(), at) >= 0) {
    Refuse();
  }
  const ASN1_OCTET_STRING* octets = X509_EXTENSION_get_data(X509_get_ext(certificate, at));
  const unsigned char* position = ASN1_STRING_get0_data(octets);
  const unsigned char* end = position + ASN1_STRING_length(octets);
  const SequencePtr sequence(d2i_ASN1_SEQUENCE_ANY(nullptr, &position, ASN1_STRING_length(octets)));
  if (!sequence || position != end) {
    Refuse();
  }
  std::set<std::string> names;
  for (int i = 0; i < sk_ASN1_TYPE_num(sequence.get()); ++i) {
    names.insert(NameIn(sk_ASN1_TYPE_value(sequence.get(), i)));
  }
  return names;
}

Scope Narrowed(const Scope& one, const Scope& other) {
  if (!one || !other) {
    return one ? one : other;
  }
  std::set<std::string> both;
  std::set_intersection(one->begin(), one->end(), other->begin(), other->end(),
                        std::inserter(both, both.end()));
  return both;
}

bool IsWithin(const Scope& scope, const std::string& name) {
  return !scope || scope->count(name) != 0;
}

std::string ScopeText(const std::set<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text.empty() ? "no database" : text;
}

}  // namespace tolm::package
