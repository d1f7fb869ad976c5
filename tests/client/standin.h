// A stand-in for the suite's services: an XML-RPC server on a free 127.0.0.1
// port and a thread of its own. It records the last request's method and
// parameters and answers every request with the value (or fault) set last.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include <xmlrpc-c/server_abyss.h>

#include "common/xmlrpc_raii.h"

// A value built from an xmlrpc-c format string; null when the format fails.
inline xmlrpc_value* build_va(const char* format, va_list ap)
{
    xmlrpc_env_guard env;
    xmlrpc_value* v = nullptr;
    const char* tail = nullptr;
    xmlrpc_build_value_va(env.get(), format, ap, &v, &tail);
    return v;
}

inline xmlrpc_value_ref build(const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    xmlrpc_value_ref v(build_va(format, ap));
    va_end(ap);
    return v;
}

// Ints 1, i8 1L, doubles 1.5, strings "a", byte strings b"a", booleans, arrays
// [a,b], structs {"k":v} in member order. Compact: strings 'a', byte strings
// by length b3, struct keys bare.
inline std::string render(xmlrpc_value* v, bool compact = false)
{
    xmlrpc_env_guard env;
    std::string out;
    int n = 0;
    xmlrpc_int64 i8 = 0;
    xmlrpc_bool b = 0;
    double d = 0;
    size_t len = 0;
    const unsigned char* bytes = nullptr;
    decoded_text text;
    std::ostringstream number;
    bool is_struct = xmlrpc_value_type(v) == XMLRPC_TYPE_STRUCT;
    switch (xmlrpc_value_type(v)) {
    case XMLRPC_TYPE_INT: return xmlrpc_read_int(env.get(), v, &n), std::to_string(n);
    case XMLRPC_TYPE_I8: return xmlrpc_read_i8(env.get(), v, &i8), std::to_string(i8) + "L";
    case XMLRPC_TYPE_BOOL: return xmlrpc_read_bool(env.get(), v, &b), b ? "true" : "false";
    case XMLRPC_TYPE_DOUBLE:
        xmlrpc_read_double(env.get(), v, &d);
        number << d;
        return number.str();
    case XMLRPC_TYPE_STRING:
        xmlrpc_read_string(env.get(), v, text.out());
        decoded_adopt(text);
        return (compact ? "'" : "\"") + std::string(text.get()) + (compact ? "'" : "\"");
    case XMLRPC_TYPE_BASE64:
        xmlrpc_read_base64(env.get(), v, &len, &bytes);
        out.assign(reinterpret_cast<const char*>(bytes), len);
        free(const_cast<unsigned char*>(bytes));
        return compact ? "b" + std::to_string(len) : "b\"" + out + "\"";
    case XMLRPC_TYPE_ARRAY:
    case XMLRPC_TYPE_STRUCT:
        for (int i = 0, size = is_struct ? xmlrpc_struct_size(env.get(), v) : xmlrpc_array_size(env.get(), v); i < size; i++) {
            xmlrpc_value_ref key, item;
            if (is_struct) xmlrpc_struct_read_member(env.get(), v, i, key.out(), item.out());
            else xmlrpc_array_read_item(env.get(), v, i, item.out());
            std::string name = is_struct ? render(key.get(), compact) : "";
            if (compact && is_struct) name = name.substr(1, name.size() - 2);
            out += (i ? "," : "") + (is_struct ? name + ":" : "") + render(item.get(), compact);
        }
        return (is_struct ? "{" : "[") + out + (is_struct ? "}" : "]");
    default: return "?";
    }
}

// A TCP socket bound to a free 127.0.0.1 port, which goes to `port`.
inline int loopback_socket(int* port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    return *port = ntohs(addr.sin_port), fd;
}

class standin {
public:
    standin()
    {
        xmlrpc_env_guard env;
        static std::once_flag once;
        std::call_once(once, [] { xmlrpc_server_abyss_global_init(xmlrpc_env_guard().get()), signal(SIGPIPE, SIG_IGN); });
        registry_ = xmlrpc_registry_new(env.get());
        xmlrpc_registry_set_default_method(env.get(), registry_, &standin::handle, this);
        int port = 0, fd = loopback_socket(&port);
        url = "http://127.0.0.1:" + std::to_string(port) + "/RPC2";
        xmlrpc_server_abyss_parms parms{};
        parms.registryP = registry_;
        parms.keepalive_max_conn = 1;   // one request per connection: stopping never waits
        parms.socket_bound = 1, parms.socket_handle = fd;
        xmlrpc_server_abyss_create(env.get(), &parms, XMLRPC_APSIZE(socket_handle), &abyss_);
        thread_ = std::thread([this] {
            xmlrpc_env_guard run_env;
            xmlrpc_server_abyss_run_server(run_env.get(), abyss_);
        });
    }
    ~standin()
    {
        xmlrpc_env_guard env;
        xmlrpc_server_abyss_terminate(env.get(), abyss_);
        thread_.join();
        xmlrpc_server_abyss_destroy(abyss_);
        xmlrpc_registry_free(registry_);
    }
    // Every request gets `reply` (taken over), or the fault when code is not 0.
    void answer(xmlrpc_value* reply, int fault_code = 0)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        reply_.reset(reply);
        fault_code_ = fault_code;
    }
    std::string last() const
    {
        std::lock_guard<std::mutex> hold(mutex_);
        return last_;
    }
    std::string url;

private:
    static xmlrpc_value* handle(xmlrpc_env* env, const char*, const char* method, xmlrpc_value* params, void* self)
    {
        auto* me = static_cast<standin*>(self);
        std::lock_guard<std::mutex> hold(me->mutex_);
        std::string tuple = render(params);
        me->last_ = std::string(method) + "(" + tuple.substr(1, tuple.size() - 2) + ")";
        if (me->fault_code_) xmlrpc_env_set_fault(env, me->fault_code_, "scripted fault");
        if (me->fault_code_ || !me->reply_) return nullptr;
        xmlrpc_INCREF(me->reply_.get());
        return me->reply_.get();
    }
    mutable std::mutex mutex_;
    std::string last_;
    xmlrpc_value_ref reply_;
    int fault_code_ = 0;
    xmlrpc_registry* registry_ = nullptr;
    xmlrpc_server_abyss_t* abyss_ = nullptr;
    std::thread thread_;
};
