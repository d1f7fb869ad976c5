// Media library client: request + call here, decoding in the *_decode
// functions so that arbitrary answers can be fed to them.
#include "vantrel_lib.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "vantrel_decode_lib.h"
#include "vantrel_internal.h"

using namespace vantrel;

// The usage block is documented as 48 bytes plus one text per entry.
static_assert(sizeof(vantrel_lib_usage) == 48, "usage header layout");
static_assert(offsetof(vantrel_lib_usage, amend_list) <= 48, "usage entries start in the header");

namespace {

constexpr const char* m_register_item = "VantrelLib.LibRegisterItem";
constexpr const char* m_delete_item = "VantrelLib.LibDeleteItem";
constexpr const char* m_delete_dir = "VantrelLib.LibDeleteDir";
constexpr const char* m_rename_item = "VantrelLib.LibRenameItem";
constexpr const char* m_delete_subclip = "VantrelLib.LibDeleteSubclip";
constexpr const char* m_register_subclip = "VantrelLib.LibRegisterSubclip";
constexpr const char* m_list_dirs = "VantrelLib.LibListDirs";
constexpr const char* m_list_items = "VantrelLib.LibListItems";
constexpr const char* m_meta_item = "VantrelLib.LibMetaItem";
constexpr const char* m_search_item = "VantrelLib.LibSearchItem";
constexpr const char* m_search_dur_range = "VantrelLib.LibSearchItemDurRange";
constexpr const char* m_list_subclips = "VantrelLib.LibListSubclips";
constexpr const char* m_thumb_item = "VantrelLib.LibThumbItem";
constexpr const char* m_thumb_overlay = "VantrelLib.LibThumbOverlay";
constexpr const char* m_list_overlays = "VantrelLib.LibListOverlays";
constexpr const char* m_state = "VantrelLib.LibState";
constexpr const char* m_disk_usage = "VantrelLib.LibDiskUsage";
constexpr const char* m_register_cue = "VantrelLib.LibRegisterCue";
constexpr const char* m_lib_basename_item = "VantrelLib.LibBasenameItem";
constexpr const char* m_io_basename_item = "VantrelIO.LibBasenameItem";
constexpr const char* m_basename_overlay = "VantrelLib.LibBasenameOverlay";

constexpr std::size_t text_size = VANTREL_STR_SIZE;
constexpr std::size_t short_text_size = VANTREL_LIB_SHORT_TEXT_SIZE;
constexpr const char* no_timecode = "00:00:00:00";

void overlay_free(vantrel_lib_overlay* entry)
{
    if (!entry) return;
    if (entry->children) {
        for (vantrel_lib_overlay** child = entry->children; *child; ++child) overlay_free(*child);
        free(entry->children);
    }
    free(entry);
}

// The path of a listed record: directory, a "/" unless the directory is empty
// or already ends with one, then the name; each step cut at the field size.
void join_path(char* path, const char* dir, const char* name)
{
    dir = or_empty(dir);
    str_copy(path, dir, text_size);
    std::size_t len = strlen(dir);
    if (len > 0 && dir[len - 1] != '/') str_cat(path, "/", text_size);
    str_cat(path, name, text_size);
}

// "%d<sep>%d" as sscanf reads it: the first number alone may be found.
void parse_pair(const char* text, char sep, int32_t* first, int32_t* second)
{
    char* end = nullptr;
    long a = strtol(text, &end, 10);
    if (end == text) return;
    *first = static_cast<int32_t>(a);
    if (*end != sep) return;
    const char* rest = end + 1;
    long b = strtol(rest, &end, 10);
    if (end == rest) return;
    *second = static_cast<int32_t>(b);
}

int32_t parse_int(const char* text)
{
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

// The walk shared by both listings: every element decoded by `decode_one`
// (which returns 0, -14 with a fault in env, or -12), paths joined, the
// whole list sorted by `better` on success and discarded on any failure.
template <typename T, typename DecodeOne, typename Better>
int decode_listing(xmlrpc_env* env, xmlrpc_value* answer, const char* fn, const char* method,
                   const char* dir, T*** out, DecodeOne decode_one, Better better)
{
    if (!out) return VANTREL_EINVAL;
    *out = nullptr;
    decoded_value array;
    int size = 0;
    int result = result_and_list(env, fn, method, answer, array, &size,
                                 missing_list::as_size_failure);
    if (result < 0) return result;
    vantrel::list<T> records;
    if (!records.ok()) return VANTREL_ENOMEM;
    int rc = for_each_element(env, fn, array.get(), size, [&](xmlrpc_value* element, int) {
        T* record = nullptr;
        int decoded = decode_one(element, &record);
        if (decoded < 0) {
            if (env->fault_occurred) report_decompose_failed(env, fn);
            return env->fault_occurred ? VANTREL_EFAULT : decoded;
        }
        join_path(record->path, dir, record->name);
        return records.push(record) ? 0 : VANTREL_ENOMEM;
    });
    if (rc < 0) return rc;
    selection_sort(records.data(), records.size(), better);
    int count = records.size();
    *out = records.release();
    return count;
}

}  // namespace

// ---- decoders ----

int vantrel_lib_meta_item_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_lib_meta** out)
{
    static const char* const fn = "vantrel_lib_meta_item_decompose";
    enum kind { text, int64, int32 };
    struct member {
        const char* key;
        kind type;
    };
    static const member members[] = {
        {"name", text},          {"st_ino", int64},
        {"st_size", int64},      {"st_mtime", int64},
        {"st_ctime", int64},     {"st_atime", int64},
        {"format_name", text},   {"duration", text},
        {"duration_v", text},    {"duration_a", text},
        {"nb_frames", text},     {"nb_streams", text},
        {"width", text},         {"height", text},
        {"display_aspect_ratio", text}, {"sample_aspect_ratio", text},
        {"r_frame_rate", text},  {"sample_fmt", text},
        {"sample_rate", text},   {"channels", text},
        {"timecode", text},      {"subclips", int32},
    };
    constexpr int count = sizeof(members) / sizeof(members[0]);
    enum index {
        i_name, i_ino, i_size, i_mtime, i_ctime, i_atime, i_format, i_duration, i_duration_v,
        i_duration_a, i_frames, i_streams, i_width, i_height, i_dar, i_sar, i_fps, i_sample_fmt,
        i_sample_rate, i_channels, i_timecode, i_subclips
    };
    static_assert(i_subclips + 1 == count, "member table and indexes agree");

    if (out) *out = nullptr;
    owned<vantrel_lib_meta> meta(new_record<vantrel_lib_meta>());
    if (!meta) return VANTREL_ENOMEM;

    owned<char> texts[count];
    xmlrpc_int64 wide[count] = {};
    int narrow[count] = {};
    bool found[count] = {};
    for (int i = 0; i < count; ++i) {
        const member& m = members[i];
        if (!item) {
            xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no item value");
        } else if (m.type == text) {
            const char* value = nullptr;
            xmlrpc_decompose_value(env, item, "{s:s,*}", m.key, &value);
            if (!env->fault_occurred) texts[i].reset(const_cast<char*>(value));
        } else if (m.type == int64) {
            xmlrpc_decompose_value(env, item, "{s:I,*}", m.key, &wide[i]);
        } else {
            xmlrpc_decompose_value(env, item, "{s:i,*}", m.key, &narrow[i]);
        }
        if (env->fault_occurred) {
            // One absent member must not cost the others.
            fprintf(stderr, "%s:%d: xmlrpc_decompose_value failed: %s (%d)", fn, __LINE__,
                    fault_text(env), env->fault_code);
            clear_fault(env);
            continue;
        }
        found[i] = true;
    }

    vantrel_lib_meta* m = meta.get();
    auto present = [&](int i) { return found[i] && texts[i]; };
    if (present(i_name)) str_copy(m->name, texts[i_name].get(), text_size);
    m->st_ino = wide[i_ino];
    m->st_size = wide[i_size];
    m->st_mtime = wide[i_mtime];
    m->st_ctime = wide[i_ctime];
    m->st_atime = wide[i_atime];
    if (present(i_format)) str_copy(m->format_name, texts[i_format].get(), text_size);
    if (present(i_duration)) m->duration = strtod(texts[i_duration].get(), nullptr);
    if (present(i_duration_v)) m->duration_v = strtod(texts[i_duration_v].get(), nullptr);
    if (present(i_duration_a)) m->duration_a = strtod(texts[i_duration_a].get(), nullptr);
    if (present(i_frames)) m->nb_frames = parse_int(texts[i_frames].get());
    if (present(i_streams)) m->nb_streams = parse_int(texts[i_streams].get());
    if (present(i_width)) m->width = parse_int(texts[i_width].get());
    if (present(i_height)) m->height = parse_int(texts[i_height].get());
    if (present(i_dar)) parse_pair(texts[i_dar].get(), ':', &m->dar_num, &m->dar_den);
    if (present(i_sar)) parse_pair(texts[i_sar].get(), ':', &m->sar_num, &m->sar_den);
    if (present(i_fps)) parse_pair(texts[i_fps].get(), '/', &m->fps_num, &m->fps_den);
    if (present(i_sample_fmt)) str_copy(m->sample_fmt, texts[i_sample_fmt].get(), short_text_size);
    if (present(i_sample_rate)) m->sample_rate = parse_int(texts[i_sample_rate].get());
    if (present(i_channels)) m->channels = parse_int(texts[i_channels].get());
    str_copy(m->timecode, present(i_timecode) ? texts[i_timecode].get() : no_timecode,
             short_text_size);
    m->subclips = narrow[i_subclips];
    m->duration_eff = m->duration_v != 0.0 ? m->duration_v : m->duration;

    if (out) *out = meta.release();
    return 0;
}

