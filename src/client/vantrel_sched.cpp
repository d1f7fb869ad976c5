// Scheduler client: request + call here, decoding in the *_decode functions.
#include "vantrel_sched.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vantrel_decode_sched.h"
#include "vantrel_internal.h"

using namespace vantrel;

namespace {

constexpr const char* m_add_item = "VantrelSched.SchedAddItem";
constexpr const char* m_delete_item = "VantrelSched.SchedDeleteItem";
constexpr const char* m_enable_item = "VantrelSched.SchedEnableItem";
constexpr const char* m_expand_curr = "VantrelSched.SchedExpandCurr";
constexpr const char* m_get_item = "VantrelSched.SchedGetItem";
constexpr const char* m_list_items = "VantrelSched.SchedListItems";
constexpr const char* m_list_logs = "VantrelSched.SchedListLogs";
constexpr const char* m_get_state = "VantrelSched.SchedGetState";

constexpr std::size_t text_size = VANTREL_STR_SIZE;

// The walk shared by the item and log listings: any bad element discards
// everything gathered; `order` arranges the finished list.
template <typename T, typename Order>
int decode_listing(xmlrpc_env* env, xmlrpc_value* answer, const char* fn, const char* method,
                   int (*decompose)(xmlrpc_env*, xmlrpc_value*, T**), T*** out, Order order)
{
    if (!out) return VANTREL_EINVAL;
    *out = nullptr;
    decoded_value array;
    int size = 0;
    int result = result_and_list(env, fn, method, answer, array, &size);
    if (result < 0) return result;
    vantrel::list<T> records;
    if (!records.ok()) return VANTREL_ENOMEM;
    int rc = for_each_element(env, fn, array.get(), size, [&](xmlrpc_value* element, int) {
        T* record = nullptr;
        int decoded = decompose(env, element, &record);  // the decomposer wrote its line
        if (decoded < 0) return decoded;
        return records.push(record) ? 0 : VANTREL_ENOMEM;
    });
    if (rc < 0) return rc;
    order(records.data(), records.size());
    int count = records.size();
    *out = records.release();
    return count;
}

// Schedulers before the transfer settings send no "start_time", "transfer"
// or "prefix": those stay zero/empty. A member of the wrong type is reported
// and left empty too, as the item is still usable without it.
void take_optional(xmlrpc_env* env, xmlrpc_value* item, const char* key, int32_t* number,
                   char* text)
{
    static const char* const fn = "vantrel_sched_item_decompose";
    xmlrpc_value* found = nullptr;
    xmlrpc_struct_find_value(env, item, key, &found);
    xmlrpc_value_ref held(found);
    if (!env->fault_occurred && !found) return;
    if (!env->fault_occurred) {
        if (number) {
            int value = 0;
            xmlrpc_decompose_value(env, found, "i", &value);
            if (!env->fault_occurred) *number = value;
        } else {
            decoded_text value;
            xmlrpc_decompose_value(env, found, "s", value.out());
            if (!env->fault_occurred) {
                decoded_adopt(value);
                str_copy(text, value.get(), text_size);
            }
        }
    }
    if (env->fault_occurred) {
        report_decompose_failed(env, fn);
        clear_fault(env);
    }
}

}  // namespace

int vantrel_sched_item_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_sched_item** out)
{
    static const char* const fn = "vantrel_sched_item_decompose";
    if (!out) return VANTREL_EINVAL;
    *out = nullptr;
    owned<vantrel_sched_item> record(new_record<vantrel_sched_item>());
    if (!record) return VANTREL_ENOMEM;
    vantrel_sched_item* r = record.get();
    int duration = 0, tc = 0, id = 0, enabled = 0;
    xmlrpc_int64 min = 0, hour = 0, day = 0, weekday = 0, month = 0, year = 0, calc = 0;
    decoded_text path, title, mode, enc;
    if (!item) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no item value");
    else
        xmlrpc_decompose_value(
            env, item, "{s:i,s:i,s:i,s:i,s:s,s:s,s:I,s:I,s:I,s:I,s:I,s:I,s:I,s:s,s:s,*}",
            "duration", &duration, "tc", &tc, "id", &id, "enabled", &enabled, "path", path.out(),
            "title", title.out(), "min", &min, "hour", &hour, "day", &day, "weekday", &weekday,
            "month", &month, "year", &year, "calc", &calc, "mode", mode.out(), "enc", enc.out());
    if (env->fault_occurred) {
        report_decompose_failed(env, fn);
        return VANTREL_EFAULT;
    }
    decoded_adopt(path, title, mode, enc);
    r->duration = duration;
    r->tc = tc;
    r->id = id;
    r->enabled = enabled;
    str_copy(r->path, path.get(), text_size);
    str_copy(r->title, title.get(), text_size);
    r->min = min;
    r->hour = hour;
    r->day = day;
    r->weekday = weekday;
    r->month = month;
    r->year = year;
    r->calc = calc;
    str_copy(r->mode, mode.get(), text_size);
    str_copy(r->enc, enc.get(), text_size);
    take_optional(env, item, "start_time", &r->start_time, nullptr);
    take_optional(env, item, "transfer", nullptr, r->transfer);
    take_optional(env, item, "prefix", nullptr, r->prefix);
    *out = record.release();
    return 0;
}

