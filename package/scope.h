#ifndef TOLM_PACKAGE_SCOPE_H_
#define TOLM_PACKAGE_SCOPE_H_

#include <optional>
#include <set>
#include <string>

#include "package/openssl.h"

namespace tolm::package {

/// Object identifiers of this system, in an arc of its own: a UUID below 2.25 (ITU-T X.667).
/// An extended key usage (RFC 5280, 4.2.1.12): the key signs descriptions of what is offered.
inline constexpr char kDescriptionSigningOid[] = "2.25.259248813442365212614999571967697906837.1";
/// A certificate's extension: SEQUENCE OF UTF8String, the databases that it may sign for.
inline constexpr char kScopeOid[] = "2.25.259248813442365212614999571967697906837.2";

/// The names of the databases for which somebody may sign; nothing stands for all.
using Scope = std::optional<std::set<std::string>>;

using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, OpenSslDelete<X509_EXTENSION_free>>;

/// The extension that limits a certificate, and all below it, to these databases; not critical: to
/// programs that do not know it the certificate is an ordinary one. Throws Error(kArgument) for no
/// names and for a name that no seal can have.
X509ExtensionPtr NewScopeExtension(const std::set<std::string>& names);

/// To what the certificate is limited. Throws Error(kWrongUsage) when the extension is there and is
/// none, or is there twice.
Scope ScopeOf(const X509* certificate);

/// What is left of both.
Scope Narrowed(const Scope& one, const Scope& other);

bool IsWithin(const Scope& scope, const std::string& name);

/// "vendors, geo" for a message.
std::string ScopeText(const std::set<std::string>& names);

}  // namespace tolm::package

#endif  // TOLM_PACKAGE_SCOPE_H_
