// Default options of the sanitizer runtimes, compiled into the test programs
// and the example of an instrumented build (ZVLOG_SANITIZE), so that a program
// run by itself, or by the test discovery during the build, behaves as under
// .ci/sanitize. Options in the environment still come after these and win.
//
// Every program of the suite exports the nine BuildContext_... variables, and
// so does the library for its own build: the program's definitions take the
// library's place by design. AddressSanitizer's strictest one-definition check
// reports any such pair; level 1 still reports a pair whose sizes differ.
//
// A child forked without exec gets the library's threads again, which
// ThreadSanitizer allows only with die_after_fork=0.

extern "C" {

__attribute__((visibility("default"), used)) const char* __asan_default_options() {
    return "detect_odr_violation=1:detect_leaks=1:halt_on_error=1:print_stacktrace=1";
}

__attribute__((visibility("default"), used)) const char* __ubsan_default_options() {
    return "halt_on_error=1:print_stacktrace=1";
}

__attribute__((visibility("default"), used)) const char* __tsan_default_options() {
    return "halt_on_error=1:second_deadlock_stack=1:print_stacktrace=1:die_after_fork=0:atexit_sleep_ms=50";
}

}