int vantrel_sched_log_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_sched_log** out)
{
    static const char* const fn = "vantrel_sched_log_decompose";
    if (!out) return VANTREL_EINVAL;
    *out = nullptr;
    owned<vantrel_sched_log> record(new_record<vantrel_sched_log>());
    if (!record) return VANTREL_ENOMEM;
    int duration = 0, tc = 0, status = 0, start_time = 0;
    xmlrpc_int64 start = 0, calc = 0;
    decoded_text origin, mode, enc, transfer, prefix;
    if (!item) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no item value");
    else
        xmlrpc_decompose_value(env, item, "{s:i,s:i,s:i,s:s,s:I,s:I,s:s,s:s,s:i,s:s,s:s,*}",
                               "duration", &duration, "tc", &tc, "status", &status, "origin",
                               origin.out(), "start", &start, "calc", &calc, "mode", mode.out(),
                               "enc", enc.out(), "start_time", &start_time, "transfer",
                               transfer.out(), "prefix", prefix.out());
    if (env->fault_occurred) {
        report_decompose_failed(env, fn);
        return VANTREL_EFAULT;
    }
    decoded_adopt(origin, mode, enc, transfer, prefix);
    vantrel_sched_log* r = record.get();
    r->start = start;
    r->calc = calc;
    r->status = status;
    r->start_time = start_time;
    r->duration = duration;
    r->tc = tc;
    str_copy(r->origin, origin.get(), text_size);
    str_copy(r->mode, mode.get(), text_size);
    str_copy(r->enc, enc.get(), text_size);
    str_copy(r->transfer, transfer.get(), text_size);
    str_copy(r->prefix, prefix.get(), text_size);
    *out = record.release();
    return 0;
}

int vantrel_sched_item_get_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                  vantrel_sched_item** item)
{
    static const char* const fn = "vantrel_sched_item_get";
    if (!item) return VANTREL_EINVAL;
    *item = nullptr;
    decoded_value found;
    int result = result_and_item(env, fn, answer, found);
    if (result != 0) return result;
    return vantrel_sched_item_decompose(env, found.get(), item);
}

int vantrel_sched_item_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_sched_item*** list)
{
    auto by_calc = [](vantrel_sched_item** items, int count) {
        selection_sort(items, count, [](const vantrel_sched_item* a, const vantrel_sched_item* b) {
            return a->calc < b->calc;
        });
    };
    return decode_listing<vantrel_sched_item>(env, answer, "vantrel_sched_item_list", m_list_items,
                                              vantrel_sched_item_decompose, list, by_calc);
}

int vantrel_sched_log_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                  vantrel_sched_log*** list)
{
    // The log is shown in the scheduler's own order.
    auto as_sent = [](vantrel_sched_log**, int) {};
    return decode_listing<vantrel_sched_log>(env, answer, "vantrel_sched_log_list", m_list_logs,
                                             vantrel_sched_log_decompose, list, as_sent);
}

