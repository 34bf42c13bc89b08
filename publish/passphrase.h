#ifndef TOLM_PUBLISH_PASSPHRASE_H_
#define TOLM_PUBLISH_PASSPHRASE_H_

#include <string>

namespace tolm::publish {

/// Whether somebody can be asked: this process has a terminal.
bool HasTerminal();

/// Asks on the terminal, twice, what is to encrypt this key from now on; nothing is shown. Throws
/// Error when the answers differ or are empty.
std::string AskNewPassphrase(const std::string& key);

/// The first line of the file, of standard input for "-". Throws Error when it is empty or too
/// long, package::Error when it cannot be read.
std::string ReadPassphrase(const std::string& file);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_PASSPHRASE_H_
