#ifndef TOLM_TESTS_SUPPORT_FUZZING_H_
#define TOLM_TESTS_SUPPORT_FUZZING_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

/// What each target for libFuzzer defines.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace tolm::testing {

/// What must hold whatever the bytes are.
inline void Expect(bool holds) {
  if (!holds) {
    std::abort();
  }
}

/// With the directories above it.
inline void Put(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string Get(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

/// The first byte of an input says what the rest is.
struct FuzzInput {
  char kind = 0;
  std::string rest;
};

inline FuzzInput ToInput(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? FuzzInput{}
                   : FuzzInput{static_cast<char>(data[0]),
                               std::string(reinterpret_cast<const char*>(data) + 1, size - 1)};
}

}  // namespace tolm::testing

#endif  // TOLM_TESTS_SUPPORT_FUZZING_H_
