// Graphics templates of the media library and settings of the playout/record
// service.
#include "vantrel_templates.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vantrel_decode.h"
#include "vantrel_internal.h"

using namespace vantrel;

namespace {

// Setting names and the text fields they fill.
struct text_setting {
    const char* name;
    std::size_t offset;
};

constexpr text_setting text_settings[] = {
    {"playback_osd", offsetof(vantrel_io_settings, playback_osd)},
    {"playback_timecode_src", offsetof(vantrel_io_settings, playback_timecode_src)},
    {"record_timecode_src", offsetof(vantrel_io_settings, record_timecode_src)},
    {"record_bitdepth", offsetof(vantrel_io_settings, record_bitdepth)},
    {"record_channels_map", offsetof(vantrel_io_settings, record_channels_map)},
    {"VantrelIO", offsetof(vantrel_io_settings, io)},
    {"mode", offsetof(vantrel_io_settings, mode)},
    {"enc", offsetof(vantrel_io_settings, enc)},
    {"record_producer_buffer", offsetof(vantrel_io_settings, record_producer_buffer)},
    {"playback_consumer_preroll", offsetof(vantrel_io_settings, playback_consumer_preroll)},
    {"playback_consumer_buffer", offsetof(vantrel_io_settings, playback_consumer_buffer)},
    {"playback_consumer_prefill", offsetof(vantrel_io_settings, playback_consumer_prefill)},
    {"playback_consumer_noscale", offsetof(vantrel_io_settings, playback_consumer_noscale)},
};

void apply_setting(vantrel_io_settings* settings, const char* name, const char* value)
{
    for (const auto& field : text_settings) {
        if (strcmp(field.name, name) == 0) {
            str_copy(reinterpret_cast<char*>(settings) + field.offset, value, VANTREL_STR_SIZE);
            return;
        }
    }
    if (strcmp(name, "record_channels_conf") == 0)
        settings->record_channels_conf = static_cast<int32_t>(strtol(value, nullptr, 10));
    else if (strcmp(name, "keyer") == 0)
        settings->keyer = static_cast<int32_t>(strtol(value, nullptr, 10));
}

// Starts a caller's string list when it is null; false when memory runs out.
bool start_list(char*** list)
{
    if (!*list) *list = vantrel_str_list_new();
    return *list != nullptr;
}

int vantrel_lib_tmpl_get_layers(xmlrpc_env* env, xmlrpc_value* element, void* ctx, int, int)
{
    const unsigned char* bytes = nullptr;
    size_t len = 0;
    xmlrpc_decompose_value(env, element, "(6)", &bytes, &len);
    if (env->fault_occurred) return VANTREL_EFAULT;
    char* layer = static_cast<char*>(malloc(len + 1));
    if (layer) {
        memcpy(layer, bytes, len);
        layer[len] = '\0';
    }
    free(const_cast<unsigned char*>(bytes));
    int count = layer ? vantrel_str_list_append(static_cast<char***>(ctx), layer) : VANTREL_ENOMEM;
    if (count < 0) {
        free(layer);
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "out of memory");
    }
    return count;
}

int vantrel_lib_tmpl_fonts_items(xmlrpc_env* env, xmlrpc_value* element, void* ctx, int, int)
{
    decoded_text family, style;
    xmlrpc_decompose_value(env, element, "{s:s,s:s,*}", "family", family.out(), "style",
                           style.out());
    if (env->fault_occurred) return VANTREL_EFAULT;
    decoded_adopt(family, style);
    std::size_t size = strlen(family.get()) + strlen(style.get()) + 10;
    char* font = static_cast<char*>(calloc(size, 1));
    int count = VANTREL_ENOMEM;
    if (font) {
        snprintf(font, size, "%s\t%s", family.get(), style.get());
        count = vantrel_str_list_append(static_cast<char***>(ctx), font);
    }
    if (count < 0) {
        free(font);
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "out of memory");
    }
    return count;
}

int tmpl_fonts_x(const char* url, const char* method, char*** fonts)
{
    if (!fonts) return VANTREL_EINVAL;
    if (!start_list(fonts)) return VANTREL_ENOMEM;
    return call_with(
        "vantrel_lib_tmpl_fonts_x", url, method,
        [&](xmlrpc_env* env, xmlrpc_value* answer) {
            return vantrel_lib_tmpl_fonts_decode(env, method, answer, fonts);
        },
        "()");
}

void free_mode(vantrel_io_mode* mode)
{
    if (!mode) return;
    for (int i = 0; mode->osds && i < mode->osds_cnt; ++i) free(mode->osds[i]);
    free(mode->osds);
    for (int i = 0; mode->submodes && i < mode->submodes_cnt; ++i) free(mode->submodes[i]);
    free(mode->submodes);
    free(mode);
}

