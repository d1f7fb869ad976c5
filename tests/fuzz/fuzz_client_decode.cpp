// Every answer decoder of the client library, fed with arbitrary values.
//
// The input either is an XML-RPC response parsed by the library's own parser
// (when it starts with '<'), or is read as a small program that builds a value:
// a type byte, then its content. Struct keys come from the member names the
// decoders look for, so the fuzzer reaches the deep paths of each decoder
// instead of failing at the first lookup. Nothing is sent anywhere: the
// decoders never touch the transport. The decoders write their diagnostics
// to standard error; run with -close_fd_mask=2 to keep the fuzzer's output
// readable (crash reports still come through).
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <xmlrpc-c/base.h>

#include "byte_reader.h"
#include "client/vantrel.h"
#include "client/vantrel_decode.h"
#include "client/vantrel_decode_ft.h"
#include "client/vantrel_decode_lib.h"
#include "client/vantrel_decode_sched.h"
#include "client/vantrel_decode_wd.h"
#include "common/xmlrpc_raii.h"

namespace {

constexpr int DEPTH_MAX = 4;    // the deepest answer (overlays) is three levels
constexpr int MEMBERS_MAX = 12; // per array or struct
constexpr int CAPACITY = 3;     // caller arrays of the record-list functions

// The member names the decoders look for (the last line: supervisor replies).
const std::vector<std::string> keys = [] {
    std::istringstream names(
        "result list item name path value object cache_shm_id state st_ino st_size st_mtime st_ctime st_atime format_name duration "
        "duration_v duration_a nb_frames nb_streams width height display_aspect_ratio sample_aspect_ratio r_frame_rate sample_fmt sample_rate "
        "channels timecode subclips mark_in title thumb png size amend_idx total_items free_space total_space used_space amend_list cue_cnt "
        "cue_date tc id enabled min hour day weekday month year calc mode enc start_time transfer prefix status origin start s_now t_now "
        "s_start t_start s_end t_end s_next t_next type host port login passw target f_import f_delete object_local object_remote progress "
        "error updated created src_object src_local dst_object dst_local in dur factory profile audio_map audio_conf osd gen pos idx layers "
        "fonts modes submodes settings cookie loop clip_length clip_in clip_dur clip_pos clip_start clip_idx playlist_gen playlist_dur "
        "playlist_pos playlist_count playlist_speed rec_paused tc_frames tc_src length repeat family style desc osds count "
        "ret amend ptr pid started terminated f_autorun f_respawn err alias app_name version instance_name apps id_name config bin_path "
        "numa_bind raws envs off head tail file_no buf session ");
    return std::vector<std::string>(std::istream_iterator<std::string>(names), {});
}();

const char* const texts[] = {
    "", "0", "0.0", "1.5", "-3", "30000/1001", "16:9", "4", "x/2", "1:", "nan", "1e999",
    "2147483648", "00:00:00:00", "media/", "media", "Z", "a\tb",
};

xmlrpc_value* build(xmlrpc_env* env, byte_reader& in, int depth);

// Members (keys mostly known, now and then arbitrary printable: the value
// library itself crashes on a key that is not UTF-8, and its XML parser never
// hands one out) or items, added while the environment stays clean.
xmlrpc_value* build_compound(xmlrpc_env* env, byte_reader& in, int depth, bool is_struct, bool with_result)
{
    xmlrpc_value* v = is_struct ? xmlrpc_struct_new(env) : xmlrpc_array_new(env);
    if (!v) return nullptr;
    if (with_result) xmlrpc_struct_set_value(env, v, "result", xmlrpc_value_ref(xmlrpc_int_new(env, int8_t(in.u8()))).get());
    for (int i = in.u8() % (MEMBERS_MAX + 1); i > 0 && !env->fault_occurred; --i) {
        uint8_t pick = is_struct ? in.u8() : 0;
        std::string key = pick < 240 ? keys[pick % keys.size()] : in.bytes(in.u8() % 17);
        for (char& c : key) c = static_cast<char>(' ' + static_cast<unsigned char>(c) % 95);
        xmlrpc_value_ref member(build(env, in, depth + 1));
        if (env->fault_occurred) break;
        if (is_struct) xmlrpc_struct_set_value(env, v, key.c_str(), member.get());
        else xmlrpc_array_append_item(env, v, member.get());
    }
    if (env->fault_occurred) xmlrpc_DECREF(v);
    return env->fault_occurred ? nullptr : v;
}

xmlrpc_value* build(xmlrpc_env* env, byte_reader& in, int depth)
{
    uint8_t kind = in.u8() % 11;
    if (depth >= DEPTH_MAX && kind >= 9) kind = 0;
    std::string raw = kind == 6 || kind == 8 ? in.bytes(in.u8() % 65) : kind == 7 ? std::string(4096 + in.u8(), 'x') : "";
    switch (kind) {
    case 0: return xmlrpc_int_new(env, int8_t(in.u8()));
    case 1: return xmlrpc_int_new(env, static_cast<int>(in.u32()));
    case 2: return xmlrpc_i8_new(env, static_cast<xmlrpc_int64>((uint64_t{in.u32()} << 32) | in.u32()));
    case 3: return xmlrpc_double_new(env, static_cast<double>(static_cast<int32_t>(in.u32())) / 7.0);
    case 4: return xmlrpc_bool_new(env, in.u8() & 1);
    case 5: return xmlrpc_string_new(env, texts[in.u8() % (sizeof texts / sizeof texts[0])]);
    case 6:   // arbitrary bytes; where not acceptable as a string, a plain integer stands in
        if (xmlrpc_value* v = xmlrpc_string_new_lp(env, raw.size(), raw.data()); !env->fault_occurred) return v;
        xmlrpc_env_clean(env), xmlrpc_env_init(env);
        return xmlrpc_int_new(env, 0);
    case 7: return xmlrpc_string_new(env, raw.c_str());   // longer than every fixed field
    case 8: return xmlrpc_base64_new(env, raw.size(), reinterpret_cast<const unsigned char*>(raw.data()));
    default: return build_compound(env, in, depth, kind == 10, kind == 10 && (in.u8() & 1));
    }
}

template <typename T>
void free_records(T** list)
{
    for (T** r = list; r && *r; ++r) free(*r);
    free(list);
}

int count_names(xmlrpc_env* env, xmlrpc_value* item, void* ctx, int, int)
{
    decoded_text name;
    xmlrpc_decompose_value(env, item, "{s:s,*}", "name", name.out());
    if (!env->fault_occurred) decoded_adopt(name), ++*static_cast<int*>(ctx);
    return 0;
}

// Each decoder gets a fresh environment, as after a successful call.
#define DECODE(...) { xmlrpc_env_guard guard; xmlrpc_env* env = guard.get(); __VA_ARGS__; }

void decode_everything(xmlrpc_value* a)
{
    int n = 0, m = 0, k = 0;
    int64_t cnt = 0, date = 0;
    char** s = nullptr;
    char t[VANTREL_STR_SIZE], o[VANTREL_STR_SIZE];
    // call frame
    DECODE(vantrel_result_decode(env, "f", "M.m", a));
    DECODE(parse_custom_list("f", env, a, "list", count_names, &n));
    DECODE(parse_custom_list("f", env, a, nullptr, count_names, &n));
    DECODE(xmlrpc_INCREF(a); parse_simple_list_response("f", env, a, &s); vantrel_str_list_free(&s));   // takes its answer over
    // playout, templates, settings
    DECODE(auto st = std::make_unique<vantrel_status>(); vantrel_getstatus_decode(env, a, st.get()));
    DECODE(vantrel_playlist_item* i = nullptr; vantrel_playlist_items_decode(env, a, &n, &m, &k, &i); free(i));
    DECODE(vantrel_lib_tmpl_get_decode(env, a, &s); vantrel_str_list_free(&s));
    DECODE(vantrel_lib_tmpl_fonts_decode(env, "VantrelLib.TmplFonts", a, &s); vantrel_str_list_free(&s));
    DECODE(vantrel_lib_build_template_decode(env, a, t));
    DECODE(auto st = std::make_unique<vantrel_io_settings>(); vantrel_io_settings_get_decode(env, a, st.get()));
    DECODE(vantrel_io_mode** l = nullptr; vantrel_io_settings_get_modes_decode(env, a, &l); if (l) vantrel_io_settings_modes_free(&l));
    // media library
    DECODE(vantrel_lib_path_result_decode(env, "f", a));
    DECODE(vantrel_lib_meta* r = nullptr; vantrel_lib_meta_item_decompose(env, a, &r); free(r));
    DECODE(vantrel_lib_dir** l = nullptr; vantrel_lib_list_dirs_decode(env, a, "media", &l); free_records(l));
    DECODE(vantrel_lib_meta** l = nullptr; vantrel_lib_list_items_decode(env, a, "media/", &l); free_records(l));
    DECODE(vantrel_lib_meta* r = nullptr; vantrel_lib_meta_item_decode(env, a, "media/a", &r); free(r));
    DECODE(vantrel_lib_search_decode(env, a, "f", "M.m", t));
    DECODE(vantrel_lib_subclip** l = nullptr; vantrel_lib_list_subclips_decode(env, a, &l, 7); vantrel_lib_subclips_free(&l));
    DECODE(unsigned char* r = nullptr; uint32_t size = 0; vantrel_lib_thumb_decode(env, a, "f", "u", "M.m", "thumb", &r, &size); free(r));
    DECODE(vantrel_lib_overlay** l = nullptr; vantrel_lib_list_overlays_decode(env, a, &l); vantrel_lib_overlays_free(&l));
    DECODE(vantrel_lib_overlay** l = nullptr; vantrel_lib_list_overlays_level(env, a, 0, &l); vantrel_lib_overlays_free(&l));
    DECODE(vantrel_lib_usage* r = nullptr; vantrel_lib_state_decode(env, a, &r); free(r));
    DECODE(vantrel_lib_usage* r = nullptr; vantrel_lib_disk_usage_decode(env, a, &r); free(r));
    DECODE(vantrel_lib_register_cue_decode(env, a, &cnt, &date));
    DECODE(int32_t shm = 0; vantrel_basename_item_decode(env, a, t, o, &shm); vantrel_lib_basename_overlay_decode(env, a, t));
    // scheduler
    DECODE(vantrel_sched_item* r = nullptr; vantrel_sched_item_get_decode(env, a, &r); free(r));
    DECODE(vantrel_sched_item* r = nullptr; vantrel_sched_item_decompose(env, a, &r); free(r));
    DECODE(vantrel_sched_item** l = nullptr; vantrel_sched_item_list_decode(env, a, &l); free_records(l));
    DECODE(vantrel_sched_log** l = nullptr; vantrel_sched_log_list_decode(env, a, &l); free_records(l));
    DECODE(auto st = std::make_unique<vantrel_sched_state>(); vantrel_sched_get_state_decode(env, a, st.get()));
    // file transfer and transcoder
    DECODE(auto l = std::make_unique<vantrel_ft_target[]>(CAPACITY); vantrel_filetransfer_targets_list_decode(env, a, CAPACITY, l.get()));
    DECODE(auto l = std::make_unique<vantrel_ft_request[]>(CAPACITY); vantrel_filetransfer_requests_list_decode(env, a, CAPACITY, l.get()));
    DECODE(auto l = std::make_unique<vantrel_ftc_request[]>(CAPACITY);
           vantrel_filetranscoder_requests_list_decode(env, a, CAPACITY, l.get()));
    DECODE(auto r = std::make_unique<vantrel_ft_request>(); vantrel_filetransfer_request_get_decode(env, a, r.get()));
    DECODE(vantrel_filetransfer_list_decode(env, a, &s); vantrel_str_list_free(&s));
    // supervisor
    DECODE(vantrel_watchdog_ret_decode(env, "f", a));
    DECODE(auto l = std::make_unique<vantrel_wd_listing>(); vantrel_watchdog_status_decode(env, a, l.get());
           vantrel_watchdog_listing_free(l.get()); vantrel_watchdog_elements_decode(env, a, l.get());
           vantrel_watchdog_listing_free(l.get()));
    DECODE(vantrel_watchdog_apps_decode(env, a, &s); vantrel_str_list_free(&s));
    DECODE(auto r = std::make_unique<vantrel_wd_item>(); vantrel_watchdog_item_decode(env, a, r.get());
           vantrel_watchdog_item_free(r.get()));
    DECODE(vantrel_wd_output out{}; vantrel_watchdog_std_buf_decode(env, a, &out); vantrel_watchdog_output_free(&out));
    DECODE(vantrel_watchdog_auth_decode(env, a, t));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    xmlrpc_env_guard env;
    xmlrpc_value_ref answer;
    if (size > 0 && data[0] == '<') {
        int fault_code = 0;
        const char* fault_text = nullptr;
        xmlrpc_parse_response2(env.get(), reinterpret_cast<const char*>(data), size, answer.out(),
                               &fault_code, &fault_text);
        free(const_cast<char*>(fault_text));
    } else {
        byte_reader in{data, size};
        // Most answers are structs with a result; start there most of the time.
        answer.reset(in.u8() < 200 ? build_compound(env.get(), in, 0, true, true) : build(env.get(), in, 0));
    }
    if (env.failed() || !answer) return 0;
    decode_everything(answer.get());
    return 0;
}
