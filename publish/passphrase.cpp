#include "publish/passphrase.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/ui.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <iostream>

#include "base/descriptor.h"
#include "package/error.h"
#include "package/openssl.h"
#include "publish/error.h"

namespace tolm::publish {
namespace {

constexpr char kTerminal[] = "/dev/tty";
constexpr std::size_t kMaxBytes = 1000;  // what OpenSSL's own commands take

}  // namespace

bool HasTerminal() {
  return base::Descriptor(::open(kTerminal, O_RDWR | O_CLOEXEC | O_NOCTTY)).IsOpen();
}

std::string AskNewPassphrase(const std::string& key) {
  const package::OpenSslErrorScope errors;
  std::array<char, kMaxBytes + 1> answer{};
  const std::string prompt = "Pass phrase that encrypts " + key + ": ";
  const int result = UI_UTIL_read_pw_string(answer.data(), kMaxBytes, prompt.c_str(), 1);
  const std::string passphrase = answer.data();
  OPENSSL_cleanse(answer.data(), answer.size());
  if (result != 0) {
    throw Error(key + ": no pass phrase was given twice in the same way; nothing was made");
  }
  if (passphrase.empty()) {
    throw Error(key + ": an empty pass phrase encrypts nothing; nothing was made");
  }
  return passphrase;
}

std::string ReadPassphrase(const std::string& file) {
  std::ifstream opened;
  if (file != "-") {
    opened.open(file);
    if (!opened) {
      throw package::SystemError(package::Code::kRead, file, errno);
    }
  }
  std::string line;
  std::getline(file == "-" ? std::cin : opened, line);
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  if (line.empty() || line.size() > kMaxBytes) {
    throw Error(file + ": its first line is no pass phrase of 1 to " + std::to_string(kMaxBytes) +
                " bytes");
  }
  return line;
}

}  // namespace tolm::publish
