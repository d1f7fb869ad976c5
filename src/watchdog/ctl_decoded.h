#pragma once
// Owners for what xmlrpc_decompose_value hands out. When decoding fails, the
// library has already freed every string and released every value it produced
// and leaves the caller's pointers dangling, so nothing is owned until decoding
// has succeeded: call adopt() then.
#include <cstdlib>

#include <xmlrpc-c/base.h>

class decoded_text {
public:
    decoded_text() = default;
    ~decoded_text()
    {
        if (owned_) free(const_cast<char*>(text_));
    }
    decoded_text(const decoded_text&) = delete;
    decoded_text& operator=(const decoded_text&) = delete;

    const char** out() { return &text_; }
    void adopt() { owned_ = true; }
    const char* get() const { return owned_ && text_ ? text_ : ""; }

private:
    const char* text_ = nullptr;
    bool owned_ = false;
};

class decoded_value {
public:
    decoded_value() = default;
    ~decoded_value()
    {
        if (owned_ && value_) xmlrpc_DECREF(value_);
    }
    decoded_value(const decoded_value&) = delete;
    decoded_value& operator=(const decoded_value&) = delete;

    xmlrpc_value** out() { return &value_; }
    void adopt() { owned_ = true; }
    xmlrpc_value* get() const { return owned_ ? value_ : nullptr; }

private:
    xmlrpc_value* value_ = nullptr;
    bool owned_ = false;
};

// Adopts every owner given, after a successful decode.
template <class... Owners>
void decoded_adopt(Owners&... owners)
{
    (owners.adopt(), ...);
}