// Reads the sub-modes and OSD names of one mode; false with the line written.
bool read_mode_lists(xmlrpc_env* env, const char* fn, vantrel_io_mode* mode, xmlrpc_value* subs,
                     xmlrpc_value* osds)
{
    int size = array_size(env, fn, subs);
    if (size < 0) return false;
    int rc = for_each_element(env, fn, subs, size, [&](xmlrpc_value* element, int) {
        int idx = 0;
        decoded_text desc, name;
        xmlrpc_decompose_value(env, element, "{s:i,s:s,s:s,*}", "idx", &idx, "desc", desc.out(),
                               "name", name.out());
        if (env->fault_occurred) {
            report_decompose_failed(env, fn);
            return VANTREL_EFAULT;
        }
        decoded_adopt(desc, name);
        auto* sub = static_cast<vantrel_io_submode*>(calloc(1, sizeof(vantrel_io_submode)));
        auto* grown = static_cast<vantrel_io_submode**>(
            realloc(mode->submodes, (static_cast<std::size_t>(mode->submodes_cnt) + 1) *
                                        sizeof(vantrel_io_submode*)));
        if (grown) mode->submodes = grown;
        if (!sub || !grown) {
            free(sub);
            xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "out of memory");
            report_decompose_failed(env, fn);
            return VANTREL_ENOMEM;
        }
        sub->idx = idx;
        str_copy(sub->name, name.get(), sizeof sub->name);
        str_copy(sub->desc, desc.get(), sizeof sub->desc);
        mode->submodes[mode->submodes_cnt++] = sub;
        return 0;
    });
    if (rc < 0) return false;

    size = array_size(env, fn, osds);
    if (size < 0) return false;
    mode->osds = static_cast<char**>(calloc(static_cast<std::size_t>(size) + 1, sizeof(char*)));
    if (!mode->osds) {
        xmlrpc_env_set_fault(env, XMLRPC_INTERNAL_ERROR, "out of memory");
        return false;
    }
    rc = for_each_element(env, fn, osds, size, [&](xmlrpc_value* element, int) {
        const char* osd = nullptr;
        xmlrpc_decompose_value(env, element, "(s)", &osd);
        if (env->fault_occurred) {
            report_decompose_failed(env, fn);
            return VANTREL_EFAULT;
        }
        mode->osds[mode->osds_cnt++] = const_cast<char*>(osd);
        return 0;
    });
    return rc == 0;
}

}  // namespace

int vantrel_lib_tmpl_add(const char* url, const char* name)
{
    if (!name) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelLib.LibTemplateAdd", "(s)", name);
}

int vantrel_lib_tmpl_del(const char* url, const char* name)
{
    if (!name) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelLib.LibTemplateDel", "(s)", name);
}

int vantrel_lib_tmpl_rename(const char* url, const char* from, const char* to)
{
    if (!from || !to) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelLib.LibTemplateRename", "(ss)", from, to);
}

int vantrel_lib_tmpl_replace(const char* url, const char* from, const char* to)
{
    if (!from || !to) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelLib.LibTemplateReplace", "(ss)", from, to);
}

int vantrel_lib_tmpl_clone(const char* url, const char* from, const char* to)
{
    if (!from || !to) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelLib.LibTemplateClone", "(ss)", from, to);
}

int vantrel_lib_list_templates(const char* url, char*** list)
{
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    xmlrpc_env_guard env;
    xmlrpc_value* answer = call_unreported(env.get(), url, "VantrelLib.LibListTemplates", "()");
    return parse_simple_list_response(__func__, env.get(), answer, list);
}

int vantrel_lib_list_template_vars(const char* url, const char* name, char*** list)
{
    if (!list) return VANTREL_EINVAL;
    *list = nullptr;
    if (!name) return VANTREL_EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_value* answer =
        call_unreported(env.get(), url, "VantrelLib.LibListTemplateVars", "(s)", name);
    return parse_simple_list_response(__func__, env.get(), answer, list);
}