int vantrel_lib_path_result_decode(xmlrpc_env* env, const char* fn, xmlrpc_value* answer)
{
    return decode_result_plain(env, fn, answer);
}

int vantrel_lib_list_dirs_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* dir,
                                 vantrel_lib_dir*** list)
{
    auto decode_one = [env](xmlrpc_value* element, vantrel_lib_dir** record) {
        decoded_text name;
        xmlrpc_decompose_value(env, element, "{s:s,*}", "name", name.out());
        if (env->fault_occurred) return VANTREL_EFAULT;
        decoded_adopt(name);
        vantrel_lib_dir* entry = new_record<vantrel_lib_dir>();
        if (!entry) return VANTREL_ENOMEM;
        str_copy(entry->name, name.get(), text_size);
        *record = entry;
        return 0;
    };
    // Directories are shown greatest name first.
    auto better = [](const vantrel_lib_dir* a, const vantrel_lib_dir* b) {
        return strcasecmp(a->name, b->name) > 0;
    };
    return decode_listing(env, answer, "vantrel_lib_list_dirs", m_list_dirs, dir, list, decode_one,
                          better);
}

int vantrel_lib_list_items_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* dir,
                                  vantrel_lib_meta*** list)
{
    // The member-wise decomposer never fails as a whole: an element that is no
    // struct gives a record with every member reported missing and left empty.
    auto decode_one = [env](xmlrpc_value* element, vantrel_lib_meta** record) {
        return vantrel_lib_meta_item_decompose(env, element, record);
    };
    auto better = [](const vantrel_lib_meta* a, const vantrel_lib_meta* b) {
        return strcasecmp(a->name, b->name) < 0;
    };
    return decode_listing(env, answer, "vantrel_lib_list_items2", m_list_items, dir, list,
                          decode_one, better);
}

