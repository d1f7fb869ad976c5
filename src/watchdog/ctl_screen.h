#pragma once
// A look at a request body before the XML-RPC library parses it. The library
// expands entities without bound and frees its element tree recursively, so a
// small body can exhaust the CPU, the memory or the stack; such bodies are
// refused here, and the method name is taken out for the allow-list check.
#include <string>
#include <string_view>

// The library's nesting limit for array and struct values.
constexpr int CTL_SCREEN_VALUE_DEPTH_MAX = 64;
// Elements of any name inside one another: room for the call's own frame and
// three elements per value level, with margin.
constexpr int CTL_SCREEN_ELEMENT_DEPTH_MAX = 256;

enum class ctl_screen_verdict {
    pass,          // may go to the parser
    declaration,   // a document type, entity or other "<!" declaration
    too_deep,      // values or elements nested beyond the limits above
    encoding,      // NUL bytes: a multi-byte encoding this scan cannot read
};

struct ctl_screen_result {
    ctl_screen_verdict verdict = ctl_screen_verdict::pass;
    // Raw text of the only <methodName>, blanks trimmed; empty when there is
    // none, more than one, or it holds markup (a CDATA section).
    std::string method;
};

ctl_screen_result ctl_screen_request(std::string_view body);
