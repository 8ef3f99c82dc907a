// What every program of a sanitizer build runs with; ASAN_OPTIONS, LSAN_OPTIONS and TSAN_OPTIONS add to it.
//
// intercept_tls_get_addr=0: up to LLVM 16 the runtimes take a thread-local block of a loaded module for one with the header
// of glibc 2.19 wherever it begins 16 bytes past a page, and read its begin and size out of what happens to lie before it.
// The leak check then walks that range and dies. The driver has such blocks, and where they lie is chance. The price is
// that memory which only such a block points at counts as leaked.
// ignore_noninstrumented_modules=1: Mesa and FFmpeg are not instrumented, so that their locks are not seen.
extern "C" {

const char* __asan_default_options() {
  return "intercept_tls_get_addr=0";
}

const char* __tsan_default_options() {
  return "intercept_tls_get_addr=0:ignore_noninstrumented_modules=1:halt_on_error=1";
}

const char* __lsan_default_options() {
  return "print_suppressions=0";
}

// Memory of libraries that is theirs for the life of the process, or that x265 loses with each encoder.
const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libdbus-1.so\nleak:libxcb.so\nleak:libx265.so\n";
}

}  // extern "C"