int vantrel_lib_meta_item_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* path,
                                 vantrel_lib_meta** meta)
{
    static const char* const fn = "vantrel_lib_meta_item";
    if (!meta) return VANTREL_EINVAL;
    *meta = nullptr;
    decoded_value item;
    int result = result_and_item(env, fn, answer, item);
    if (result != 0) return result;
    vantrel_lib_meta* record = nullptr;
    int rc = vantrel_lib_meta_item_decompose(env, item.get(), &record);
    if (rc < 0) return rc;
    str_copy(record->path, path, text_size);
    *meta = record;
    return 0;
}

int vantrel_lib_search_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* fn,
                              const char* method, char* item)
{
    if (item) item[0] = '\0';
    int result = 0;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    else xmlrpc_decompose_value(env, answer, "{s:i,*}", "result", &result);
    if (!env->fault_occurred && result < 0) {
        // "Not found" and our own transport code are routine for a search.
        if (result != VANTREL_EFAULT && result != VANTREL_ENOENT)
            fprintf(stderr, "%s: %s return %d\n", fn, method, result);
        return result;
    }
    decoded_text text;
    if (!env->fault_occurred) xmlrpc_decompose_value(env, answer, "{s:s,*}", "item", text.out());
    if (env->fault_occurred) {
        fprintf(stderr, "%s: decompose value failed: %s (%d) [%s:%d]\n", fn, fault_text(env),
                env->fault_code, source_path, __LINE__);
        return VANTREL_EFAULT;
    }
    decoded_adopt(text);
    if (item) str_copy(item, text.get(), text_size);
    return result;
}

int vantrel_lib_list_subclips_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                     vantrel_lib_subclip*** list, uint64_t user)
{
    static const char* const fn = "vantrel_lib_list_subclips";
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    decoded_value array;
    int size = 0;
    int result = result_and_list(env, fn, m_list_subclips, answer, array, &size,
                                 missing_list::as_size_failure);
    if (result < 0) return result;
    vantrel::list<vantrel_lib_subclip> records;
    if (!records.ok()) return VANTREL_ENOMEM;
    int rc = for_each_element(env, fn, array.get(), size, [&](xmlrpc_value* element, int i) {
        int mark_in = 0;
        int duration = 0;
        decoded_text title;
        xmlrpc_decompose_value(env, element, "{s:i,s:i,s:s,*}", "mark_in", &mark_in, "duration",
                               &duration, "title", title.out());
        if (env->fault_occurred) {
            report_decompose_failed(env, fn);
            return VANTREL_EFAULT;
        }
        decoded_adopt(title);
        vantrel_lib_subclip* clip = new_record<vantrel_lib_subclip>();
        if (!clip || !records.push(clip)) return VANTREL_ENOMEM;
        clip->idx = i;
        clip->mark_in = mark_in;
        clip->duration = duration;
        str_copy(clip->title, title.get(), text_size);
        clip->user = user;
        return 0;
    });
    if (rc == VANTREL_ENOMEM) return rc;
    if (env->fault_occurred) {
        report_array_size_failed(env, fn);
        return VANTREL_EFAULT;
    }
    int count = records.size();
    *list = records.release();
    return count;
}

