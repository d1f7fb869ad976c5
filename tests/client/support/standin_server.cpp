#include "standin_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vantrel_call.h"

namespace standin {
namespace {

void escape_into(std::string& out, const char* bytes, std::size_t len)
{
    for (std::size_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(bytes[i]);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                char hex[8];
                snprintf(hex, sizeof hex, "\\x%02x", c);
                out += hex;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
}

void render_into(std::string& out, xmlrpc_value* v, bool as_tuple)
{
    xmlrpc_env_guard env;
    switch (xmlrpc_value_type(v)) {
    case XMLRPC_TYPE_INT: {
        int n = 0;
        xmlrpc_read_int(env.get(), v, &n);
        out += std::to_string(n);
        break;
    }
    case XMLRPC_TYPE_I8: {
        xmlrpc_int64 n = 0;
        xmlrpc_read_i8(env.get(), v, &n);
        out += std::to_string(static_cast<long long>(n)) + "L";
        break;
    }
    case XMLRPC_TYPE_BOOL: {
        xmlrpc_bool b = 0;
        xmlrpc_read_bool(env.get(), v, &b);
        out += b ? "true" : "false";
        break;
    }
    case XMLRPC_TYPE_DOUBLE: {
        double d = 0;
        xmlrpc_read_double(env.get(), v, &d);
        char text[64];
        snprintf(text, sizeof text, "%.15g", d);
        out += text;
        if (!strpbrk(text, ".eni")) out += ".0";
        break;
    }
    case XMLRPC_TYPE_STRING: {
        size_t len = 0;
        const char* text = nullptr;
        xmlrpc_read_string_lp(env.get(), v, &len, &text);
        out += '"';
        if (text) escape_into(out, text, len);
        out += '"';
        free(const_cast<char*>(text));
        break;
    }
    case XMLRPC_TYPE_BASE64: {
        size_t len = 0;
        const unsigned char* bytes = nullptr;
        xmlrpc_read_base64(env.get(), v, &len, &bytes);
        out += "b\"";
        if (bytes) escape_into(out, reinterpret_cast<const char*>(bytes), len);
        out += '"';
        free(const_cast<unsigned char*>(bytes));
        break;
    }
    case XMLRPC_TYPE_NIL: out += "nil"; break;
    case XMLRPC_TYPE_DATETIME: out += "datetime"; break;
    case XMLRPC_TYPE_ARRAY: {
        out += as_tuple ? '(' : '[';
        int size = xmlrpc_array_size(env.get(), v);
        for (int i = 0; i < size && !env.failed(); ++i) {
            value item;
            xmlrpc_array_read_item(env.get(), v, i, item.out());
            if (env.failed()) break;
            if (i) out += ',';
            render_into(out, item.get(), false);
        }
        out += as_tuple ? ')' : ']';
        break;
    }
    case XMLRPC_TYPE_STRUCT: {
        out += '{';
        int size = xmlrpc_struct_size(env.get(), v);
        for (int i = 0; i < size && !env.failed(); ++i) {
            value key, member;
            xmlrpc_struct_read_member(env.get(), v, i, key.out(), member.out());
            if (env.failed()) break;
            if (i) out += ',';
            render_into(out, key.get(), false);
            out += ':';
            render_into(out, member.get(), false);
        }
        out += '}';
        break;
    }
    default: out += "?"; break;
    }
}

}  // namespace

std::string render(xmlrpc_value* v)
{
    std::string out;
    if (v) render_into(out, v, false);
    return out;
}

std::string render_params(xmlrpc_value* params)
{
    std::string out;
    if (params) render_into(out, params, true);
    return out;
}

value build(const char* format, ...)
{
    xmlrpc_env_guard env;
    va_list args;
    va_start(args, format);
    value built;
    const char* tail = nullptr;
    xmlrpc_build_value_va(env.get(), format, args, built.out(), &tail);
    va_end(args);
    if (env.failed()) {
        ADD_FAILURE() << "cannot build answer " << format << ": " << env.fault_string();
        return value();
    }
    return built;
}

value result_only(int result) { return build("{s:i}", "result", result); }
value missing_result() { return build("{s:i}", "status", 0); }
value result_of_wrong_type() { return build("{s:s}", "result", "0"); }

value with_member(int result, const char* key, xmlrpc_value* member)
{
    return build("{s:i,s:V}", "result", result, key, member);
}

value with_list(int result, xmlrpc_value* list) { return with_member(result, "list", list); }

value empty_array() { return build("()"); }

value string_array(std::initializer_list<const char*> items)
{
    value array = empty_array();
    for (const char* item : items) {
        value text = build("s", item);
        push(array.get(), text.get());
    }
    return array;
}

value string_rows(std::initializer_list<const char*> items)
{
    value array = empty_array();
    for (const char* item : items) {
        value row = build("(s)", item);
        push(array.get(), row.get());
    }
    return array;
}

value with_bad_element(xmlrpc_value* list)
{
    value copy = empty_array();
    xmlrpc_env_guard env;
    int size = xmlrpc_array_size(env.get(), list);
    for (int i = 0; i < size; ++i) {
        value item;
        xmlrpc_array_read_item(env.get(), list, i, item.out());
        push(copy.get(), item.get());
    }
    value bad = build("i", 7);
    push(copy.get(), bad.get());
    return copy;
}

void push(xmlrpc_value* array, xmlrpc_value* item)
{
    xmlrpc_env_guard env;
    xmlrpc_array_append_item(env.get(), array, item);
    if (env.failed()) ADD_FAILURE() << "cannot append: " << env.fault_string();
}

server::server()
{
    static std::once_flag global_once;
    std::call_once(global_once, [] {
        xmlrpc_env_guard env;
        xmlrpc_server_abyss_global_init(env.get());
        // A client that goes away must not kill the test process.
        signal(SIGPIPE, SIG_IGN);
    });

    xmlrpc_env_guard env;
    registry_ = xmlrpc_registry_new(env.get());
    if (env.failed()) return;
    xmlrpc_registry_set_default_method(env.get(), registry_, &server::handle, this);
    if (env.failed()) return;

    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(fd);
        return;
    }
    port_ = ntohs(addr.sin_port);

