#include "publish/inspect.h"

#include <iomanip>
#include <ostream>
#include <sstream>

#include "base/utf8.h"
#include "package/error.h"
#include "package/package.h"

namespace tolm::publish {
namespace {

using base::EscapeControls;
using package::Member;
using package::MemberType;
using package::Package;

void PrintField(std::ostream& out, const char* label, const std::string& value) {
  out << std::left << std::setw(12) << label << EscapeControls(value) << '\n';
}

const char* TypeText(MemberType type) {
  switch (type) {
    case MemberType::kFile:
      return "file";
    case MemberType::kDirectory:
      return "dir";
    case MemberType::kSymbolicLink:
      return "symlink";
    case MemberType::kHardLink:
      return "hardlink";
  }
  return "";
}

std::string TargetText(const Member& member) {
  switch (member.type) {
    case MemberType::kSymbolicLink:
      return " -> " + member.target;
    case MemberType::kHardLink:
      return " = " + package::JoinMemberPath(member.linked_to);
    default:
      return "";
  }
}

void PrintMember(std::ostream& out, const Member& member) {
  std::ostringstream mode;
  mode << std::oct << std::setw(4) << std::setfill('0') << member.mode;
  out << "  " << std::left << std::setw(9) << TypeText(member.type) << mode.str() << std::right
      << std::setw(15) << member.size_bytes << "  "
      << EscapeControls(member.name + TargetText(member)) << '\n';
}

void PrintSigner(std::ostream& out, const Package& package, bool verified) {
  const package::SignerDetails signer = package.ReadSigner();
  PrintField(out, "signer", signer.subject);
  PrintField(out, "valid", signer.not_before + " to " + signer.not_after);
  PrintField(out, "signature",
             verified ? "verified against the keyring"
                      : "NOT CHECKED against a trusted root (--keyring checks it)");
}

void PrintPackage(const Package& package, bool verified, std::ostream& out) {
  const package::Seal seal = package.ReadSeal();
  PrintField(out, "name", seal.name);
  PrintField(out, "kind", KindText(seal.kind));
  PrintField(out, "version", std::to_string(seal.version));
  PrintField(out, "payload", std::to_string(package.layout().payload_bytes) + " bytes");
  PrintField(out, "compression", CompressionText(package.ReadCompression()));
  PrintSigner(out, package, verified);
  out << "members (type, mode, bytes, name)\n";
  package.ForEachMember([&out](const Member& member) { PrintMember(out, member); });
}

}  // namespace

void Inspect(const InspectRequest& request, std::int64_t now, std::ostream& out) {
  try {
    const Package package(request.package_path);
    const bool verify = !request.keyring_path.empty();
    if (verify) {
      package.Verify(package::Trust::Load(request.keyring_path, request.revocations_path), now);
    }
    PrintPackage(package, verify, out);
    package.CheckName();
  } catch (const package::Error& error) {
    throw package::Error(error.code(), "inspect " + request.package_path + ": " + error.what(),
                         error.errno_value());
  }
}

std::string CompressionOfPackage(const std::string& path) {
  try {
    return CompressionText(Package(path).ReadCompression());
  } catch (const package::Error&) {
    return "";
  }
}

}  // namespace tolm::publish
