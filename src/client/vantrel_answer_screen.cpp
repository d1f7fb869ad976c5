#include "vantrel_answer_screen.h"

#include <charconv>
#include <cstdint>

namespace vantrel {
namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// What the parser reads as a 64-bit integer without reaching its faulty
// message: an optional sign, then decimal digits whose value fits.
bool plain_int64(std::string_view text)
{
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.front() == '+') return false;
    int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// True when an i8 start tag (the parser knows it as "i8" and "ex:i8") begins
// at `at`, the position of a '<'.
bool i8_tag_at(std::string_view xml, std::size_t at)
{
    for (std::string_view name : {"i8", "ex:i8"}) {
        std::size_t after = at + 1 + name.size();
        if (xml.substr(at + 1, name.size()) == name && after < xml.size() &&
            (xml[after] == '>' || xml[after] == '/' || is_space(xml[after])))
            return true;
    }
    return false;
}

// The element at `at` holds a plain integer and its end tag follows at once;
// comments, character references and CDATA there are refused with the rest.
bool i8_element_ok(std::string_view xml, std::size_t at)
{
    std::size_t close = xml.find('>', at);
    if (close == std::string_view::npos || xml[close - 1] == '/') return false;
    std::size_t end = xml.find('<', close + 1);
    if (end == std::string_view::npos || xml.substr(end, 2) != "</") return false;
    return plain_int64(xml.substr(close + 1, end - close - 1));
}

}  // namespace

const char* answer_refusal(std::string_view xml)
{
    if (xml.find('\0') != std::string_view::npos) return "answer holds a NUL byte";
    if (xml.find("<!DOCTYPE") != std::string_view::npos)
        return "answer holds a document type declaration";
    for (std::size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
        if (i8_tag_at(xml, at) && !i8_element_ok(xml, at))
            return "<i8> XML element value is invalid: it does not represent a 64 bit integer";
    }
    return nullptr;
}

}  // namespace vantrel