int vantrel_lib_thumb_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* fn,
                             const char* url, const char* method, const char* member,
                             unsigned char** data, uint32_t* size)
{
    if (!data || !size) return VANTREL_EINVAL;
    *data = nullptr;
    *size = 0;
    int result = decode_result(env, fn, method, answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    if (result < 0) {
        report_return(fn, method, result);
        return result;
    }
    const unsigned char* bytes = nullptr;
    size_t length = 0;
    xmlrpc_decompose_value(env, answer, "{s:6,*}", member, &bytes, &length);
    owned<unsigned char> held(const_cast<unsigned char*>(bytes));
    if (!env->fault_occurred && length > UINT32_MAX)
        xmlrpc_env_set_fault(env, XMLRPC_LIMIT_EXCEEDED_ERROR, "picture larger than 4 GiB");
    if (env->fault_occurred) {
        fprintf(stderr, "%s: xmlrpc_client_callX(%s, %s) failed: %s (%d)", fn, or_empty(url),
                or_empty(method), fault_text(env), env->fault_code);
        return VANTREL_EFAULT;
    }
    *data = held.release();
    *size = static_cast<uint32_t>(length);
    return result;
}

int vantrel_lib_list_overlays_level(xmlrpc_env* env, xmlrpc_value* array, int level,
                                    vantrel_lib_overlay*** out)
{
    static const char* const fn = "vantrel_lib_list_overlays_level";
    if (!out) return VANTREL_EINVAL;
    *out = nullptr;
    int size = array_size(env, fn, array);
    if (size < 0) return size;
    vantrel::list<vantrel_lib_overlay, overlay_free> entries;
    if (!entries.ok()) return VANTREL_ENOMEM;
    int rc = for_each_element(env, fn, array, size, [&](xmlrpc_value* element, int) {
        std::unique_ptr<vantrel_lib_overlay, decltype(&overlay_free)> entry(
            new_record<vantrel_lib_overlay>(), &overlay_free);
        if (!entry) return VANTREL_ENOMEM;
        decoded_text path;
        if (level == 0) {
            decoded_value leaves;
            xmlrpc_decompose_value(env, element, "{s:s,s:A,*}", "path", path.out(), "list",
                                   leaves.out());
            if (!env->fault_occurred) {
                decoded_adopt(path, leaves);
                str_copy(entry->path, path.get(), text_size);
                // Leaves hold no further level, so the tree is two deep at most.
                int leaf_count = vantrel_lib_list_overlays_level(env, leaves.get(), 1,
                                                                 &entry->children);
                if (leaf_count < 0) return leaf_count;
                entry->count = leaf_count;
            }
        } else {
            decoded_text name;
            xmlrpc_int64 bytes = 0;
            xmlrpc_decompose_value(env, element, "{s:s,s:s,s:I,*}", "name", name.out(), "path",
                                   path.out(), "size", &bytes);
            if (!env->fault_occurred) {
                decoded_adopt(name, path);
                str_copy(entry->name, name.get(), text_size);
                str_copy(entry->path, path.get(), text_size);
                entry->count = bytes;
            }
        }
        if (env->fault_occurred) {
            report_decompose_failed(env, fn);
            return VANTREL_EFAULT;
        }
        return entries.push(entry.release()) ? 0 : VANTREL_ENOMEM;
    });
    if (rc < 0) return rc;
    int count = entries.size();
    *out = entries.release();
    return count;
}

int vantrel_lib_list_overlays_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                     vantrel_lib_overlay*** list)
{
    static const char* const fn = "vantrel_lib_list_overlays";
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    decoded_value groups;
    int size = 0;
    int result = result_and_list(env, fn, m_list_overlays, answer, groups, &size,
                                 missing_list::as_size_failure);
    if (result < 0) return result;
    int count = vantrel_lib_list_overlays_level(env, groups.get(), 0, list);
    if (env->fault_occurred) {
        report_array_size_failed(env, fn);
        vantrel_lib_overlays_free(list);
        return VANTREL_EFAULT;
    }
    return count;
}

