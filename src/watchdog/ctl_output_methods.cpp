// GetStdXXXBuf (captured output by stream offset) and GetAuth (secret check).
#include <cstdlib>
#include <cstring>

#include "banner.h"
#include "common/xmlrpc_raii.h"
#include "ctl.h"
#include "ctl_methods.h"
#include "ctl_output.h"
#include "ctl_reply.h"
#include "instance.h"
#include "log/log.h"

ctl_std_window ctl_std_window_for(uint64_t head, uint64_t tail, int64_t off)
{
    uint64_t start;
    if (off < 0 || static_cast<uint64_t>(off) < head)
        start = head;
    else if (static_cast<uint64_t>(off) > tail)
        start = tail;
    else
        start = static_cast<uint64_t>(off);
    uint64_t end = tail - start > CTL_STD_CHUNK_MAX ? start + CTL_STD_CHUNK_MAX : tail;
    return {start, end};
}

CTL_METHOD(GetStdXXXBuf)
{
    (void)call_info;
    instance* inst = static_cast<instance*>(server_info);

    xmlrpc_int32 idx = 0;
    xmlrpc_int32 file_no = 0;
    xmlrpc_int64 off = 0;
    decoded_text ptr;
    xmlrpc_decompose_value(env, params, "(isIi)", &idx, ptr.out(), &off, &file_no);
    if (env->fault_occurred) {
        // Older front ends send the offset as decimal text.
        xmlrpc_env_clean(env);
        xmlrpc_env_init(env);
        decoded_text off_text;
        xmlrpc_decompose_value(env, params, "(issi)", &idx, ptr.out(), off_text.out(), &file_no);
        if (env->fault_occurred) return ctl_decode_failed(__func__, "'idx', 'ptr', 'off', 'file_no'");
        decoded_adopt(off_text);
        off = strtoll(off_text.get(), nullptr, 10);
    }
    decoded_adopt(ptr);

    instance_lock_guard hold(inst);
    int slot = ctl_app_resolve(inst, __func__, idx, ptr.get());
    if (slot < 0) return ctl_reply_ret(env, CTL_RET_NO_APP);
    // Only stdin, stdout and stderr have a capture record.
    if (file_no < 0 || file_no >= STD_STREAMS) {
        log_printf(LOG_ERROR, "%s: file_no=%d has no capture record", __func__, file_no);
        return ctl_reply_ret(env, CTL_RET_NO_APP);
    }

    const std_ring& ring = inst->apps[slot]->std_bufs[file_no];
    ctl_std_window w = ctl_std_window_for(ring.head, ring.tail, off);
    // A ring that never received a byte has no storage yet and reads as empty.
    if (!ring.buf) w.end = w.start;
    const unsigned char* bytes =
        ring.buf ? reinterpret_cast<const unsigned char*>(ring.buf.get()) + (w.start - ring.head) : nullptr;
    static const unsigned char nothing = 0;
    return xmlrpc_build_value(env, "{s:i,s:s,s:I,s:I,s:I,s:i,s:6}", "ret", slot, "ptr", ptr.get(), "off",
                              static_cast<xmlrpc_int64>(w.end), "head", static_cast<xmlrpc_int64>(ring.head),
                              "tail", static_cast<xmlrpc_int64>(ring.tail), "file_no", file_no, "buf",
                              bytes ? bytes : &nothing, static_cast<size_t>(w.end - w.start));
}

CTL_METHOD(GetAuth)
{
    (void)call_info;
    // No lock: the secret is fixed once the options have been read.
    const instance* inst = static_cast<const instance*>(server_info);

    decoded_text secret, session;
    xmlrpc_decompose_value(env, params, "(ss)", secret.out(), session.out());
    if (env->fault_occurred) return ctl_decode_failed(__func__, "'secret', 'session'");
    decoded_adopt(secret, session);

    const char* token = watchdog_banner();
    bool accepted = inst->web_auth_secret.empty() ||
                    (session.get()[0] && strcmp(session.get(), token) == 0) ||
                    strcmp(secret.get(), inst->web_auth_secret.c_str()) == 0;
    return xmlrpc_build_value(env, "{s:i,s:s}", "ret", accepted ? CTL_RET_AUTH_ACCEPTED : CTL_RET_AUTH_REFUSED,
                              "session", accepted ? token : "");
}
