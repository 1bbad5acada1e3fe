#ifndef SLOW_H
#define SLOW_H

/// Defined under a sanitizer, where everything takes about ten times as long. g++ and clang++ tell it differently.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define UDT_TESTS_SLOW
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define UDT_TESTS_SLOW
#endif
#endif

#endif // SLOW_H