namespace {

struct state_walk {
    vantrel_lib_usage* usage = nullptr;
    int capacity = 0;
    bool failed = false;
};

// Sized on the first element for the whole list, as the walker hands every
// element the list's size.
int vantrel_lib_state_iters(xmlrpc_env* env, xmlrpc_value* item, void* ctx, int index, int count)
{
    auto* walk = static_cast<state_walk*>(ctx);
    if (!walk->usage && count > 0) {
        walk->usage = static_cast<vantrel_lib_usage*>(
            calloc(1, sizeof(vantrel_lib_usage) + text_size * static_cast<std::size_t>(count)));
        if (!walk->usage) {
            walk->failed = true;
            xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "out of memory");
            return VANTREL_ENOMEM;
        }
        walk->capacity = count;
    }
    if (index < 0 || index >= walk->capacity) {
        walk->failed = true;
        xmlrpc_env_set_fault(env, XMLRPC_INDEX_ERROR, "amendment index out of range");
        return VANTREL_EFAULT;
    }
    decoded_text text;
    xmlrpc_decompose_value(env, item, "(s)", text.out());
    // A bad entry is the walker's to report and skip; the next one takes its index.
    if (env->fault_occurred) return VANTREL_EFAULT;
    decoded_adopt(text);
    str_copy(walk->usage->amend_list[index], text.get(), text_size);
    return 0;
}

}  // namespace

