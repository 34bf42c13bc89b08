// A target for libFuzzer. The first two bytes are the length of the source (most significant
// first), then come the source and the delta. Whatever the bytes are: no crash, no access beyond
// what is there, and mapped and read inputs decode alike.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <vector>

#include "tests/support/fuzzing.h"
#include "vcdiff/decoder.h"
#include "vcdiff/info.h"

namespace {

using tolm::testing::Expect;
using tolm::vcdiff::Error;
using tolm::vcdiff::Limits;
using tolm::vcdiff::MemoryInput;
using tolm::vcdiff::MemorySink;

class UnmappedInput : public MemoryInput {
 public:
  using MemoryInput::MemoryInput;
  const std::uint8_t* Map(std::uint64_t /*offset*/, std::uint64_t /*size*/) override {
    return nullptr;
  }
};

Limits SmallLimits() {
  Limits limits;
  limits.max_window_bytes = 256U << 10;
  limits.max_target_bytes = 1U << 20;
  limits.max_lzma_bytes = 16U << 20;
  return limits;
}

using Bytes = std::vector<std::uint8_t>;

template <class InputType>
std::optional<Bytes> Decoded(const Bytes& delta, const Bytes& source) {
  InputType delta_input("delta", delta.data(), delta.size());
  InputType source_input("source", source.data(), source.size());
  MemorySink target;
  try {
    Decode(delta_input, source_input, target, SmallLimits());
  } catch (const Error&) {
    return std::nullopt;
  }
  return target.Bytes();
}

bool IsDescribed(const Bytes& delta) {
  MemoryInput input("delta", delta.data(), delta.size());
  try {
    const tolm::vcdiff::Info info = Inspect(input, SmallLimits());
    return !ToText(info).empty() && !ToJson(info).empty();
  } catch (const Error&) {
    return false;
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const std::size_t source_size =
      std::min<std::size_t>(static_cast<std::size_t>(data[0]) << 8 | data[1], size - 2);
  // Copies of their own: an access beyond either is seen.
  const Bytes source(data + 2, data + 2 + source_size);
  const Bytes delta(data + 2 + source_size, data + size);
  const std::optional<Bytes> mapped = Decoded<MemoryInput>(delta, source);
  Expect(mapped == Decoded<UnmappedInput>(delta, source));
  // What can be decoded can be described without the source.
  Expect(IsDescribed(delta) || !mapped);
  return 0;
}
