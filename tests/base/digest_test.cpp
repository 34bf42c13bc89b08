#include "base/digest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace tolm::testing {
namespace {

using base::Sha384;

TEST(Sha384Test, IsTheDigestOfTheStandardsExamples) {
  EXPECT_EQ(Sha384().Hex(),
            "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da"
            "274edebfe76f65fbd51ad2f14898b95b");
  Sha384 digest;
  digest.Add("abc", 3);
  EXPECT_EQ(digest.Hex(),
            "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed"
            "8086072ba1e7cc2358baeca134c825a7");
}

TEST(Sha384Test, DoesNotDependOnThePieces) {
  const std::string text(100000, 'x');
  Sha384 whole;
  whole.Add(text.data(), text.size());
  Sha384 pieces;
  for (std::size_t at = 0; at < text.size(); at += 37) {
    pieces.Add(text.data() + at, std::min<std::size_t>(37, text.size() - at));
  }
  EXPECT_EQ(pieces.Hex(), whole.Hex());
}

}  // namespace
}  // namespace tolm::testing