int vantrel_lib_state_decode(xmlrpc_env* env, xmlrpc_value* answer, vantrel_lib_usage** usage)
{
    static const char* const fn = "vantrel_lib_state";
    if (!usage) return VANTREL_EINVAL;
    *usage = nullptr;
    int result = decode_result(env, fn, m_state, answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    if (result < 0) return result;
    xmlrpc_int64 amend_idx = 0;
    xmlrpc_int64 free_space = 0;
    xmlrpc_int64 total_space = 0;
    int total_items = 0;
    xmlrpc_decompose_value(env, answer, "{s:I,s:i,s:I,s:I,*}", "amend_idx", &amend_idx,
                           "total_items", &total_items, "free_space", &free_space, "total_space",
                           &total_space);
    if (env->fault_occurred) {
        report_decompose_value_failed(env, fn);
        return VANTREL_EFAULT;
    }
    state_walk walk;
    int count = parse_custom_list(fn, env, answer, "amend_list", vantrel_lib_state_iters, &walk);
    owned<vantrel_lib_usage> record(walk.usage);
    // Bad entries were skipped and not counted; only a failure of the record
    // itself (memory, an index beyond the list) leaves no answer.
    if (count < 0 || walk.failed) return VANTREL_EFAULT;
    if (!record) {
        record.reset(new_record<vantrel_lib_usage>());
        if (!record) return VANTREL_ENOMEM;
    }
    record->amend_idx = amend_idx;
    record->total_items = total_items;
    record->free_space = free_space;
    record->total_space = total_space;
    record->amend_cnt = count;
    *usage = record.release();
    return count;
}

int vantrel_lib_disk_usage_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                  vantrel_lib_usage** usage)
{
    static const char* const fn = "vantrel_lib_disk_usage";
    if (!usage) return VANTREL_EINVAL;
    *usage = nullptr;
    int result = decode_result(env, fn, m_disk_usage, answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    if (result < 0) return result;
    int total_items = 0;
    xmlrpc_int64 free_space = 0;
    xmlrpc_int64 total_space = 0;
    xmlrpc_int64 used_space = 0;
    xmlrpc_decompose_value(env, answer, "{s:i,s:I,s:I,s:I,*}", "total_items", &total_items,
                           "free_space", &free_space, "total_space", &total_space, "used_space",
                           &used_space);
    if (env->fault_occurred) {
        report_decompose_value_failed(env, fn);
        return VANTREL_EFAULT;
    }
    vantrel_lib_usage* record = new_record<vantrel_lib_usage>();
    if (!record) return VANTREL_ENOMEM;
    record->total_items = total_items;
    record->free_space = free_space;
    record->total_space = total_space;
    record->used_space = used_space;
    *usage = record;
    return result;
}

int vantrel_lib_register_cue_decode(xmlrpc_env* env, xmlrpc_value* answer, int64_t* cue_cnt,
                                    int64_t* cue_date)
{
    static const char* const fn = "vantrel_lib_register_cue";
    int result = vantrel_lib_path_result_decode(env, fn, answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    if (result < 0) return result;
    struct wanted {
        const char* key;
        int64_t* out;
    };
    for (const wanted& w : {wanted{"cue_cnt", cue_cnt}, wanted{"cue_date", cue_date}}) {
        if (!w.out) continue;
        xmlrpc_int64 value = 0;
        xmlrpc_decompose_value(env, answer, "{s:I,*}", w.key, &value);
        if (env->fault_occurred) {
            fprintf(stderr, "%s: decompose '%s' failed: %s (%d)", fn, w.key, fault_text(env),
                    env->fault_code);
            return VANTREL_EFAULT;
        }
        *w.out = value;
    }
    return result;
}

int vantrel_basename_item_decode(xmlrpc_env* env, xmlrpc_value* answer, char* value,
                                 char* object, int32_t* shm_id)
{
    if (shm_id) *shm_id = -1;
    int result = 0;
    decoded_text value_text;
    decoded_text object_text;
    xmlrpc_int64 shm = -1;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    else
        xmlrpc_decompose_value(env, answer, "{s:i,s:s,s:s,s:I,*}", "result", &result, "value",
                               value_text.out(), "object", object_text.out(), "cache_shm_id", &shm);
    if (env->fault_occurred) {
        fprintf(stderr, "vantrel_lib_basename_item: decompose value failed: %s (%d)",
                fault_text(env), env->fault_code);
        if (value) value[0] = '\0';
        if (object) object[0] = '\0';
        return VANTREL_EFAULT;
    }
    decoded_adopt(value_text, object_text);
    if (value) str_copy(value, value_text.get(), text_size);
    if (object) str_copy(object, object_text.get(), text_size);
    if (shm_id) *shm_id = static_cast<int32_t>(shm);
    return result;
}

int vantrel_lib_basename_overlay_decode(xmlrpc_env* env, xmlrpc_value* answer, char* value)
{
    if (value) value[0] = '\0';
    int result = 0;
    decoded_text text;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    else xmlrpc_decompose_value(env, answer, "{s:i,s:s,*}", "result", &result, "value", text.out());
    if (env->fault_occurred) {
        fprintf(stderr, "vantrel_lib_basename_overlay: decompose value failed: %s (%d)",
                fault_text(env), env->fault_code);
        return VANTREL_EFAULT;
    }
    decoded_adopt(text);
    if (value) str_copy(value, text.get(), text_size);
    return result;
}

// ---- calls ----

namespace {

// "%s: xmlrpc_client_callX(%s,%s) failed: %s (%d)": the calls that send one
// path name it in their own failure lines.
auto path_call_failed(const char* fn, const char* url, const char* path)
{
    return [=](const xmlrpc_env* env) {
        fprintf(stderr, "%s: xmlrpc_client_callX(%s,%s) failed: %s (%d)", fn, or_empty(url),
                or_empty(path), fault_text(env), env->fault_code);
    };
}

int path_call(const char* fn, const char* method, const char* url, const char* path)
{
    auto decode = [fn](xmlrpc_env* env, xmlrpc_value* answer) {
        return decode_result_plain(env, fn, answer);
    };
    return call_reported(path_call_failed(fn, url, path), decode, url, method, "(s)",
                         or_empty(path));
}

int vantrel_basename_item(const char* method, const char* url, const char* path, const char* opt,
                          char* value, char* object, int32_t* shm_id)
{
    if (shm_id) *shm_id = -1;
    auto report = [&](const xmlrpc_env* env) {
        fprintf(stderr, "vantrel_basename_item: xmlrpc_client_callX(%s, %s, %s) failed: %s (%d)",
                or_empty(url), or_empty(path), or_empty(opt), fault_text(env), env->fault_code);
    };
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_basename_item_decode(env, answer, value, object, shm_id);
    };
    if (opt && *opt)
        return call_reported(report, decode, url, method, "(ss)", or_empty(path), opt);
    return call_reported(report, decode, url, method, "(s)", or_empty(path));
}

}  // namespace

int vantrel_lib_register_item(const char* url, const char* path)
{
    return path_call("vantrel_lib_register_item", m_register_item, url, path);
}

int vantrel_lib_delete_item(const char* url, const char* path)
{
    return path_call("vantrel_lib_delete_item", m_delete_item, url, path);
}

int vantrel_lib_delete_dir(const char* url, const char* path)
{
    // Both delete calls report under the item's name; log readers rely on it.
    return path_call("vantrel_lib_delete_item", m_delete_dir, url, path);
}

int vantrel_lib_rename_item(const char* url, const char* from, const char* to)
{
    return std_call("vantrel_lib_rename_item", url, m_rename_item, "(ss)", or_empty(from),
                    or_empty(to));
}

int vantrel_lib_delete_subclip(const char* url, const char* path, int idx)
{
    return std_call("vantrel_lib_delete_subclip", url, m_delete_subclip, "(si)",
                    or_empty(path), idx);
}

int vantrel_lib_register_subclip(const char* url, const char* path, int mark_in, int duration,
                                 const char* title)
{
    return std_call("vantrel_lib_register_subclip", url, m_register_subclip, "(siis)",
                    or_empty(path), mark_in, duration, or_empty(title));
}

int vantrel_lib_list_dirs(const char* url, const char* dir, vantrel_lib_dir*** list)
{
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_list_dirs_decode(env, answer, dir, list);
    };
    return call_with("vantrel_lib_list_dirs", url, m_list_dirs, decode, "(s)",
                     or_empty(dir));
}

