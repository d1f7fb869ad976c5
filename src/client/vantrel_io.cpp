// Playout, playlist and recording control: "VantrelIO." methods and the UDP
// transport datagrams.
#include "vantrel_io.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vantrel_decode.h"
#include "vantrel_internal.h"

using namespace vantrel;

namespace {

// Host part of a UDP destination: 135 characters and the terminator.
constexpr std::size_t udp_host_size = 136;

// The request form of a playlist item. The fields are copied bounded first:
// a caller's record need not be terminated. (A trailing "*" in a build
// format makes xmlrpc-c read one argument too many, so none is used.)
xmlrpc_value* build_item(xmlrpc_env* env, const vantrel_playlist_item* item)
{
    char name[VANTREL_STR_SIZE], overlay_name[VANTREL_STR_SIZE], overlay_pos[VANTREL_STR_SIZE],
        cookie[VANTREL_STR_SIZE], amap[VANTREL_STR_SIZE];
    str_copy(name, item->name, sizeof name);
    str_copy(overlay_name, item->overlay_name, sizeof overlay_name);
    str_copy(overlay_pos, item->overlay_pos, sizeof overlay_pos);
    str_copy(cookie, item->cookie, sizeof cookie);
    str_copy(amap, item->amap, sizeof amap);
    return xmlrpc_build_value(env, "{s:s,s:i,s:i,s:s,s:s,s:s,s:s}", "name", name, "in", item->in,
                              "dur", item->dur, "overlay_name", overlay_name, "overlay_pos",
                              overlay_pos, "cookie", cookie, "amap", amap);
}

}  // namespace

int vantrel_result_decode(xmlrpc_env* env, const char* fn, const char* method,
                          xmlrpc_value* answer)
{
    return decode_result(env, fn, method, answer);
}

int vantrel_play(const char* url) { return vantrel_method_no_arg(url, "VantrelIO.Play"); }
int vantrel_pause(const char* url) { return vantrel_method_no_arg(url, "VantrelIO.Pause"); }
int vantrel_stop(const char* url) { return vantrel_method_no_arg(url, "VantrelIO.Stop"); }
int vantrel_cue_play(const char* url) { return vantrel_method_no_arg(url, "VantrelIO.CuePlay"); }
int vantrel_playlist_clear(const char* url)
{
    return vantrel_method_no_arg(url, "VantrelIO.PlaylistClear");
}
int vantrel_record(const char* url) { return vantrel_method_no_arg(url, "VantrelIO.Record"); }

int vantrel_play_vari(const char* url, double speed)
{
    return std_call(__func__, url, "VantrelIO.Play", "(d)", speed);
}

int vantrel_cue_play_with_data(const char* url, int data)
{
    return std_call(__func__, url, "VantrelIO.CuePlayWithData", "(i)", data);
}

int vantrel_playlist_append(const char* url, const char* name, int in, int dur,
                            const char* overlay_name, const char* overlay_pos,
                            const char* cookie)
{
    // The name is required; the C library cannot send a null string.
    if (!name) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelIO.PlaylistAppend", "(siisss)", name, in, dur,
                    or_empty(overlay_name), or_empty(overlay_pos), or_empty(cookie));
}

int vantrel_playlist_insert(const char* url, int at, const char* name, int in, int dur,
                            const char* overlay_name, const char* overlay_pos,
                            const char* cookie)
{
    if (!name) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelIO.PlaylistInsert", "(isiisss)", at, name, in, dur,
                    or_empty(overlay_name), or_empty(overlay_pos), or_empty(cookie));
}

int vantrel_playlist_remove(const char* url, int idx)
{
    return std_call(__func__, url, "VantrelIO.PlaylistRemove", "(i)", idx);
}

int vantrel_playlist_repeat_clip(const char* url, int idx, int repeat)
{
    return std_call(__func__, url, "VantrelIO.PlaylistRepeatClip", "(ii)", idx, repeat);
}

