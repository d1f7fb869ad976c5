#include "ctl_screen.h"

namespace {

constexpr std::size_t METHOD_NAME_MAX = 256;   // far above any name in the table

struct scan_state {
    int elements = 0;
    int values = 0;
    int method_names = 0;
    bool in_method_name = false;
    bool method_broken = false;
    std::string method;
};

bool is_value_container(std::string_view name) { return name == "array" || name == "struct"; }

std::string_view tag_name(std::string_view tag)
{
    std::size_t end = tag.find_first_of(" \t\r\n/>");
    return tag.substr(0, end);
}

// Offset just past the '>' closing a start or end tag at `from`, skipping
// quoted attribute values; npos when the document ends first.
std::size_t tag_end(std::string_view body, std::size_t from)
{
    char quote = 0;
    for (std::size_t i = from; i < body.size(); i++) {
        char c = body[i];
        if (quote) {
            if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return i + 1;
        }
    }
    return std::string_view::npos;
}

// Comments, processing instructions and CDATA are skipped whole; every other
// "<!" is a declaration. Returns the offset after the construct or npos.
std::size_t skip_special(std::string_view body, std::size_t at, scan_state& st, bool& refused)
{
    auto skip_to = [&](std::string_view close, std::size_t from) {
        std::size_t end = body.find(close, from);
        return end == std::string_view::npos ? end : end + close.size();
    };
    std::string_view rest = body.substr(at);
    if (rest.starts_with("<?")) return skip_to("?>", at + 2);
    if (rest.starts_with("<!--")) return skip_to("-->", at + 4);
    if (rest.starts_with("<![CDATA[")) {
        if (st.in_method_name) st.method_broken = true;
        return skip_to("]]>", at + 9);
    }
    refused = true;
    return std::string_view::npos;
}

void open_element(std::string_view name, scan_state& st)
{
    st.elements++;
    if (is_value_container(name)) st.values++;
    if (name == "methodName") {
        st.in_method_name = true;
        st.method_names++;
    } else if (st.in_method_name) {
        st.method_broken = true;
    }
}

void close_element(std::string_view name, scan_state& st)
{
    if (st.elements > 0) st.elements--;
    if (is_value_container(name) && st.values > 0) st.values--;
    if (name == "methodName") st.in_method_name = false;
}

void take_text(std::string_view text, scan_state& st)
{
    if (!st.in_method_name) return;
    if (st.method.size() + text.size() > METHOD_NAME_MAX) st.method_broken = true;
    else st.method.append(text);
}

std::string trimmed(const std::string& text)
{
    static const char blanks[] = " \t\r\n";
    std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}   // namespace

ctl_screen_result ctl_screen_request(std::string_view body)
{
    ctl_screen_result result;
    if (body.find('\0') != std::string_view::npos) {
        result.verdict = ctl_screen_verdict::encoding;
        return result;
    }
    scan_state st;
    std::size_t i = 0;
    while (i < body.size()) {
        std::size_t lt = body.find('<', i);
        take_text(body.substr(i, lt == std::string_view::npos ? lt : lt - i), st);
        if (lt == std::string_view::npos) break;
        char next = lt + 1 < body.size() ? body[lt + 1] : '\0';
        if (next == '!' || next == '?') {
            bool refused = false;
            i = skip_special(body, lt, st, refused);
            if (refused) {
                result.verdict = ctl_screen_verdict::declaration;
                return result;
            }
            continue;   // npos ends the loop: an unclosed construct is the parser's to reject
        }
        std::size_t end = tag_end(body, lt + 1);
        if (end == std::string_view::npos) break;
        std::string_view tag = body.substr(lt + 1, end - lt - 2);
        if (next == '/') {
            close_element(tag_name(tag.substr(1)), st);
        } else if (!tag.ends_with('/')) {
            open_element(tag_name(tag), st);
            if (st.values > CTL_SCREEN_VALUE_DEPTH_MAX || st.elements > CTL_SCREEN_ELEMENT_DEPTH_MAX) {
                result.verdict = ctl_screen_verdict::too_deep;
                return result;
            }
        } else {
            // An empty element: nothing to nest, but it still counts as markup.
            if (st.in_method_name) st.method_broken = true;
            if (tag_name(tag) == "methodName") st.method_names++;
        }
        i = end;
    }
    if (st.method_names == 1 && !st.method_broken) result.method = trimmed(st.method);
    return result;
}
