// For programs that are installed set-group-id and built with AddressSanitizer.

extern "C" {

// Called by AddressSanitizer. LeakSanitizer needs ptrace(2), which the kernel refuses for such a
// process; ASAN_OPTIONS are not seen there, as they are read from /proc/self/environ, which root
// owns.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming)
const char* __asan_default_options();

const char* __asan_default_options() { return "detect_leaks=0"; }
}