int vantrel_lib_tmpl_get_decode(xmlrpc_env* env, xmlrpc_value* answer, char*** layers)
{
    static const char* const fn = "vantrel_lib_tmpl_get";
    if (!layers) return VANTREL_EINVAL;
    if (!start_list(layers)) return VANTREL_ENOMEM;
    vantrel_result_decode(env, fn, "VantrelLib.LibTemplateGet", answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    return parse_custom_list(fn, env, answer, "list", vantrel_lib_tmpl_get_layers, layers);
}

int vantrel_lib_tmpl_get(const char* url, const char* name, char*** layers)
{
    if (!layers || !name) return VANTREL_EINVAL;
    if (!start_list(layers)) return VANTREL_ENOMEM;
    return call_with(
        __func__, url, "VantrelLib.LibTemplateGet",
        [layers](xmlrpc_env* env, xmlrpc_value* answer) {
            return vantrel_lib_tmpl_get_decode(env, answer, layers);
        },
        "(s)", name);
}

int vantrel_lib_tmpl_set(const char* url, const char* name, const char* const* layers)
{
    if (!name) return VANTREL_EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_value_ref array(xmlrpc_array_new(env.get()));
    for (int i = 0; !env.failed() && layers && layers[i]; ++i) {
        xmlrpc_value_ref layer(xmlrpc_build_value(env.get(), "(6)", layers[i], strlen(layers[i])));
        if (!env.failed()) xmlrpc_array_append_item(env.get(), array.get(), layer.get());
    }
    if (env.failed()) return VANTREL_EFAULT;
    return std_call(__func__, url, "VantrelLib.LibTemplateSet", "(sA)", name, array.get());
}

int vantrel_lib_tmpl_fonts_decode(xmlrpc_env* env, const char* method, xmlrpc_value* answer,
                                  char*** fonts)
{
    static const char* const fn = "vantrel_lib_tmpl_fonts_x";
    if (!fonts) return VANTREL_EINVAL;
    if (!start_list(fonts)) return VANTREL_ENOMEM;
    vantrel_result_decode(env, fn, method ? method : "", answer);
    if (env->fault_occurred) return VANTREL_EFAULT;
    return parse_custom_list(fn, env, answer, "list", vantrel_lib_tmpl_fonts_items, fonts);
}

int vantrel_lib_tmpl_fonts(const char* url, char*** fonts)
{
    return tmpl_fonts_x(url, "VantrelLib.LibTemplateFonts", fonts);
}

int vantrel_lib_tmpl_fonts2(const char* url, char*** fonts)
{
    return tmpl_fonts_x(url, "VantrelLib.LibTemplateFonts2", fonts);
}

int vantrel_lib_build_template_decode(xmlrpc_env* env, xmlrpc_value* answer, char* value)
{
    static const char* const fn = "vantrel_lib_build_template";
    int result = 0;
    if (!answer) xmlrpc_env_set_fault(env, XMLRPC_TYPE_ERROR, "no answer value");
    if (!env->fault_occurred) xmlrpc_decompose_value(env, answer, "{s:i,*}", "result", &result);
    if (!env->fault_occurred && result < 0) {
        fprintf(stderr, "%s:%d: VantrelLib.LibTemplateBuild return %d (%s)\n", fn, __LINE__,
                result, errno_text(result));
        return result;
    }
    decoded_text text;
    if (!env->fault_occurred) xmlrpc_decompose_value(env, answer, "{s:s,*}", "value", text.out());
    if (env->fault_occurred) {
        fprintf(stderr, "%s:%d: xmlrpc_decompose_value failed: %s (%d)\n", fn, __LINE__,
                fault_text(env), env->fault_code);
        return VANTREL_EFAULT;
    }
    decoded_adopt(text);
    if (value) str_copy(value, text.get(), VANTREL_STR_SIZE);
    return result;
}

int vantrel_lib_build_template(const char* url, char* value, const char* name, int p1, int p2,
                               int list_cnt, const char* const* list, int var_cnt,
                               const char* const* var_names, const char* const* var_values,
                               const char* last)
{
    static const char* const method = "VantrelLib.LibTemplateBuild";
    if (value) value[0] = '\0';
    if (!name) return VANTREL_EINVAL;
    xmlrpc_env_guard env;
    xmlrpc_value_ref vars(build_variables(env.get(), var_cnt, var_names, var_values));
    xmlrpc_value_ref array;
    if (!env.failed()) array.reset(build_string_array(env.get(), list_cnt, list));
    xmlrpc_value_ref answer;
    if (!env.failed())
        answer.reset(call_unreported(env.get(), url, method, "(ssiiAS)", name, or_empty(last), p1,
                                     p2, array.get(), vars.get()));
    if (env.failed()) {
        fprintf(stderr, "%s:%d: xmlrpc_client_call(%s, %s) failed: %s (%d)\n", __func__, __LINE__,
                url ? url : "", method, env.fault_string(), env.fault_code());
        return VANTREL_EFAULT;
    }
    return vantrel_lib_build_template_decode(env.get(), answer.get(), value);
}

int vantrel_io_settings_save(const char* url)
{
    return std_call(__func__, url, "VantrelIO.SettingsSave", "()");
}

int vantrel_io_settings_set_mode(const char* url, int mode, int submode)
{
    return std_call(__func__, url, "VantrelIO.SettingsSetMode", "(ii)", mode, submode);
}

int vantrel_io_settings_set_mode2(const char* url, const char* mode, const char* submode)
{
    if (!mode || !submode) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelIO.SettingsSetMode", "(ss)", mode, submode);
}

int vantrel_io_settings_set_value(const char* url, const char* name, const char* value)
{
    if (!name || !value) return VANTREL_EINVAL;
    return std_call(__func__, url, "VantrelIO.SettingsSetValue", "(ss)", name, value);
}

int vantrel_io_settings_get_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_io_settings* settings)
{
    static const char* const fn = "vantrel_io_settings_get";
    decoded_value list;
    int size = 0;
    int result = result_and_list(env, fn, "VantrelIO.SettingsGet", answer, list, &size);
    if (result < 0) return result;
    bool undecodable = false;
    int rc = for_each_element(env, fn, list.get(), size, [&](xmlrpc_value* element, int) {
        decoded_text name, value;
        xmlrpc_decompose_value(env, element, "{s:s,s:s,*}", "name", name.out(), "value",
                               value.out());
        if (env->fault_occurred) {
            report_decompose_failed(env, fn);
            undecodable = true;
            return VANTREL_EFAULT;
        }
        decoded_adopt(name, value);
        if (settings) apply_setting(settings, name.get(), value.get());
        return 0;
    });
    // A pair that does not decode ends the walk with the answer's own result.
    if (undecodable) return result;
    return rc < 0 ? rc : 0;
}

