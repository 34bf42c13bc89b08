#ifndef TOLM_PLATFORM_OUTPUT_TAIL_H_
#define TOLM_PLATFORM_OUTPUT_TAIL_H_

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace tolm::platform {

// The end of what a program wrote, in bounded memory: at most kMaxBytes bytes are kept, whatever
// comes in.
class OutputTail {
 public:
  static constexpr std::size_t kMaxBytes = 4096;
  static constexpr std::size_t kMaxLines = 20;

  // Never allocates and never fails.
  void Append(const char* data, std::size_t size);

  // The last lines, oldest first, without line ends and without empty lines. Lines end with "\n" or
  // "\r". Control characters are shown as "?". A line whose beginning is lost is left out, unless
  // it is the only one.
  std::vector<std::string> Lines() const;

 private:
  std::array<char, kMaxBytes> bytes_{};
  std::size_t size_ = 0;
  bool cut_ = false;
};

}  // namespace tolm::platform

#endif  // TOLM_PLATFORM_OUTPUT_TAIL_H_
