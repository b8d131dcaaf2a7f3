// libFuzzer over the reader of data files: build with -DTORVALE_FUZZ=ON and clang, then csv_fuzz -max_len=600 CORPUS
#include "csv_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  torvale::fuzz::csv_input(data, size);
  return 0;
}