int vantrel_io_settings_get(const char* url, vantrel_io_settings* settings)
{
    if (!settings) return VANTREL_EINVAL;
    return call_with(
        __func__, url, "VantrelIO.SettingsGet",
        [settings](xmlrpc_env* env, xmlrpc_value* answer) {
            return vantrel_io_settings_get_decode(env, answer, settings);
        },
        "()");
}

int vantrel_io_settings_get_modes_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                         vantrel_io_mode*** out)
{
    static const char* const fn = "vantrel_io_settings_get_modes";
    if (!out) return VANTREL_EINVAL;
    *out = nullptr;
    decoded_value list;
    int size = 0;
    int result = result_and_list(env, fn, "VantrelIO.SettingsGetModes", answer, list, &size);
    if (result < 0) return result;
    vantrel::list<vantrel_io_mode, free_mode> modes;
    if (!modes.ok()) return VANTREL_ENOMEM;
    int rc = for_each_element(env, fn, list.get(), size, [&](xmlrpc_value* element, int) {
        std::unique_ptr<vantrel_io_mode, decltype(&free_mode)> mode(
            static_cast<vantrel_io_mode*>(calloc(1, sizeof(vantrel_io_mode))), &free_mode);
        if (!mode) return VANTREL_ENOMEM;
        decoded_text desc, name;
        decoded_value subs, osds;
        xmlrpc_decompose_value(env, element, "{s:i,s:s,s:s,s:A,s:A,*}", "idx", &mode->idx,
                               "desc", desc.out(), "name", name.out(), "list", subs.out(), "osds",
                               osds.out());
        if (env->fault_occurred) {
            report_decompose_failed(env, fn);
            return VANTREL_EFAULT;
        }
        decoded_adopt(desc, name, subs, osds);
        str_copy(mode->name, name.get(), sizeof mode->name);
        str_copy(mode->desc, desc.get(), sizeof mode->desc);
        if (!read_mode_lists(env, fn, mode.get(), subs.get(), osds.get())) return VANTREL_EFAULT;
        return modes.push(mode.release()) ? 0 : VANTREL_ENOMEM;
    });
    // Every failure, memory included, leaves the output null.
    if (rc < 0) return VANTREL_EFAULT;
    int count = modes.size();
    *out = modes.release();
    return count;
}

int vantrel_io_settings_get_modes(const char* url, vantrel_io_mode*** modes)
{
    if (!modes) return VANTREL_EINVAL;
    *modes = nullptr;
    return call_with(
        __func__, url, "VantrelIO.SettingsGetModes",
        [modes](xmlrpc_env* env, xmlrpc_value* answer) {
            return vantrel_io_settings_get_modes_decode(env, answer, modes);
        },
        "()");
}

int vantrel_io_settings_modes_free(vantrel_io_mode*** modes)
{
    if (!modes || !*modes) return VANTREL_EINVAL;
    vantrel_io_mode** array = *modes;
    *modes = nullptr;
    for (vantrel_io_mode** mode = array; *mode; ++mode) free_mode(*mode);
    free(array);
    return 0;
}
