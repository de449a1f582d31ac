// string_split with any text and delimiter set: the first byte says how many of the following
// bytes are delimiters, the rest is the text.
#include <string.h>

#include <string>

#include "utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  size_t n = data[0] % 8;
  if (size < 1 + n) return 0;
  std::string delimiters(reinterpret_cast<const char*>(data + 1), n);
  delimiters = delimiters.c_str();  // a C string of them: up to the first NUL
  std::string text(reinterpret_cast<const char*>(data + 1 + n), size - 1 - n);
  size_t from = 0, total = 0;
  for (const std::string& token : string_split(text, delimiters.c_str())) {
    // Non-empty, free of delimiters, and found in the text in order.
    if (token.empty() || token.find_first_of(delimiters) != std::string::npos) __builtin_trap();
    size_t at = text.find(token, from);
    if (at == std::string::npos) __builtin_trap();
    from = at + token.size();
    total += token.size();
  }
  if (total > text.size()) __builtin_trap();
  return 0;
}
