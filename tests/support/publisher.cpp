#include "tests/support/publisher.h"

#include <json/json.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/child_process.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;

constexpr char kPublic[] = "/tmp/publisher/public";

void MustRun(const std::vector<std::string>& arguments) {
  const CommandResult result = RunCommand(arguments);
  if (result.exit_status != 0) {
    throw std::runtime_error(arguments.front() + " failed: " + result.err);
  }
}

std::string Link(HttpServer& server, const fs::path& package) {
  return server.Url(Publisher::PathOf(package));
}

// The directory that the server is to serve, made before it starts.
fs::path MakePublic() {
  fs::create_directories(kPublic);
  return kPublic;
}

}  // namespace

Publisher::Publisher() : server_(MakePublic()) {
  MustRun({"/usr/bin/tolmdbpub", "keygen", Keys(), "--no-passphrase"});
}

void Publisher::PackPayload(const std::string& payload, const fs::path& package) {
  const fs::path work = "/tmp/publisher/work";
  WriteFile(work / "payload", payload);
  MustRun({"openssl", "cms", "-sign", "-binary", "-md", "sha256", "-in", work / "payload",
           "-signer", Keys() / "signing.pem", "-inkey", Keys() / "signing.key", "-outform", "DER",
           "-out", work / "signature"});
  const std::string signature = ReadFile(work / "signature");
  std::string length;
  for (int shift = 56; shift >= 0; shift -= 8) {
    length += static_cast<char>(signature.size() >> shift & 0xff);
  }
  WriteFile(package, payload + signature + length + "TOLMPKG1");
}

fs::path Publisher::FullPackage(const std::string& name, int version) const {
  return fs::path(kPublic) / "packages" / (name + "_v" + std::to_string(version));
}

fs::path Publisher::DeltaPackage(const std::string& name, int version) const {
  return fs::path(kPublic) / "packages" / (name + "_d" + std::to_string(version));
}

std::string Publisher::PathOf(const fs::path& package) {
  return "/" + fs::relative(package, kPublic).string();
}

void Publisher::PackFull(const std::string& name, int version, const Tree& files) {
  Pack(name, "full", version, files, FullPackage(name, version));
}

void Publisher::PackDelta(const std::string& name, int version, const std::string& patch_infos,
                          const Tree& inputs) {
  Tree files = inputs;
  files["patch_infos.json"] = patch_infos;
  Pack(name, "delta", version, files, DeltaPackage(name, version));
}

void Publisher::Pack(const std::string& name, const std::string& kind, int version,
                     const Tree& files, const fs::path& package) {
  const fs::path tree = "/tmp/publisher/tree";
  fs::remove_all(tree);
  MakeTree(tree, files);
  fs::create_directories(package.parent_path());
  MustRun({"/usr/bin/tolmdbpub", "pack", tree, package, "--name", name, "--kind", kind, "--version",
           std::to_string(version), "--key", Keys() / "signing.key", "--cert",
           Keys() / "signing.pem", "--compression", compression_});
}

void Publisher::Offer(const std::string& name, int version, const std::vector<int>& deltas) {
  Json::Value record;
  record["data_version"] = std::to_string(version);
  record["last_fetch_time"] = 1700000000;
  record["download_link"] = Link(server_, FullPackage(name, version));
  record["diff_files"] = Json::Value(Json::objectValue);
  for (const int delta : deltas) {
    Json::Value& entry = record["diff_files"][std::to_string(delta)];
    entry["download_link"] = Link(server_, DeltaPackage(name, delta));
    entry["file_size"] = static_cast<Json::Int>(fs::file_size(DeltaPackage(name, delta)));
  }
  records_[name] = record.toStyledString();
  std::string body;
  for (const auto& [database, text] : records_) {
    body += (body.empty() ? "" : ", ") + Json::valueToQuotedString(database.c_str()) + ": " + text;
  }
  server_.SetBody("/database_info/1", R"({"deprecated": false, "db_list": {)" + body + "}}");
  fs::remove("/var/cache/data_update/database_info.json");
}

void ConfigureDevice(Publisher& publisher, const std::map<std::string, std::string>& databases,
                     const std::string& volume) {
  Json::Value service;
  service["config"]["download_scheme"] = "http";
  service["config"]["db_netloc"] = "127.0.0.1:" + std::to_string(publisher.Server().Port());
  service["config"]["db_ver"] = "1";
  service["config"]["cur_volume"] = volume;
  WriteFile("/usr/share/data_update/data_update.conf", service.toStyledString());
  Json::Value sections(Json::objectValue);
  for (const auto& [name, destination] : databases) {
    sections[name]["format_version"] = "1";
    sections[name]["install_dest"] = destination;
  }
  WriteFile("/usr/share/data_update/databases.conf", sections.toStyledString());
  fs::create_directories("/usr/tolm/etc/keyring");
  fs::copy_file(publisher.Keys() / "root.pem", "/usr/tolm/etc/keyring/6.pem",
                fs::copy_options::overwrite_existing);
}

std::string LastMessage() {
  std::ifstream in("/var/lib/data_update/history.jsonl");
  Json::Value newest;
  for (std::string line; std::getline(in, line);) {
    std::istringstream(line) >> newest;
  }
  return newest["message"].asString();
}

std::string InstalledVersion(const std::string& name) {
  std::ifstream in("/var/lib/data_update/" + name + "/version.json");
  Json::Value value;
  std::string errors;
  if (!in || !Json::parseFromStream(Json::CharReaderBuilder(), in, &value, &errors)) {
    return {};
  }
  return value["data_version"].asString();
}

}  // namespace tolm::testing