int vantrel_playlist_resize_clip(const char* url, int idx, int in, int dur)
{
    return std_call(__func__, url, "VantrelIO.PlaylistResizeClip", "(iii)", idx, in, dur);
}

int vantrel_playlist_move(const char* url, int from, int to)
{
    return std_call(__func__, url, "VantrelIO.PlaylistMove", "(ii)", from, to);
}

int vantrel_playlist_loop(const char* url, int loop)
{
    return std_call(__func__, url, "VantrelIO.PlaylistLoop", "(i)", loop);
}

int vantrel_playlist_seek_to(const char* url, int idx, int pos)
{
    return std_call(__func__, url, "VantrelIO.PlaylistSeekTo", "(ii)", idx, pos);
}

int vantrel_playlist_seek(const char* url, int pos)
{
    return std_call(__func__, url, "VantrelIO.PlaylistSeek", "(i)", pos);
}

int vantrel_playlist_step(const char* url, int step)
{
    return std_call(__func__, url, "VantrelIO.PlaylistStep", "(i)", step);
}

int vantrel_playlist_insert2(const char* url, int at, const vantrel_playlist_item* item)
{
    if (!item) return VANTREL_EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_value_ref record(build_item(env.get(), item));
    if (env.failed()) return VANTREL_EFAULT;
    return std_call(__func__, url, "VantrelIO.PlaylistInsert2", "(iS)", at, record.get());
}

int vantrel_playlist_append2(const char* url, const vantrel_playlist_item* item)
{
    if (!item) return VANTREL_EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_value_ref record(build_item(env.get(), item));
    if (env.failed()) return VANTREL_EFAULT;
    return std_call(__func__, url, "VantrelIO.PlaylistAppend2", "(S)", record.get());
}

namespace vantrel {

xmlrpc_value* build_string_array(xmlrpc_env* env, int count, const char* const* items)
{
    if (count < 0) {
        count = 0;
        while (items && items[count]) ++count;
    }
    xmlrpc_value_ref array(xmlrpc_array_new(env));
    for (int i = 0; !env->fault_occurred && items && i < count; ++i) {
        if (!items[i]) continue;
        xmlrpc_value_ref text(xmlrpc_string_new(env, items[i]));
        if (!env->fault_occurred) xmlrpc_array_append_item(env, array.get(), text.get());
    }
    if (env->fault_occurred) return nullptr;
    return array.release();
}

xmlrpc_value* build_variables(xmlrpc_env* env, int count, const char* const* names,
                              const char* const* values)
{
    if (!names || !values) count = 0;
    if (count < 0) {
        count = 0;
        while (names[count] && values[count]) ++count;
    }
    xmlrpc_value_ref vars(xmlrpc_struct_new(env));
    for (int i = 0; !env->fault_occurred && i < count; ++i) {
        if (!names[i] || !values[i]) continue;
        xmlrpc_value_ref text(xmlrpc_string_new(env, values[i]));
        if (!env->fault_occurred) xmlrpc_struct_set_value(env, vars.get(), names[i], text.get());
    }
    if (env->fault_occurred) return nullptr;
    return vars.release();
}

}  // namespace vantrel

int vantrel_playlist_insert_template(const char* url, int at, const char* name, int p1, int p2,
                                     int list_cnt, const char* const* list, int var_cnt,
                                     const char* const* var_names,
                                     const char* const* var_values, const char* last)
{
    if (!name) return VANTREL_EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_value_ref vars(build_variables(env.get(), var_cnt, var_names, var_values));
    xmlrpc_value_ref array;
    if (!env.failed()) array.reset(build_string_array(env.get(), list_cnt, list));
    if (env.failed()) return VANTREL_EFAULT;
    return std_call(__func__, url, "VantrelIO.PlaylistInsertTemplate", "(isiiASs)", at, name, p1,
                    p2, array.get(), vars.get(), or_empty(last));
}