int vantrel_lib_list_items2(const char* url, const char* dir, vantrel_lib_meta*** list, int arg1,
                            int arg2)
{
    static const char* const fn = "vantrel_lib_list_items2";
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_list_items_decode(env, answer, dir, list);
    };
    if (arg1 == -1 && arg2 == -1)
        return call_with(fn, url, m_list_items, decode, "(s)", or_empty(dir));
    return call_with(fn, url, m_list_items, decode, "(sii)", or_empty(dir), arg1, arg2);
}

int vantrel_lib_list_items(const char* url, const char* dir, vantrel_lib_meta*** list)
{
    return vantrel_lib_list_items2(url, dir, list, -1, -1);
}

int vantrel_lib_meta_item(const char* url, const char* path, vantrel_lib_meta** meta)
{
    if (!meta) return VANTREL_EINVAL;
    *meta = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_meta_item_decode(env, answer, path, meta);
    };
    return call_reported(path_call_failed("vantrel_lib_meta_item", url, path), decode, url,
                         m_meta_item, "(s)", or_empty(path));
}

int vantrel_lib_search_item(const char* url, int mode, const char* filter, const char* name,
                            char item[VANTREL_STR_SIZE])
{
    static const char* const fn = "vantrel_lib_search_item";
    if (item) item[0] = '\0';
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_search_decode(env, answer, fn, m_search_item, item);
    };
    return call_with(fn, url, m_search_item, decode, "(iss)", mode, or_empty(filter),
                     or_empty(name));
}

int vantrel_lib_search_item_dur_range(const char* url, int mode, const char* filter,
                                      char item[VANTREL_STR_SIZE], double dur_min, double dur_max)
{
    static const char* const fn = "vantrel_lib_search_item_dur_range";
    if (item) item[0] = '\0';
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_search_decode(env, answer, fn, m_search_dur_range, item);
    };
    return call_with(fn, url, m_search_dur_range, decode, "(isdd)", mode,
                     or_empty(filter), dur_min, dur_max);
}

int vantrel_lib_list_subclips(const char* url, const char* path, vantrel_lib_subclip*** list,
                              uint64_t user)
{
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_list_subclips_decode(env, answer, list, user);
    };
    return call_with("vantrel_lib_list_subclips", url, m_list_subclips, decode, "(s)",
                     or_empty(path));
}

int vantrel_lib_subclips_free(vantrel_lib_subclip*** list)
{
    if (!list) return VANTREL_EINVAL;
    if (!*list) return 0;
    for (vantrel_lib_subclip** clip = *list; *clip; ++clip) free(*clip);
    free(*list);
    *list = nullptr;
    return 0;
}

int vantrel_lib_thumb_item(const char* url, const char* path, const char* kind, int width,
                           int height, unsigned char** data, uint32_t* size)
{
    static const char* const fn = "vantrel_lib_thumb_item";
    if (!data || !size) return VANTREL_EINVAL;
    *data = nullptr;
    *size = 0;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_thumb_decode(env, answer, fn, url, m_thumb_item, "thumb", data, size);
    };
    return call_with(fn, url, m_thumb_item, decode, "(ssii)", or_empty(path),
                     or_empty(kind), width, height);
}

int vantrel_lib_thumb_overlay(const char* url, const char* path, unsigned char** data,
                              uint32_t* size)
{
    static const char* const fn = "vantrel_lib_thumb_overlay";
    if (!data || !size) return VANTREL_EINVAL;
    *data = nullptr;
    *size = 0;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_thumb_decode(env, answer, fn, url, m_thumb_overlay, "png", data, size);
    };
    return call_with(fn, url, m_thumb_overlay, decode, "(s)", or_empty(path));
}

int vantrel_lib_list_overlays(const char* url, vantrel_lib_overlay*** list)
{
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_list_overlays_decode(env, answer, list);
    };
    return call_with("vantrel_lib_list_overlays", url, m_list_overlays, decode, "()");
}

int vantrel_lib_overlays_free(vantrel_lib_overlay*** list)
{
    if (!list) return VANTREL_EINVAL;
    if (!*list) return 0;
    for (vantrel_lib_overlay** entry = *list; *entry; ++entry) overlay_free(*entry);
    free(*list);
    *list = nullptr;
    return 0;
}

