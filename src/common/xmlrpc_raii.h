#pragma once
// Small owners for the xmlrpc-c C API, so no path frees by hand.
#include <cstdlib>

#include <xmlrpc-c/base.h>

class xmlrpc_env_guard {
public:
    xmlrpc_env_guard() { xmlrpc_env_init(&env_); }
    ~xmlrpc_env_guard() { xmlrpc_env_clean(&env_); }
    xmlrpc_env_guard(const xmlrpc_env_guard&) = delete;
    xmlrpc_env_guard& operator=(const xmlrpc_env_guard&) = delete;

    xmlrpc_env* get() { return &env_; }
    bool failed() const { return env_.fault_occurred; }
    int fault_code() const { return env_.fault_code; }
    const char* fault_string() const { return env_.fault_string ? env_.fault_string : ""; }
    // Forget a fault so the environment can be used again.
    void reset()
    {
        xmlrpc_env_clean(&env_);
        xmlrpc_env_init(&env_);
    }

private:
    xmlrpc_env env_;
};

// Owns one reference to an xmlrpc_value.
class xmlrpc_value_ref {
public:
    xmlrpc_value_ref() = default;
    explicit xmlrpc_value_ref(xmlrpc_value* value) : value_(value) {}
    ~xmlrpc_value_ref() { reset(); }
    xmlrpc_value_ref(xmlrpc_value_ref&& other) noexcept : value_(other.release()) {}
    xmlrpc_value_ref& operator=(xmlrpc_value_ref&& other) noexcept
    {
        if (this != &other) {
            reset();
            value_ = other.release();
        }
        return *this;
    }
    xmlrpc_value_ref(const xmlrpc_value_ref&) = delete;
    xmlrpc_value_ref& operator=(const xmlrpc_value_ref&) = delete;

    xmlrpc_value* get() const { return value_; }
    // For out-parameters of the C API: drops the old value first.
    xmlrpc_value** out()
    {
        reset();
        return &value_;
    }
    xmlrpc_value* release()
    {
        xmlrpc_value* value = value_;
        value_ = nullptr;
        return value;
    }
    void reset(xmlrpc_value* value = nullptr)
    {
        if (value_) xmlrpc_DECREF(value_);
        value_ = value;
    }
    explicit operator bool() const { return value_ != nullptr; }

private:
    xmlrpc_value* value_ = nullptr;
};

// Owners for what xmlrpc_decompose_value hands out. When a decomposition of
// several members fails, xmlrpc-c has already freed every string and released
// every value it extracted, yet leaves the caller's pointers set: nothing is
// owned until the decomposition has succeeded and decoded_adopt() is called.
// Until then get() gives "" (or null), so a forgotten adopt shows at once.
template <typename T, void (*Release)(T*)>
class decoded {
public:
    decoded() = default;
    ~decoded() { drop(); }
    decoded(const decoded&) = delete;
    decoded& operator=(const decoded&) = delete;

    T** out()
    {
        drop();
        return &held_;
    }
    void adopt() { owned_ = held_ != nullptr; }

protected:
    T* held() const { return owned_ ? held_ : nullptr; }

private:
    void drop()
    {
        if (owned_) Release(held_);
        held_ = nullptr;
        owned_ = false;
    }

    T* held_ = nullptr;
    bool owned_ = false;
};

inline void decoded_free_text(const char* text) { free(const_cast<char*>(text)); }
inline void decoded_release_value(xmlrpc_value* value) { xmlrpc_DECREF(value); }

class decoded_text : public decoded<const char, decoded_free_text> {
public:
    const char* get() const { return held() ? held() : ""; }
};

class decoded_value : public decoded<xmlrpc_value, decoded_release_value> {
public:
    xmlrpc_value* get() const { return held(); }
};

// Takes over every output of a decomposition that succeeded.
template <class... Owners>
void decoded_adopt(Owners&... owners)
{
    (owners.adopt(), ...);
}
