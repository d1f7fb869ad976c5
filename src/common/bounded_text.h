#pragma once
// Bounded copy and append into fixed character fields, shared by the
// supervisor and the client library. A namespace keeps them from meeting a
// linking program's own functions of these common names.
#include <cstddef>

namespace bounded_text {

// Copies at most size - 1 bytes of src and terminates; null src is empty.
void str_copy(char* dst, const char* src, std::size_t size);
// Appends what fits behind dst's text within size bytes, terminated.
void str_cat(char* dst, const char* src, std::size_t size);

}  // namespace bounded_text