int vantrel_sched_get_state_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_sched_state* state)
{
    static const char* const fn = "vantrel_sched_get_state";
    if (!state) return VANTREL_EINVAL;
    memset(state, 0, sizeof(*state));
    int result = 0;
    decoded_value now;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    else xmlrpc_decompose_value(env, answer, "{s:i,s:S,*}", "result", &result, "state", now.out());
    if (!env->fault_occurred) {
        decoded_adopt(now);
        state->state = result;
        decoded_text s_now, s_first, s_second;
        xmlrpc_int64 t_now = 0, t_first = 0, t_second = 0;
        if (result != 0) {
            int status = 0, duration = 0;
            xmlrpc_decompose_value(env, now.get(), "{s:i,s:i,s:s,s:I,s:s,s:I,s:s,s:I,*}", "status",
                                   &status, "duration", &duration, "s_now", s_now.out(), "t_now",
                                   &t_now, "s_start", s_first.out(), "t_start", &t_first, "s_end",
                                   s_second.out(), "t_end", &t_second);
            if (!env->fault_occurred) {
                decoded_adopt(s_now, s_first, s_second);
                state->status = status;
                state->duration = duration;
                state->t_start = t_first;
                state->t_end = t_second;
                str_copy(state->s_start, s_first.get(), text_size);
                str_copy(state->s_end, s_second.get(), text_size);
            }
        } else {
            xmlrpc_decompose_value(env, now.get(), "{s:s,s:I,s:s,s:I,*}", "s_now", s_now.out(),
                                   "t_now", &t_now, "s_next", s_first.out(), "t_next", &t_first);
            if (!env->fault_occurred) {
                decoded_adopt(s_now, s_first);
                state->t_next = t_first;
                str_copy(state->s_next, s_first.get(), text_size);
            }
        }
        if (!env->fault_occurred) {
            state->t_now = t_now;
            str_copy(state->s_now, s_now.get(), text_size);
        }
    }
    if (env->fault_occurred) {
        fprintf(stderr, "%s: decompose value failed: %s (%d) [%s:%d]\n", fn, fault_text(env),
                env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    return result;
}

int vantrel_sched_item_add(const char* url, const vantrel_sched_item* item)
{
    if (!item) return VANTREL_EINVAL;
    const vantrel_sched_item& i = *item;
    return std_call("vantrel_sched_item_add", url, m_add_item, "(IIIIIIiiissssiss)",
                    xmlrpc_int64{i.min}, xmlrpc_int64{i.hour}, xmlrpc_int64{i.day},
                    xmlrpc_int64{i.weekday}, xmlrpc_int64{i.month}, xmlrpc_int64{i.year},
                    int{i.enabled}, int{i.duration}, int{i.tc}, i.title, i.path, i.mode,
                    i.enc, int{i.start_time}, i.transfer, i.prefix);
}

int vantrel_sched_item_del(const char* url, int id)
{
    return std_call("vantrel_sched_item_del", url, m_delete_item, "(i)", id);
}

int vantrel_sched_item_enable(const char* url, int id, int enable)
{
    return std_call("vantrel_sched_item_enable", url, m_enable_item, "(ii)", id, enable);
}

int vantrel_sched_expand_curr(const char* url, int arg)
{
    return std_call("vantrel_sched_expand_curr", url, m_expand_curr, "(i)", arg);
}

int vantrel_sched_item_get(const char* url, int id, vantrel_sched_item** item)
{
    if (!item) return VANTREL_EINVAL;
    *item = nullptr;
    auto report = [id](const xmlrpc_env* env) {
        fprintf(stderr, "vantrel_sched_item_get: xmlrpc_client_callX(%d) failed: %s (%d)", id,
                fault_text(env), env->fault_code);
    };
    auto decode = [item](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_sched_item_get_decode(env, answer, item);
    };
    return call_reported(report, decode, url, m_get_item, "(i)", id);
}

int vantrel_sched_item_list(const char* url, vantrel_sched_item*** list)
{
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_sched_item_list_decode(env, answer, list);
    };
    return call_with("vantrel_sched_item_list", url, m_list_items, decode, "()");
}

int vantrel_sched_log_list(const char* url, vantrel_sched_log*** list)
{
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_sched_log_list_decode(env, answer, list);
    };
    return call_with("vantrel_sched_log_list", url, m_list_logs, decode, "()");
}

int vantrel_sched_get_state(const char* url, vantrel_sched_state* state)
{
    if (!state) return VANTREL_EINVAL;
    memset(state, 0, sizeof(*state));
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_sched_get_state_decode(env, answer, state);
    };
    return call_with("vantrel_sched_get_state", url, m_get_state, decode, "()");
}
