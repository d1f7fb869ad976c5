#pragma once
// Pieces shared by the library, scheduler and file transfer clients: a quiet
// transport for functions that name their own failures, and heap record lists
// that are freed as a whole unless handed to the caller, so a failed listing
// leaves nothing behind.
#include <cstdarg>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <xmlrpc-c/base.h>
#include <xmlrpc-c/client.h>  // declares the global client inside its extern "C"

#include "vantrel_internal.h"

namespace vantrel_records {

// Builds the request and calls `method` with the process-wide client. Writes
// nothing: the caller prints its own call-failed line from env. Returns the
// answer (owned by the caller) or null with a fault in env.
inline xmlrpc_value* quiet_call(xmlrpc_env* env, const char* url, const char* method,
                                const char* format, ...)
{
    if (!url || !method) {
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "no server URL or method name");
        return nullptr;
    }
    xmlrpc_value* params = nullptr;
    const char* tail = nullptr;
    va_list args;
    va_start(args, format);
    xmlrpc_build_value_va(env, format, args, &params, &tail);
    va_end(args);
    if (env->fault_occurred) return nullptr;
    xmlrpc_value* answer = nullptr;
    if (xmlrpc_value_type(params) != XMLRPC_TYPE_ARRAY)
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "request is not a parameter list");
    else
        answer = xmlrpc_client_call_params(env, url, method, params);
    xmlrpc_DECREF(params);
    return env->fault_occurred ? nullptr : answer;
}

using vantrel::errno_text;

template <typename T>
void free_plain(T* record)
{
    free(record);
}

// Zero-filled, as callers rely on untouched fields being empty.
template <typename T>
T* new_record()
{
    return static_cast<T*>(calloc(1, sizeof(T)));
}

struct free_deleter {
    void operator()(void* block) const { free(block); }
};
template <typename T>
using owned = std::unique_ptr<T, free_deleter>;

// Heap array of record pointers, kept null-terminated at every step.
template <typename T, void (*Free)(T*) = free_plain<T>>
class list {
public:
    list() : items_(static_cast<T**>(calloc(1, sizeof(T*)))) {}
    ~list() { clear(); }
    list(const list&) = delete;
    list& operator=(const list&) = delete;

    bool ok() const { return items_ != nullptr; }
    int size() const { return static_cast<int>(count_); }
    T** data() const { return items_; }

    // Takes `record` over; false when memory runs out (the record is freed).
    bool push(T* record)
    {
        if (!record) return false;
        if (!items_) {
            Free(record);
            return false;
        }
        T** grown = static_cast<T**>(realloc(items_, (count_ + 2) * sizeof(T*)));
        if (!grown) {
            Free(record);
            return false;
        }
        items_ = grown;
        items_[count_++] = record;
        items_[count_] = nullptr;
        return true;
    }

    T** release()
    {
        T** items = items_;
        items_ = nullptr;
        count_ = 0;
        return items;
    }

private:
    void clear()
    {
        if (!items_) return;
        for (std::size_t i = 0; i < count_; ++i) Free(items_[i]);
        free(items_);
        items_ = nullptr;
        count_ = 0;
    }

    T** items_;
    std::size_t count_ = 0;
};

// For each position the best remaining entry is swapped in; `better` is
// strict, so among equals the earliest remaining one is taken. Not stable:
// the swap may move an entry behind its equals, which listings accept.
template <typename T, typename Better>
void selection_sort(T** items, int count, Better better)
{
    for (int i = 0; i < count; ++i) {
        int best = i;
        for (int j = i + 1; j < count; ++j)
            if (better(items[j], items[best])) best = j;
        if (best != i) {
            T* moved = items[i];
            items[i] = items[best];
            items[best] = moved;
        }
    }
}

}  // namespace vantrel_records
