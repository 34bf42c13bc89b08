#include "vcdiff/error.h"

#include <system_error>

namespace tolm::vcdiff {

namespace {

std::string Where(const Place& place) {
  std::string text = *place.origin.file + ": offset ";
  if (place.origin.decompressed) {
    text += std::to_string(place.origin.offset) + ", decompressed byte " +
            std::to_string(place.position);
  } else {
    text += std::to_string(place.origin.offset + place.position);
  }
  return text + ": " + place.field + ": ";
}

[[noreturn]] void Throw(const Place& place, const std::string& text) {
  throw Error(ErrorKind::kBadInput, Where(place) + text);
}

}  // namespace

void ThrowAbove(const Place& place, std::uint64_t value, std::uint64_t limit) {
  Throw(place, "value " + std::to_string(value) + ", limit " + std::to_string(limit));
}

void ThrowUnequal(const Place& place, std::uint64_t value, std::uint64_t expected) {
  Throw(place, "value " + std::to_string(value) + ", expected " + std::to_string(expected));
}

void ThrowTruncated(const Place& place, std::uint64_t wanted, std::uint64_t left) {
  Throw(place,
        "truncated: " + std::to_string(wanted) + " bytes wanted, limit " + std::to_string(left));
}

void ThrowOverlong(const Place& place) {
  Throw(place, "integer of more than 64 bits or 10 bytes");
}

void ThrowRefused(const Place& place, std::uint64_t value, const char* what) {
  Throw(place, "value " + std::to_string(value) + " " + what);
}

void ThrowIo(const std::string& file, const char* tried, int error) {
  throw Error(ErrorKind::kIo,
              file + ": cannot " + tried + ": " + std::generic_category().message(error));
}

void ThrowUnusable(const std::string& file, const char* why) {
  throw Error(ErrorKind::kIo, file + ": " + why);
}

}  // namespace tolm::vcdiff
