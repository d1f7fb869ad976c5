#pragma once
/*
 * Graphics templates of the media library ("VantrelLib.LibTemplate...") and
 * the settings of the playout/record service ("VantrelIO.Settings...").
 *
 * Every function takes the server URL first and returns the answer's
 * "result" (negative values passed through) or -14 on a transport failure or
 * a malformed answer, unless stated otherwise. A null string that is not
 * marked optional gives -22 and nothing is sent.
 */
#include <stdint.h>

#include "vantrel_call.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vantrel_io_settings {
    char playback_osd[VANTREL_STR_SIZE];
    char playback_timecode_src[VANTREL_STR_SIZE];
    char record_timecode_src[VANTREL_STR_SIZE];
    char record_bitdepth[VANTREL_STR_SIZE];
    char record_channels_map[VANTREL_STR_SIZE];
    char io[VANTREL_STR_SIZE];  /* setting "VantrelIO" */
    char mode[VANTREL_STR_SIZE];
    char enc[VANTREL_STR_SIZE];
    char record_producer_buffer[VANTREL_STR_SIZE];
    char playback_consumer_preroll[VANTREL_STR_SIZE];
    char playback_consumer_buffer[VANTREL_STR_SIZE];
    char playback_consumer_prefill[VANTREL_STR_SIZE];
    char playback_consumer_noscale[VANTREL_STR_SIZE];
    int32_t record_channels_conf;
    int32_t keyer;
} vantrel_io_settings;

typedef struct vantrel_io_submode {
    int32_t idx;
    char name[VANTREL_STR_SIZE];
    char desc[VANTREL_STR_SIZE];
} vantrel_io_submode;

typedef struct vantrel_io_mode {
    int32_t idx;
    char name[VANTREL_STR_SIZE];
    char desc[VANTREL_STR_SIZE];
    vantrel_io_submode** submodes;  /* submodes_cnt heap records */
    int32_t submodes_cnt;
    char** osds;                    /* null-terminated, osds_cnt heap strings */
    int32_t osds_cnt;
} vantrel_io_mode;

VANTREL_API int vantrel_lib_tmpl_add(const char* url, const char* name);
VANTREL_API int vantrel_lib_tmpl_del(const char* url, const char* name);
VANTREL_API int vantrel_lib_tmpl_rename(const char* url, const char* from, const char* to);
VANTREL_API int vantrel_lib_tmpl_replace(const char* url, const char* from, const char* to);
VANTREL_API int vantrel_lib_tmpl_clone(const char* url, const char* from, const char* to);

/*
 * Template names and the variables of one template, as a new NUL-terminated
 * string list in *list (see parse_simple_list_response: the caller frees it
 * with vantrel_str_list_free whenever it is not null).
 */
VANTREL_API int vantrel_lib_list_templates(const char* url, char*** list);
VANTREL_API int vantrel_lib_list_template_vars(const char* url, const char* name, char*** list);

/*
 * Appends the layers of template `name` to the NUL-terminated string list
 * *layers (started when null); each layer is the byte string it arrived as,
 * NUL-terminated. The caller frees the list with vantrel_str_list_free.
 * Returns the number of layers appended, or -14.
 */
VANTREL_API int vantrel_lib_tmpl_get(const char* url, const char* name, char*** layers);
/* Writes the layers of a null-terminated list (null: no layers). */
VANTREL_API int vantrel_lib_tmpl_set(const char* url, const char* name, const char* const* layers);

/*
 * Appends the available fonts, each "family\tstyle", to the string list
 * *fonts (started when null); the caller frees it with vantrel_str_list_free.
 * Returns the number of fonts appended, or -14.
 */
VANTREL_API int vantrel_lib_tmpl_fonts(const char* url, char*** fonts);
VANTREL_API int vantrel_lib_tmpl_fonts2(const char* url, char*** fonts);

/*
 * Builds an instance of template `name` and copies the answer's "value" into
 * `value` (VANTREL_STR_SIZE bytes; set empty first). The list and variables
 * follow vantrel_playlist_insert_template: negative counts mean null-terminated
 * arrays, null entries are skipped. `last`: null sends empty. Returns the
 * answer's result, or -14 (also when "value" is missing).
 */
VANTREL_API int vantrel_lib_build_template(const char* url, char* value, const char* name, int p1, int p2,
                               int list_cnt, const char* const* list, int var_cnt,
                               const char* const* var_names, const char* const* var_values,
                               const char* last);

VANTREL_API int vantrel_io_settings_save(const char* url);
VANTREL_API int vantrel_io_settings_set_mode(const char* url, int mode, int submode);
VANTREL_API int vantrel_io_settings_set_mode2(const char* url, const char* mode, const char* submode);
VANTREL_API int vantrel_io_settings_set_value(const char* url, const char* name, const char* value);

/*
 * Fills the fields of *settings whose names arrive; every other field keeps
 * what the caller put there. Returns 0, the server's negative result, the
 * server's result when an entry is malformed (the walk stops there), or -14.
 */
VANTREL_API int vantrel_io_settings_get(const char* url, vantrel_io_settings* settings);

/*
 * Stores a new null-terminated array of heap modes in *modes (null on
 * failure). The caller frees it with vantrel_io_settings_modes_free.
 * Returns the number of modes, the server's negative result, or -14 (one
 * malformed mode discards them all).
 */
VANTREL_API int vantrel_io_settings_get_modes(const char* url, vantrel_io_mode*** modes);

/* Frees every mode and the array, and sets *modes to null. Returns 0, or -22
 * for a null pointer or a null array. */
VANTREL_API int vantrel_io_settings_modes_free(vantrel_io_mode*** modes);

#ifdef __cplusplus
}
#endif