    xmlrpc_server_abyss_parms parms{};
    parms.config_file_name = nullptr;
    parms.registryP = registry_;
    parms.keepalive_timeout = 1;
    parms.keepalive_max_conn = 1;   // one request per connection: stopping never waits
    parms.timeout = 5;
    parms.dont_advertise = 1;
    parms.socket_bound = 1;
    parms.socket_handle = fd;
    xmlrpc_server_abyss_create(env.get(), &parms, XMLRPC_APSIZE(socket_handle), &abyss_);
    if (env.failed()) {
        close(fd);
        abyss_ = nullptr;
        return;
    }
    thread_ = std::thread([this] {
        xmlrpc_env_guard run_env;
        xmlrpc_server_abyss_run_server(run_env.get(), abyss_);
    });
    running_ = true;
}

server::~server()
{
    if (abyss_) {
        xmlrpc_env_guard env;
        xmlrpc_server_abyss_terminate(env.get(), abyss_);
        if (thread_.joinable()) thread_.join();
        xmlrpc_server_abyss_destroy(abyss_);
    }
    if (registry_) xmlrpc_registry_free(registry_);
}

std::string server::url() const
{
    return "http://127.0.0.1:" + std::to_string(port_) + "/RPC2";
}

void server::answer(value reply)
{
    std::lock_guard<std::mutex> hold(mutex_);
    reply_ = std::move(reply);
    fault_code_ = 0;
}

void server::answer_once(value reply)
{
    std::lock_guard<std::mutex> hold(mutex_);
    once_.push_back(std::move(reply));
}

void server::answer_fault(int code, const std::string& text)
{
    std::lock_guard<std::mutex> hold(mutex_);
    fault_code_ = code;
    fault_text_ = text;
}

std::vector<std::string> server::methods() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    std::vector<std::string> names;
    for (const auto& call : calls_) names.push_back(call.method);
    return names;
}

std::size_t server::call_count() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return calls_.size();
}

std::string server::last_method() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return calls_.empty() ? std::string() : calls_.back().method;
}

std::string server::last_params() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    return calls_.empty() ? std::string() : calls_.back().params;
}

value server::last_raw() const
{
    std::lock_guard<std::mutex> hold(mutex_);
    if (calls_.empty() || !calls_.back().raw) return value();
    xmlrpc_INCREF(calls_.back().raw.get());
    return value(calls_.back().raw.get());
}

xmlrpc_value* server::handle(xmlrpc_env* env, const char*, const char* method,
                             xmlrpc_value* params, void* self)
{
    return static_cast<server*>(self)->reply_to(env, method, params);
}

xmlrpc_value* server::reply_to(xmlrpc_env* env, const char* method, xmlrpc_value* params)
{
    std::lock_guard<std::mutex> hold(mutex_);
    recorded_call call;
    call.method = method ? method : "";
    call.params = render_params(params);
    if (params) xmlrpc_INCREF(params);
    call.raw.reset(params);
    calls_.push_back(std::move(call));

    if (!once_.empty()) {
        value next = std::move(once_.front());
        once_.pop_front();
        if (next) return next.release();
    }
    if (fault_code_ != 0) {
        xmlrpc_env_set_fault(env, fault_code_, fault_text_.c_str());
        return nullptr;
    }
    if (!reply_) {
        xmlrpc_env_set_fault(env, -501, "stand-in has no answer scripted");
        return nullptr;
    }
    xmlrpc_INCREF(reply_.get());
    return reply_.get();
}

void standin_test::SetUp()
{
    ASSERT_TRUE(stub.running()) << "stand-in server did not start";
    url_ = stub.url();
    ASSERT_EQ(0, vantrel_init("client-tests", "1.0"));
}

void standin_test::TearDown() { vantrel_cleanup(); }

}  // namespace standin
