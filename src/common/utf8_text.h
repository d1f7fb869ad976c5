#pragma once
// UTF-8 at the edges of bounded text: every listing carries stored text as
// XML-RPC strings, which the library refuses to build from invalid UTF-8.
#include <cstddef>
#include <string>
#include <string_view>

// Length of `text` without a multi-byte character left incomplete at its end.
std::size_t utf8_whole_prefix(std::string_view text);
// The longest length of at most `max` bytes that ends on a character boundary.
inline std::size_t utf8_cut(std::string_view text, std::size_t max)
{
    return text.size() <= max ? text.size() : utf8_whole_prefix(text.substr(0, max));
}
// Replaces every byte that is not part of a well-formed UTF-8 character, and
// every control character XML cannot carry, by '?'; the length never changes.
void utf8_repair(std::string& text, std::size_t from = 0);
