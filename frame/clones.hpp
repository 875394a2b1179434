// OL_AVX2_CLONES: a second copy of a function built for AVX2 and chosen at
// load time (GCC's target_clones), for integer loops whose bytes are the same
// on every instruction set. Left out where it cannot work: clang (no clones
// of function templates), non-ELF targets, and ThreadSanitizer builds, whose
// instrumented load-time resolver runs before the sanitizer is set up and
// crashes.
#pragma once

#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__ELF__) && \
    !defined(__SANITIZE_THREAD__)
#define OL_AVX2_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define OL_AVX2_CLONES
#endif
