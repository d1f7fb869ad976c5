#include "utf8_text.h"

namespace {

// Bytes in the sequence a lead byte starts; 0 for a byte that cannot start one.
int sequence_length(unsigned char lead)
{
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 0;
}

bool is_continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// The second byte's range excludes overlong forms, surrogates and values
// above U+10FFFF.
bool second_byte_fits(unsigned char lead, unsigned char second)
{
    switch (lead) {
    case 0xE0: return second >= 0xA0;
    case 0xED: return second <= 0x9F;
    case 0xF0: return second >= 0x90;
    case 0xF4: return second <= 0x8F;
    default: return true;
    }
}

// Length of the well-formed character at `at`, or 0.
std::size_t valid_length(const std::string& text, std::size_t at)
{
    unsigned char lead = static_cast<unsigned char>(text[at]);
    std::size_t len = static_cast<std::size_t>(sequence_length(lead));
    if (len == 0 || at + len > text.size()) return 0;
    for (std::size_t k = 1; k < len; k++)
        if (!is_continuation(static_cast<unsigned char>(text[at + k]))) return 0;
    if (len > 1 && !second_byte_fits(lead, static_cast<unsigned char>(text[at + 1]))) return 0;
    return len;
}

bool xml_forbidden_control(unsigned char c) { return c < 0x20 && c != '\t' && c != '\n' && c != '\r'; }

}   // namespace

std::size_t utf8_whole_prefix(std::string_view text)
{
    // Only the last three bytes can belong to an unfinished character.
    std::size_t size = text.size();
    for (std::size_t back = 1; back <= 3 && back <= size; back++) {
        unsigned char c = static_cast<unsigned char>(text[size - back]);
        if (is_continuation(c)) continue;
        int len = sequence_length(c);
        return len > static_cast<int>(back) ? size - back : size;
    }
    return size;
}

void utf8_repair(std::string& text, std::size_t from)
{
    for (std::size_t i = from; i < text.size();) {
        std::size_t len = valid_length(text, i);
        if (len == 0 || (len == 1 && xml_forbidden_control(static_cast<unsigned char>(text[i])))) {
            text[i++] = '?';
            continue;
        }
        i += len;
    }
}
