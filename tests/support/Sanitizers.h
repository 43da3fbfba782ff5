// Whether this build watches itself: a test with many rounds then makes do with fewer.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif
#else
constexpr bool IS_SANITIZED = false;
#endif
