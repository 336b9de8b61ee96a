#pragma once

// Loops over slots, compiled for the widest vectors of the machine that they will run on. Include
// this before anything else, so that the standard library's inline functions are compiled alike
// and can be inlined into such loops.
//
// QUORVANE_SIMD before a function builds it once per instruction set; the loader picks one.
//
// Every build gives the same bits. Multiplications and additions are never fused, sums keep the
// order that the source writes, and "no-trapping-math" only lets the compiler evaluate both sides
// of a choice; it changes no result.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("O3", "no-trapping-math", "no-math-errno")
#endif

// A sanitizer's runtime is not up yet when the loader picks, so such a build has one version.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__gnu_linux__) && \
    !defined(__SANITIZE_ADDRESS__)
#define QUORVANE_SIMD [[gnu::target_clones("default", "avx2", "arch=x86-64-v4")]]
#else
#define QUORVANE_SIMD
#endif

// Before a loop whose rounds do nothing to one another, though the compiler cannot know it: rows
// that may be one and the same are read and written at the same place only.
#if defined(__GNUC__) && !defined(__clang__)
#define QUORVANE_IN_ANY_ORDER _Pragma("GCC ivdep")
#else
#define QUORVANE_IN_ANY_ORDER
#endif
