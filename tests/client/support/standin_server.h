#pragma once
// A stand-in for the suite's services: an XML-RPC server inside the test
// process, on a free 127.0.0.1 port and its own thread. Every request, whatever
// its method, is recorded and answered with what the test scripted.
#include <condition_variable>
#include <cstdlib>
#include <cstdarg>
#include <deque>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <xmlrpc-c/base.h>
#include <xmlrpc-c/server.h>
#include <xmlrpc-c/server_abyss.h>

#include "common/xmlrpc_raii.h"

namespace standin {

using value = xmlrpc_value_ref;

// Printable form of a value: ints 1, 64-bit ints 1L, doubles 1.5 (always with
// a point or exponent), strings "a" (C escapes), byte strings b"a", true/false,
// nil, arrays [a,b], structs {"k":v} in member order.
std::string render(xmlrpc_value* v);
// A parameter list as a tuple: ("a",1,"").
std::string render_params(xmlrpc_value* params);

// Answer builders. Each returns a new value owned by the caller.
value build(const char* format, ...);                    // xmlrpc_build_value
value result_only(int result);                          // {"result": r}
value missing_result();                                 // {"status": 0}
value result_of_wrong_type();                           // {"result": "0"}
value with_member(int result, const char* key, xmlrpc_value* member);  // {"result", key}
value with_list(int result, xmlrpc_value* list);        // {"result": r, "list": list}
value empty_array();
value string_array(std::initializer_list<const char*> items);   // ["a","b"]
value string_rows(std::initializer_list<const char*> items);    // [["a"],["b"]]
// The list with one more element that no decoder accepts (an integer).
value with_bad_element(xmlrpc_value* list);
// Appends a new reference to `item` to `array`.
void push(xmlrpc_value* array, xmlrpc_value* item);

struct recorded_call {
    std::string method;
    std::string params;   // render_params of the request
    value raw;            // the request's parameter array itself
};

class server {
public:
    server();
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    bool running() const { return running_; }
    int port() const { return port_; }
    std::string url() const;

    // Every request gets this answer until another one is set.
    void answer(value reply);
    // The next request only gets this answer; queued answers come first.
    void answer_once(value reply);
    // Every request gets this fault.
    void answer_fault(int code, const std::string& text);

    std::vector<std::string> methods() const;
    std::size_t call_count() const;
    // The last request (empty method when none came).
    std::string last_method() const;
    std::string last_params() const;
    value last_raw() const;

private:
    static xmlrpc_value* handle(xmlrpc_env* env, const char* call_info, const char* method,
                                xmlrpc_value* params, void* self);
    xmlrpc_value* reply_to(xmlrpc_env* env, const char* method, xmlrpc_value* params);

    mutable std::mutex mutex_;
    std::vector<recorded_call> calls_;
    std::deque<value> once_;
    value reply_;
    int fault_code_ = 0;
    std::string fault_text_;

    xmlrpc_registry* registry_ = nullptr;
    xmlrpc_server_abyss_t* abyss_ = nullptr;
    std::thread thread_;
    int port_ = 0;
    bool running_ = false;
};

// Frees a listing's record array and its records; the array ends with a null
// slot after the last record.
template <typename T>
void free_records(T*** list)
{
    if (!*list) return;
    for (T** r = *list; *r; ++r) free(*r);
    free(*list);
    *list = nullptr;
}

// Fixture: a fresh stand-in and a set-up client library for every test.
class standin_test : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    const char* url() const { return url_.c_str(); }

    server stub;

private:
    std::string url_;
};

}  // namespace standin
