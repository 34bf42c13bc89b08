#ifndef TOLM_SUPPORT_SANITIZED_H_
#define TOLM_SUPPORT_SANITIZED_H_

#if defined(__has_feature)
#define TOLM_HAS_FEATURE(name) __has_feature(name)
#else
#define TOLM_HAS_FEATURE(name) 0
#endif

namespace tolm::testing {

/// Whether everything was built with a sanitizer that makes programs much larger and slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    TOLM_HAS_FEATURE(address_sanitizer) || TOLM_HAS_FEATURE(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace tolm::testing

#undef TOLM_HAS_FEATURE

#endif  // TOLM_SUPPORT_SANITIZED_H_
