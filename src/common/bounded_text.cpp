#include "bounded_text.h"

#include <cstring>

#include "utf8_text.h"

namespace bounded_text {

void str_copy(char* dst, const char* src, std::size_t size)
{
    if (!dst || size == 0) return;
    if (!src) src = "";
    std::size_t n = strnlen(src, size - 1);
    if (src[n] != '\0') n = utf8_whole_prefix(std::string_view(src, n));   // cut: not inside a character
    memcpy(dst, src, n);
    dst[n] = '\0';
}

void str_cat(char* dst, const char* src, std::size_t size)
{
    if (!dst || size == 0) return;
    std::size_t used = strnlen(dst, size - 1);
    str_copy(dst + used, src, size - used);
}

}  // namespace bounded_text
