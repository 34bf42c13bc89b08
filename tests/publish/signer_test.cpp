#include "publish/signer.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>

#include "publish/key_generator.h"
#include "tests/package/authority.h"
#include "tests/package/expect_code.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

namespace fs = std::filesystem;
using package::Code;
using package::Signer;

class SignerTest : public ::testing::Test {
 protected:
  SignerTest() {
    const Signer signer = root_.NewSigner();
    WriteFile(Path("key"), PemOf(signer.key.get()));
    WriteFile(Path("cert"), PemOf(signer.certificate.get()));
  }
  std::string Path(const std::string& name) const { return directory_.Path() / name; }

  static bool Belong(const Signer& signer) {
    return X509_check_private_key(signer.certificate.get(), signer.key.get()) == 1;
  }

  TemporaryDirectory directory_;
  Authority root_;
};

TEST_F(SignerTest, KeyFilesAndUrisAreLoaded) {
  EXPECT_TRUE(Belong(publish::LoadSigner(Path("key"), Path("cert"))));
  EXPECT_TRUE(Belong(publish::LoadSigner("file:" + Path("key"), Path("cert"))));
}

TEST_F(SignerTest, OtherKeyFormsAreLoaded) {
  const CommandResult der =
      RunCommand({"openssl", "pkey", "-in", Path("key"), "-outform", "DER", "-out", Path("der")});
  ASSERT_EQ(der.exit_status, 0) << der.err;
  EXPECT_TRUE(Belong(publish::LoadSigner(Path("der"), Path("cert"))));
  const CommandResult old = RunCommand({"openssl", "ec", "-in", Path("key"), "-out", Path("ec")});
  ASSERT_EQ(old.exit_status, 0) << old.err;
  EXPECT_TRUE(Belong(publish::LoadSigner(Path("ec"), Path("cert"))));
}

TEST_F(SignerTest, FirstCertificateIsTheSignersAndTheRestItsChain) {
  const Authority between = root_.NewAuthorityBelow();
  WriteFile(Path("chain"), ReadFile(Path("cert")) + between.Pem() + root_.Pem());
  const Signer signer = publish::LoadSigner(Path("key"), Path("chain"));
  EXPECT_TRUE(Belong(signer));
  ASSERT_EQ(signer.chain.size(), 2U);
  EXPECT_EQ(X509_cmp(signer.chain[0].get(), between.certificate()), 0);
}

TEST_F(SignerTest, WhatIsMissingOrUnfitIsNamed) {
  struct Row {
    std::string key;
    std::string certificate;
    Code code;
    std::string named;
  };
  WriteFile(Path("text"), "no key\n");
  const Row rows[] = {{Path("none"), Path("cert"), Code::kArgument, Path("none")},
                      {Path("text"), Path("cert"), Code::kArgument, Path("text")},
                      {Path("cert"), Path("cert"), Code::kArgument, Path("cert")},
                      {"nothing:such", Path("cert"), Code::kArgument, "nothing:such"},
                      {Path("key"), Path("none"), Code::kKeyring, Path("none")},
                      {Path("key"), Path("text"), Code::kKeyring, Path("text")},
                      {Path("key"), Path("key"), Code::kKeyring, Path("key")}};
  for (const Row& row : rows) {
    try {
      publish::LoadSigner(row.key, row.certificate);
      ADD_FAILURE() << "loaded " << row.named;
    } catch (const package::Error& error) {
      EXPECT_EQ(error.code(), row.code) << row.named;
      EXPECT_NE(std::string(error.what()).find(row.named), std::string::npos) << error.what();
      EXPECT_EQ(std::string(error.what()).find("unknown"), std::string::npos) << error.what();
    }
  }
}

TEST_F(SignerTest, FileWithoutAKeySaysNothingOfPassPhrases) {
  WriteFile(Path("text"), "no key\n");
  for (const char* name : {"text", "cert"}) {
    try {
      publish::LoadKey(Path(name));
      ADD_FAILURE() << "loaded";
    } catch (const package::Error& error) {
      EXPECT_EQ(error.what(), "key " + Path(name) + ": no private key in it");
    }
  }
}

TEST_F(SignerTest, PassPhraseHasAsManyBytesAsOpensslTakes) {
  publish::KeysOptions options;
  options.passphrase = std::string(1024, 'x');
  publish::GenerateKeys(Path("keys"), std::time(nullptr), options);
  EXPECT_NE(publish::LoadKey(Path("keys/root.key"), options.passphrase), nullptr);
  EXPECT_EQ(CodeOf([&] { publish::LoadKey(Path("keys/root.key"), options.passphrase + 'x'); }),
            Code::kArgument);
}

TEST_F(SignerTest, KeyThatAPassPhraseDoesNotOpenIsNotPassedOver) {
  const CommandResult encrypted =
      RunCommand({"openssl", "pkcs8", "-topk8", "-in", Path("key"), "-passout", "pass:right",
                  "-iter", "1", "-out", Path("encrypted")});
  ASSERT_EQ(encrypted.exit_status, 0) << encrypted.err;
  const std::string both = Path("both");
  WriteFile(both, ReadFile(Path("encrypted")) + PemOf(root_.NewSigner().key.get()));
  try {
    publish::LoadKey(both, "wrong");
    ADD_FAILURE() << "another key was taken";
  } catch (const package::Error& error) {
    EXPECT_EQ(error.code(), Code::kArgument);
    EXPECT_EQ(error.what(), "key " + both + ": no private key in it that this pass phrase opens");
  }
  EXPECT_TRUE(Belong(publish::LoadSigner(both, Path("cert"), "right")));
  // What is no key may come first.
  WriteFile(both, ReadFile(Path("cert")) + ReadFile(Path("key")));
  EXPECT_TRUE(Belong(publish::LoadSigner(both, Path("cert"))));
}

}  // namespace
}  // namespace tolm::testing