int vantrel_cue_record_with_data(const char* url, const char* name, int p1, int p2,
                                 const char* data)
{
    if (!name) return VANTREL_EINVAL;
    if (!data)
        return std_call(__func__, url, "VantrelIO.CueRecordWithData", "(sii)", name, p1, p2);
    return std_call(__func__, url, "VantrelIO.CueRecordWithData", "(siis)", name, p1, p2, data);
}

int vantrel_cue_record(const char* url, const char* name, const char* data)
{
    if (!name) return VANTREL_EINVAL;
    if (!data) return std_call(__func__, url, "VantrelIO.CueRecord", "(s)", name);
    return std_call(__func__, url, "VantrelIO.CueRecord", "(ss)", name, data);
}

int vantrel_record_next(const char* url, const char* name, const char* data)
{
    if (!name) return VANTREL_EINVAL;
    if (!data) return std_call(__func__, url, "VantrelIO.RecordNext", "(s)", name);
    return std_call(__func__, url, "VantrelIO.RecordNext", "(ss)", name, data);
}

int vantrel_record_pause(const char* url, int pause)
{
    return std_call(__func__, url, "VantrelIO.RecordPause", "(i)", pause);
}

int vantrel_getstatus_decode(xmlrpc_env* env, xmlrpc_value* answer, vantrel_status* st)
{
    static const char* const fn = "vantrel_getstatus";
    int result = 0;
    decoded_text name, cookie;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    if (!env->fault_occurred) {
        xmlrpc_decompose_value(env, answer, "{s:i,s:i,s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i,*}",
                               "result", &result, "status", &st->status, "name", name.out(),
                               "cookie", cookie.out(), "loop", &st->loop, "clip_length",
                               &st->clip_length, "clip_in", &st->clip_in, "clip_dur",
                               &st->clip_dur, "clip_pos", &st->clip_pos, "clip_start",
                               &st->clip_start, "clip_idx", &st->clip_idx);
        // Ours from here, whatever the second decomposition does.
        if (!env->fault_occurred) decoded_adopt(name, cookie);
    }
    if (!env->fault_occurred)
        xmlrpc_decompose_value(env, answer, "{s:i,s:i,s:i,s:i,s:d,s:i,s:i,s:i,*}", "playlist_gen",
                               &st->playlist_gen, "playlist_dur", &st->playlist_dur,
                               "playlist_pos", &st->playlist_pos, "playlist_count",
                               &st->playlist_count, "playlist_speed", &st->playlist_speed,
                               "rec_paused", &st->rec_paused, "tc_frames", &st->tc_frames,
                               "tc_src", &st->tc_src);
    if (env->fault_occurred) {
        fprintf(stderr, "%s: decompose value failed: %s (%d) [%s:%d]\n", fn, fault_text(env),
                env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    str_copy(st->name, name.get(), sizeof st->name);
    str_copy(st->cookie, cookie.get(), sizeof st->cookie);
    return result;
}

int vantrel_getstatus(const char* url, vantrel_status* status)
{
    if (!status) return VANTREL_EINVAL;
    memset(status, 0, sizeof *status);
    return call_with(
        __func__, url, "VantrelIO.GetStatus",
        [status](xmlrpc_env* env, xmlrpc_value* answer) {
            return vantrel_getstatus_decode(env, answer, status);
        },
        "()");
}

namespace {

int playlist_items_iter(xmlrpc_env* env, xmlrpc_value* element, void* ctx, int index, int count)
{
    static const char* const fn = "vantrel_playlist_items_iters";
    auto* items = static_cast<vantrel_playlist_item**>(ctx);
    if (!*items) {
        *items = static_cast<vantrel_playlist_item*>(
            calloc(static_cast<std::size_t>(count), sizeof(vantrel_playlist_item)));
        if (!*items) {
            xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "out of memory");
            return VANTREL_ENOMEM;
        }
    }
    if (index < 0 || index >= count) {
        xmlrpc_env_set_fault(env, XMLRPC_INDEX_ERROR, "item index out of range");
        return VANTREL_EFAULT;
    }
    vantrel_playlist_item* item = &(*items)[index];
    decoded_text name, cookie;
    xmlrpc_decompose_value(env, element, "{s:s,s:s,s:i,s:i,s:i,s:i,s:i,s:i,s:i,*}", "name",
                           name.out(), "cookie", cookie.out(), "length", &item->length, "in",
                           &item->in, "dur", &item->dur, "pos", &item->pos, "start", &item->start,
                           "idx", &item->idx, "repeat", &item->repeat);
    if (env->fault_occurred) {
        fprintf(stderr, "%s: xmlrpc_array_read_item failed: %s (%d)", fn, fault_text(env),
                env->fault_code);
        return VANTREL_EFAULT;
    }
    decoded_adopt(name, cookie);
    str_copy(item->name, name.get(), sizeof item->name);
    str_copy(item->cookie, cookie.get(), sizeof item->cookie);
    return index + 1;
}

}  // namespace

int vantrel_playlist_items_decode(xmlrpc_env* env, xmlrpc_value* answer, int* gen, int* pos,
                                  int* idx, vantrel_playlist_item** items)
{
    static const char* const fn = "vantrel_playlist_items";
    if (!items) return VANTREL_EINVAL;
    *items = nullptr;
    vantrel_result_decode(env, fn, "VantrelIO.PlaylistItems", answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    int g = 0, p = 0, i = 0;
    xmlrpc_decompose_value(env, answer, "{s:i,s:i,s:i,*}", "gen", &g, "pos", &p, "idx", &i);
    if (env->fault_occurred) {
        report_decompose_value_failed(env, fn);
        return VANTREL_EFAULT;
    }
    if (gen) *gen = g;
    if (pos) *pos = p;
    if (idx) *idx = i;
    return parse_custom_list(fn, env, answer, "list", playlist_items_iter, items);
}

int vantrel_playlist_items(const char* url, int* gen, int* pos, int* idx,
                           vantrel_playlist_item** items)
{
    if (!items) return VANTREL_EINVAL;
    *items = nullptr;
    return call_with(
        __func__, url, "VantrelIO.PlaylistItems",
        [&](xmlrpc_env* env, xmlrpc_value* answer) {
            return vantrel_playlist_items_decode(env, answer, gen, pos, idx, items);
        },
        "()");
}

int vantrel_udp_send(const char* destination, const char* text)
{
    if (!destination || !text) return VANTREL_EINVAL;
    const char* colon = strchr(destination, ':');
    if (!colon) return VANTREL_EINVAL;
    std::size_t host_len = static_cast<std::size_t>(colon - destination);
    // A longer host part would be cut silently and name another host.
    if (host_len >= udp_host_size) return VANTREL_EINVAL;
    char host[udp_host_size];
    memcpy(host, destination, host_len);
    host[host_len] = '\0';
    auto port = static_cast<uint16_t>(strtol(colon + 1, nullptr, 10));

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    // getaddrinfo rather than gethostbyname: callers may be multithreaded.
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || !found) return VANTREL_EINVAL;
    sockaddr_in to{};
    memcpy(&to, found->ai_addr, sizeof to);
    freeaddrinfo(found);
    to.sin_family = AF_INET;
    to.sin_port = htons(port);

    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return -errno;
    ssize_t sent = sendto(fd, text, strlen(text) + 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    int send_errno = errno;
    close(fd);
    if (sent < 0) return -send_errno;
    return static_cast<int>(sent);
}

int vantrel_udp_play(const char* destination) { return vantrel_udp_send(destination, "VantrelIO.Play"); }
int vantrel_udp_pause(const char* destination) { return vantrel_udp_send(destination, "VantrelIO.Pause"); }
int vantrel_udp_stop(const char* destination) { return vantrel_udp_send(destination, "VantrelIO.Stop"); }
int vantrel_udp_record(const char* destination) { return vantrel_udp_send(destination, "VantrelIO.Record"); }
