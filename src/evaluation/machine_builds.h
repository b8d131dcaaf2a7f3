#pragma once
// Two builds of the same code, for machines with AVX2 and without.

namespace torvale::evaluation {

// build_for_machine: which of two builds of the same code runs here. The second is a function marked TORVALE_AVX2_BUILD
// that calls what the first calls. All of that is inlined there, as vectors must not pass between code with AVX and
// code without; where the compiler does not promise it, there is one build.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define TORVALE_HAS_AVX2_BUILD
#define TORVALE_AVX2_BUILD [[gnu::target("avx2"), gnu::flatten]]
#else
#define TORVALE_AVX2_BUILD
#endif

template <class Call> Call build_for_machine(Call plain, [[maybe_unused]] Call avx2)
{
#if defined(TORVALE_HAS_AVX2_BUILD)
  static const bool wide = __builtin_cpu_supports("avx2");
  return wide ? avx2 : plain;
#else
  return plain;
#endif
}

} // namespace torvale::evaluation
