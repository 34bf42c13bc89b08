#include "package/layout.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "base/descriptor.h"
#include "tests/package/expect_code.h"
#include "tests/support/files.h"
#include "tests/support/temporary_directory.h"

namespace tolm::testing {
namespace {

using package::Code;
using package::Layout;

class LayoutTest : public ::testing::Test {
 protected:
  base::Descriptor Open(const std::string& content) {
    const auto path = directory_.Path() / "file";
    WriteFile(path, content);
    return base::Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  Layout Read(const std::string& content) {
    return package::ReadLayout(Open(content).Get(), content.size());
  }

  TemporaryDirectory directory_;
};

TEST_F(LayoutTest, TrailerIsBigEndianLengthAndMagic) {
  EXPECT_EQ(package::FormatTrailer(0x0102), std::string("\0\0\0\0\0\0\x01\x02TOLMPKG1", 16));
  if constexpr (sizeof(std::size_t) == 8) {
    EXPECT_EQ(package::FormatTrailer(0x0102030405060708),
              "\x01\x02\x03\x04\x05\x06\x07\x08TOLMPKG1");
  }
}

TEST_F(LayoutTest, PartsAreFoundFromTheEnd) {
  const std::string content = "payload" + std::string("sig") + package::FormatTrailer(3);
  const base::Descriptor file = Open(content);
  const Layout layout = package::ReadLayout(file.Get(), content.size());
  EXPECT_EQ(layout.payload_bytes, 7U);
  EXPECT_EQ(layout.signature_bytes, 3U);
  EXPECT_EQ(package::ReadSignature(file.Get(), layout), "sig");
}

TEST_F(LayoutTest, SignatureLengthIsBounded) {
  const std::string room(70000, 'x');
  EXPECT_EQ(Read(room + package::FormatTrailer(65536)).signature_bytes, 65536U);
  EXPECT_EQ(CodeOf([&] { Read(room + package::FormatTrailer(65537)); }), Code::kSignatureSize);
  EXPECT_EQ(CodeOf([&] { Read(room + package::FormatTrailer(0)); }), Code::kSignatureSize);
  EXPECT_EQ(CodeOf([&] { Read(room + std::string(8, '\xff') + "TOLMPKG1"); }),
            Code::kSignatureSize);
  for (std::size_t i = 0; i < 5; ++i) {
    std::string trailer = package::FormatTrailer(3);
    trailer[i] = 1;
    EXPECT_EQ(CodeOf([&] { Read(room + trailer); }), Code::kSignatureSize) << i;
  }
}

TEST_F(LayoutTest, ThereMustBeAPayload) {
  EXPECT_EQ(Read("xabc" + package::FormatTrailer(3)).payload_bytes, 1U);
  EXPECT_EQ(CodeOf([&] { Read("abc" + package::FormatTrailer(3)); }), Code::kSignatureSize);
  EXPECT_EQ(CodeOf([&] { Read("ab" + package::FormatTrailer(3)); }), Code::kSignatureSize);
  EXPECT_EQ(CodeOf([&] { Read(package::FormatTrailer(3)); }), Code::kSignatureSize);
}

TEST_F(LayoutTest, OtherFilesAreNoPackages) {
  for (const std::string& content :
       {std::string(), std::string("x"), std::string(15, 'x'), std::string(100, '\0'),
        "payload" + std::string("sig") + package::FormatTrailer(3) + "x",
        std::string("xabc\0\0\0\0\0\0\0\x03TOLMPKG2", 20)}) {
    EXPECT_EQ(CodeOf([&] { Read(content); }), Code::kNotAPackage) << content.size();
  }
}

TEST_F(LayoutTest, FileThatBecameShorterIsTold) {
  const base::Descriptor file = Open("short");
  EXPECT_EQ(CodeOf([&] { package::ReadLayout(file.Get(), 100); }), Code::kChanged);
  EXPECT_EQ(CodeOf([&] { package::ReadSignature(file.Get(), {3, 3}); }), Code::kChanged);
}

}  // namespace
}  // namespace tolm::testing