int vantrel_lib_state(const char* url, int amend_idx, vantrel_lib_usage** usage)
{
    if (!usage) return VANTREL_EINVAL;
    *usage = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_state_decode(env, answer, usage);
    };
    return call_with("vantrel_lib_state", url, m_state, decode, "(i)", amend_idx);
}

int vantrel_lib_disk_usage(const char* url, vantrel_lib_usage** usage)
{
    if (!usage) return VANTREL_EINVAL;
    *usage = nullptr;
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_disk_usage_decode(env, answer, usage);
    };
    return call_with("vantrel_lib_disk_usage", url, m_disk_usage, decode, "()");
}

int vantrel_lib_register_cue(const char* url, const char* path, int cue, int64_t* cue_cnt,
                             int64_t* cue_date)
{
    auto report = [&](const xmlrpc_env* env) {
        fprintf(stderr, "%s: xmlrpc_client_callX(%s,%s,%d) failed: %s (%d)",
                "vantrel_lib_register_cue", or_empty(url), or_empty(path), cue, fault_text(env),
                env->fault_code);
    };
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_register_cue_decode(env, answer, cue_cnt, cue_date);
    };
    return call_reported(report, decode, url, m_register_cue, "(si)", or_empty(path), cue);
}

int vantrel_lib_basename_item(const char* url, const char* path, const char* opt,
                              char value[VANTREL_STR_SIZE], char object[VANTREL_STR_SIZE],
                              int32_t* shm_id)
{
    return vantrel_basename_item(m_lib_basename_item, url, path, opt, value, object, shm_id);
}

int vantrel_io_basename_item(const char* url, const char* path, char value[VANTREL_STR_SIZE],
                             char object[VANTREL_STR_SIZE], int32_t* shm_id)
{
    return vantrel_basename_item(m_io_basename_item, url, path, nullptr, value, object, shm_id);
}

int vantrel_lib_basename_overlay(const char* url, const char* path, char value[VANTREL_STR_SIZE])
{
    auto decode = [&](xmlrpc_env* env, xmlrpc_value* answer) {
        return vantrel_lib_basename_overlay_decode(env, answer, value);
    };
    return call_reported(path_call_failed("vantrel_lib_basename_overlay", url, path), decode, url,
                         m_basename_overlay, "(s)", or_empty(path));
}

// ---- audio layouts ----

namespace {

struct audio_layout {
    const char* name;
    const char* format;
};

constexpr audio_layout audio_layouts[] = {
    {"Mono (1)", "[%d]"},
    {"Stereo (2)", "[%d,%d]"},
    {"Dual mono (1 + 1)", "[%d][%d]"},
    {"Dual stereo (2 + 2)", "[%d,%d][%d,%d]"},
    {"Quad mono (1 + 1 + 1 + 1)", "[%d][%d][%d][%d]"},
    {"Quad stereo (2 + 2 + 2 + 2)", "[%d,%d][%d,%d][%d,%d][%d,%d]"},
    {"Octa mono (1 + .. + 1 = 8)", "[%d][%d][%d][%d][%d][%d][%d][%d]"},
    {"Octa (8)", "[%d,%d,%d,%d,%d,%d,%d,%d]"},
};
constexpr int audio_layout_count = sizeof(audio_layouts) / sizeof(audio_layouts[0]);
constexpr const char* unknown_layout = "<unknown>";

const audio_layout* find_layout(int layout)
{
    return layout >= 0 && layout < audio_layout_count ? &audio_layouts[layout] : nullptr;
}

}  // namespace

int vantrel_audio_layouts_count(void)
{
    return audio_layout_count;
}

const char* vantrel_audio_layout_name(int layout)
{
    const audio_layout* found = find_layout(layout);
    return found ? found->name : unknown_layout;
}

const char* vantrel_audio_layout_format(int layout)
{
    const audio_layout* found = find_layout(layout);
    return found ? found->format : unknown_layout;
}

int vantrel_audio_map_digit(int pos, const char* map)
{
    if (!map || pos < 0 || static_cast<std::size_t>(pos) >= strlen(map)) return 0;
    char c = map[pos];
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 0;
}

char* vantrel_audio_map_format(char* buf, size_t size, int layout, const char* map)
{
    if (!buf) return buf;
    int d[8];
    // Channels are shown counted from 1.
    for (int i = 0; i < 8; ++i) d[i] = vantrel_audio_map_digit(i, map) + 1;
    snprintf(buf, size, vantrel_audio_layout_format(layout), d[0], d[1], d[2], d[3], d[4], d[5],
             d[6], d[7]);
    return buf;
}
