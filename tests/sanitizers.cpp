/// What the sanitizers are told in every program of a sanitizer's build; the environment (ASAN_OPTIONS …) comes after.
/// A finding ends the program with its own status, so that a test which expects a clean end fails.
/// The suppressions name code of libraries only, one "KIND:FUNCTION OR LIBRARY" a line, and above it why.

#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {

const char* __asan_default_options() {
    return "detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:exitcode=86";
}

const char* __ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1:exitcode=86"; }

const char* __lsan_default_options() { return "print_suppressions=0:exitcode=86"; }

const char* __lsan_default_suppressions() { return ""; }

// The daemon leaves by _exit with its threads running; that is no leak.
const char* __tsan_default_options() {
    return "halt_on_error=1:second_deadlock_stack=1:report_thread_leaks=0:exitcode=86";
}

const char* __tsan_default_suppressions() { return ""; }

#if defined(__has_feature) && __has_feature(thread_sanitizer)
// libsystemd draws the key of its hash tables into one static buffer without a lock. Each table copies it, so a torn
// key is as good as a whole one. Without the sanitizer's own getrandom() its writing goes unseen. (A suppression by
// library would hide the library's socket calls too, and with them the order between the two ends of a call.)
[[clang::no_sanitize("thread")]] ssize_t getrandom(void* buffer, size_t length, unsigned int flags) {
    return syscall(SYS_getrandom, buffer, length, flags);
}
#endif
}
