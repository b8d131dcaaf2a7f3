// libFuzzer over scanner, parser, macros and builder: build with -DTORVALE_FUZZ=ON and clang, then
//   language_fuzz -max_len=4096 -dict=fuzz/language.dict tests/data/fuzz_corpus/language
#include "language_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  torvale::fuzz::language_input(data, size);
  return 0;
}
