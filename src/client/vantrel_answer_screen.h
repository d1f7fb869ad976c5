#pragma once
// The installed XML-RPC library crashes while it builds the fault for an <i8>
// that is not a plain 64-bit number. The library's calls screen every answer
// before it is parsed, so such an answer is a fault of that call, without
// replacing any function of the XML-RPC library in the caller's process.
#include <string_view>

namespace vantrel {

// Null when the answer may be parsed, else why it may not: a NUL byte (a
// UTF-16 document would hide its markup from the scan), a document type
// declaration (its entities could build elements the scan cannot see), or an
// i8 element whose text is not an optionally signed in-range integer
// directly followed by the end tag.
const char* answer_refusal(std::string_view xml);

}  // namespace vantrel
