#pragma once
// Shared pieces of the client library's implementation. Not installed: the
// public interface is vantrel.h. Family functions are (request + call) and a
// decoder; the helpers here keep both sides to a few lines and hold every
// diagnostic line that more than one family writes.
#include <cstdarg>
#include <cstddef>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <xmlrpc-c/base.h>
#include <xmlrpc-c/client.h>

#include "vantrel_call.h"
#include "common/bounded_text.h"
#include "common/xmlrpc_raii.h"

namespace vantrel {

// strerror of a negated errno; safe for any value a server may send.
inline const char* errno_text(int result)
{
    // -INT_MIN does not exist; any unknown code reads "Unknown error".
    return strerror(result == INT_MIN ? INT_MAX : -result);
}

// Source path printed in the "[%s:%d]" diagnostics.
inline constexpr const char* source_path = "src/client/vantrel";

// Bounded copy and append into a fixed field of `size` bytes.
using bounded_text::str_copy;
using bounded_text::str_cat;

// The fault text of an environment, never null.
const char* fault_text(const xmlrpc_env* env);

// Releases an environment's fault so that it can be used again.
void clear_fault(xmlrpc_env* env);

// Null text parameters marked as optional travel as empty strings.
inline const char* or_empty(const char* text) { return text ? text : ""; }

// ---- calls ----

// Builds the request from `format` and its arguments and calls `method` on
// `url` with the process-wide client. Returns the answer, owned by the
// caller, or null with the fault in env. Writes nothing.
xmlrpc_value* call_va(xmlrpc_env* env, const char* url, const char* method, const char* format,
                      va_list args);
// The thread's own client when it chose one (vantrel_thread_client.h), else
// null for the process-wide client.
xmlrpc_client* thread_xmlrpc_client();
xmlrpc_value* call_unreported(xmlrpc_env* env, const char* url, const char* method,
                              const char* format, ...);

// The standard call-failed line, under the function's name `fn`.
void report_call_failed(const xmlrpc_env* env, const char* fn, const char* url,
                        const char* method);

// One call whose answer goes to `decode(env, answer)`, which returns the
// function's result. When the call fails, `report(env)` writes the
// function's call-failed line and the result is -14. The answer and the
// environment are released here on every path.
template <typename Report, typename Decode>
int call_then_va(Report&& report, Decode&& decode, const char* url, const char* method,
                 const char* format, va_list args)
{
    xmlrpc_env_guard env;
    xmlrpc_value_ref answer(call_va(env.get(), url, method, format, args));
    if (!answer) {
        report(env.get());
        return VANTREL_EFAULT;
    }
    return decode(env.get(), answer.get());
}

// The same for a function that names its call failures in its own words.
template <typename Report, typename Decode>
int call_reported(Report&& report, Decode&& decode, const char* url, const char* method,
                  const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int result = call_then_va(report, decode, url, method, format, args);
    va_end(args);
    return result;
}

// The standard call with a decoder for the answer.
template <typename Decode>
int call_with(const char* fn, const char* url, const char* method, Decode&& decode,
              const char* format, ...)
{
    auto report = [&](const xmlrpc_env* env) { report_call_failed(env, fn, url, method); };
    va_list args;
    va_start(args, format);
    int result = call_then_va(report, decode, url, method, format, args);
    va_end(args);
    return result;
}

// The standard call of a function that returns only the server's result.
int std_call(const char* fn, const char* url, const char* method, const char* format, ...);

// ---- answers ----

// Standard decoding of the answer's "result" member: returns it, or writes
// the decompose line under `fn` and `method` and returns -14 with the fault
// in env (a null answer is a fault too).
int decode_result(xmlrpc_env* env, const char* fn, const char* method, xmlrpc_value* answer);
// The same for functions whose decompose line names neither the method nor
// the source: "%s: decompose value failed: %s (%d)".
int decode_result_plain(xmlrpc_env* env, const char* fn, xmlrpc_value* answer);

// "result", then, when it is 0, the answer's struct "item" into `item`; a
// failure of either writes the decompose_value line. Returns the result, or
// -14.
int result_and_item(xmlrpc_env* env, const char* fn, xmlrpc_value* answer, decoded_value& item);

// "%s: %s return %d (%s)": a server's negative result, described.
void report_return(const char* fn, const char* method, int result);

// How a listing reports an answer without a "list" array.
enum class missing_list {
    own_line,       // "%s: decompose value failed: %s (%d) [%s:%d]"
    as_size_failure // the "xmlrpc_array_size failed" line, as for a bad size
};

// The listings' first steps: the standard result (a negative one reported
// with the return line), then the answer's "list" array and its size.
// Returns the result, negative to stop with, or -14 with its line written;
// otherwise `list` holds the array and *size its size.
int result_and_list(xmlrpc_env* env, const char* fn, const char* method, xmlrpc_value* answer,
                    decoded_value& list, int* size, missing_list missing = missing_list::own_line);

// Reads the `size` elements of `array` in order and hands each to
// `each(element, index)`, which returns a negative value to stop the walk
// with. An element that cannot be read is reported under `fn` and gives
// -14. Returns 0 once every element was handled.
template <typename Each>
int for_each_element(xmlrpc_env* env, const char* fn, xmlrpc_value* array, int size, Each&& each)
{
    for (int i = 0; i < size; ++i) {
        xmlrpc_value_ref element;
        xmlrpc_array_read_item(env, array, i, element.out());
        if (env->fault_occurred) {
            fprintf(stderr, "%s: xmlrpc_array_read_item failed: %s (%d)", fn, fault_text(env),
                    env->fault_code);
            return VANTREL_EFAULT;
        }
        int rc = each(element.get(), i);
        if (rc < 0) return rc;
    }
    return 0;
}

// The size of `array`, or -14 with the array_size line written under `fn`
// (a null array fails too).
int array_size(xmlrpc_env* env, const char* fn, xmlrpc_value* array);
// "%s: xmlrpc_array_size failed: %s (%d)" from the fault in env: the line
// with which a listing also reports a failed walk.
void report_array_size_failed(const xmlrpc_env* env, const char* fn);

// "%s: xmlrpc_decompose_value failed: %s (%d)" from the fault in env.
void report_decompose_failed(const xmlrpc_env* env, const char* fn);
// "%s: decompose value failed: %s (%d)" from the fault in env.
void report_decompose_value_failed(const xmlrpc_env* env, const char* fn);

// ---- records ----

// Request parts shared by the template functions. A negative count means the
// array ends with a null pointer; null entries are skipped. Both return a new
// value, or null with the fault in env.
xmlrpc_value* build_string_array(xmlrpc_env* env, int count, const char* const* items);
xmlrpc_value* build_variables(xmlrpc_env* env, int count, const char* const* names,
                              const char* const* values);

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

// Heap array of record pointers, kept null-terminated at every step, and
// freed as a whole unless handed to the caller: a failed listing leaves
// nothing behind.
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

}  // namespace vantrel
