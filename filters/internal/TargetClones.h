#pragma once

// Hot loops are compiled twice, for AVX2 and for the baseline, and the processor picks one at load
// time. Both run the same floating-point operations in the same order (-ffp-contract=off, no FMA),
// so they give the same bits. Only GCC on x86-64 clones function templates; elsewhere the baseline
// alone is built. Under ThreadSanitizer the clones' load-time resolvers would run before the
// sanitizer's runtime is ready, so that build has the baseline only. Internal to the library: not
// installed.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__ELF__) && !defined(__SANITIZE_THREAD__)
#define NUVEK_TARGET_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define NUVEK_TARGET_CLONES
#endif
