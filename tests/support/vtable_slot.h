#ifndef TOLM_SUPPORT_VTABLE_SLOT_H_
#define TOLM_SUPPORT_VTABLE_SLOT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace tolm::testing {

/// The slot of a virtual operation in its class's table, counted from 0; a virtual destructor has
/// two slots. Programs that were compiled against an older header call by slot, so the order of
/// virtual operations must not change. Throws std::logic_error for an operation that is not
/// virtual.
///
///   EXPECT_EQ(VtableSlot(&Shape::Draw), 2U);
template <typename Operation>
std::size_t VtableSlot(Operation operation) {
  static_assert(std::is_member_function_pointer_v<Operation>);
  // The form that the Itanium C++ ABI gives a pointer to a member function.
  struct {
    std::uintptr_t pointer;
    std::uintptr_t adjustment;
  } parts;
  static_assert(sizeof parts == sizeof operation);
  std::memcpy(&parts, &operation, sizeof parts);
#if defined(__arm__) || defined(__aarch64__)
  // ARM code may stand at odd addresses, so the mark is in the other word there.
  const bool is_virtual = (parts.adjustment & 1) != 0;
  const std::uintptr_t offset = parts.pointer;
#else
  const bool is_virtual = (parts.pointer & 1) != 0;
  const std::uintptr_t offset = parts.pointer - 1;
#endif
  if (!is_virtual) {
    throw std::logic_error("the operation is not virtual");
  }
  return offset / sizeof(void*);
}

}  // namespace tolm::testing

#endif  // TOLM_SUPPORT_VTABLE_SLOT_H_
