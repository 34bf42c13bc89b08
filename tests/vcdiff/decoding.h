#ifndef TOLM_TESTS_VCDIFF_DECODING_H_
#define TOLM_TESTS_VCDIFF_DECODING_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vcdiff/decoder.h"
#include "vcdiff/input.h"
#include "vcdiff/output.h"

namespace tolm::vcdiff {

inline const std::uint8_t* Raw(const std::string& bytes) {
  return reinterpret_cast<const std::uint8_t*>(bytes.data());
}

/// Bytes in memory that have to be read, like those of a file that cannot be mapped.
class UnmappedInput : public MemoryInput {
 public:
  using MemoryInput::MemoryInput;
  const std::uint8_t* Map(std::uint64_t /*offset*/, std::uint64_t /*size*/) override {
    return nullptr;
  }
};

struct Outcome {
  std::optional<std::string> target;  ///< nothing: refused
  std::string error;
  std::optional<ErrorKind> kind;
};

template <class InputType>
Outcome DecodeFrom(const std::string& delta, const std::string& source, const Limits& limits) {
  // Buffers of the exact size: a read beyond the end is seen by the address sanitizer.
  const std::vector<std::uint8_t> delta_bytes(delta.begin(), delta.end());
  const std::vector<std::uint8_t> source_bytes(source.begin(), source.end());
  InputType delta_input("delta", delta_bytes.data(), delta_bytes.size());
  InputType source_input("source", source_bytes.data(), source_bytes.size());
  MemorySink target;
  try {
    Decode(delta_input, source_input, target, limits);
    return {std::string(target.Bytes().begin(), target.Bytes().end()), "", std::nullopt};
  } catch (const Error& error) {
    return {std::nullopt, error.what(), error.Kind()};
  }
}

/// Decodes with inputs that can be mapped and again with inputs that cannot; both must agree.
inline Outcome TryDecode(const std::string& delta, const std::string& source,
                         const Limits& limits = {}) {
  Outcome mapped = DecodeFrom<MemoryInput>(delta, source, limits);
  const Outcome read = DecodeFrom<UnmappedInput>(delta, source, limits);
  EXPECT_EQ(mapped.target == read.target, true) << "mapped and read inputs decode differently";
  EXPECT_EQ(mapped.error, read.error);
  return mapped;
}

/// The target of a delta that must be right.
inline std::string MustDecode(const std::string& delta, const std::string& source,
                              const Limits& limits = {}) {
  const Outcome outcome = TryDecode(delta, source, limits);
  EXPECT_EQ(outcome.error, "");
  return outcome.target.value_or("");
}

/// The message that a delta is refused with.
inline std::string Refusal(const std::string& delta, const std::string& source,
                           const Limits& limits = {}) {
  const Outcome outcome = TryDecode(delta, source, limits);
  EXPECT_FALSE(outcome.target.has_value()) << "it was decoded";
  EXPECT_TRUE(outcome.kind == ErrorKind::kBadInput) << outcome.error;
  return outcome.error;
}

}  // namespace tolm::vcdiff

#endif  // TOLM_TESTS_VCDIFF_DECODING_H_
