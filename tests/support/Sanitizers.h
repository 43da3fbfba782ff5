// Whether this build watches itself: a test with many rounds then makes do with fewer, and one that
// stands before the allocator is left out.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define STAGENFS_SANITIZED
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define STAGENFS_SANITIZED
#endif
#endif

#ifdef STAGENFS_SANITIZED
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif
