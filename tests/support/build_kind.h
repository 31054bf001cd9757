// What kind of build the tests run in: sanitized builds keep freed memory in
// quarantine and shadow every byte, so a process's resident size says
// nothing there, and the tests that bound it bound it in other builds only.
#ifndef ORV_TESTS_SUPPORT_BUILD_KIND_H
#define ORV_TESTS_SUPPORT_BUILD_KIND_H

namespace orv::test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kResidentSizeMeaningful = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kResidentSizeMeaningful = false;
#else
inline constexpr bool kResidentSizeMeaningful = true;
#endif
#else
inline constexpr bool kResidentSizeMeaningful = true;
#endif

}  // namespace orv::test

#endif  // ORV_TESTS_SUPPORT_BUILD_KIND_H
