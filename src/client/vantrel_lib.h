#pragma once
/* Media library client: listings, metadata, searches, subclips, thumbnails,
 * overlays, usage, cues and name resolution of the library service, plus the
 * audio channel layout table used to show channel maps.
 *
 * Every call returns the service's "result" (>= 0 success, negative errno),
 * -14 when the call or the decoding of its answer fails, or the number of
 * entries for listings. Whatever a call allocates belongs to the caller. */
#include <stddef.h>
#include <stdint.h>

#include "vantrel_call.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VANTREL_LIB_SHORT_TEXT_SIZE 32

/* <sys/stat.h> turns st_atime and friends into macros ("st_atim.tv_sec").
 * The fields keep their names, and a same-storage alias answers to the macro
 * form, so m->st_mtime reads the same field with or without that header. */
#pragma push_macro("st_atime")
#pragma push_macro("st_mtime")
#pragma push_macro("st_ctime")
#undef st_atime
#undef st_mtime
#undef st_ctime

typedef struct vantrel_lib_seconds {
    int64_t tv_sec;
} vantrel_lib_seconds;

/* Technical metadata of one media item; one heap block, freed with free(). */
typedef struct vantrel_lib_meta {
    char name[VANTREL_STR_SIZE];
    char path[VANTREL_STR_SIZE]; /* directory of the request + name */
    int64_t st_ino;
    int64_t st_size;
    VANTREL_EXTENSION union {
        int64_t st_mtime;
        vantrel_lib_seconds st_mtim;
    };
    VANTREL_EXTENSION union {
        int64_t st_ctime;
        vantrel_lib_seconds st_ctim;
    };
    VANTREL_EXTENSION union {
        int64_t st_atime;
        vantrel_lib_seconds st_atim;
    };
    char format_name[VANTREL_STR_SIZE];
    double duration_eff; /* duration_v unless that is 0.0, else duration */
    double duration;
    double duration_v;
    double duration_a;
    int32_t nb_frames;
    int32_t nb_streams;
    int32_t width;
    int32_t height;
    int32_t dar_num, dar_den;
    int32_t sar_num, sar_den;
    int32_t fps_num, fps_den;
    char sample_fmt[VANTREL_LIB_SHORT_TEXT_SIZE];
    int32_t sample_rate;
    int32_t channels;
    char timecode[VANTREL_LIB_SHORT_TEXT_SIZE]; /* "00:00:00:00" when not sent */
    int32_t subclips;
} vantrel_lib_meta;

#pragma pop_macro("st_ctime")
#pragma pop_macro("st_mtime")
#pragma pop_macro("st_atime")

typedef struct vantrel_lib_dir {
    char name[VANTREL_STR_SIZE];
    char path[VANTREL_STR_SIZE];
} vantrel_lib_dir;

typedef struct vantrel_lib_subclip {
    int32_t idx; /* position in the list, from 0 */
    int32_t mark_in;
    int32_t duration;
    char title[VANTREL_STR_SIZE];
    uint64_t user; /* the caller's tag, copied into every record */
} vantrel_lib_subclip;

/* A group holds its directory in path, its leaf count in count and its
 * leaves in children; a leaf holds path, name and its size in bytes. */
typedef struct vantrel_lib_overlay {
    char path[VANTREL_STR_SIZE];
    char name[VANTREL_STR_SIZE];
    int64_t count;
    struct vantrel_lib_overlay** children; /* null-terminated, or null */
} vantrel_lib_overlay;

/* One heap block of 48 bytes plus amend_cnt entries; freed with free(). */
typedef struct vantrel_lib_usage {
    int32_t total_items;
    int64_t used_space;
    int64_t total_space;
    int64_t free_space;
    int64_t amend_idx;
    int32_t amend_cnt;
    VANTREL_EXTENSION char amend_list[][VANTREL_STR_SIZE];
} vantrel_lib_usage;

VANTREL_API int vantrel_lib_register_item(const char* url, const char* path);
VANTREL_API int vantrel_lib_delete_item(const char* url, const char* path);
VANTREL_API int vantrel_lib_delete_dir(const char* url, const char* path);
VANTREL_API int vantrel_lib_rename_item(const char* url, const char* from, const char* to);
VANTREL_API int vantrel_lib_delete_subclip(const char* url, const char* path, int idx);
VANTREL_API int vantrel_lib_register_subclip(const char* url, const char* path, int mark_in, int duration,
                                 const char* title);

/* Listings: a heap array of heap records (free each, then the array).
 * Directories come sorted by name descending, items ascending (case-blind). */
VANTREL_API int vantrel_lib_list_dirs(const char* url, const char* dir, vantrel_lib_dir*** list);
VANTREL_API int vantrel_lib_list_items2(const char* url, const char* dir, vantrel_lib_meta*** list, int arg1,
                            int arg2);
VANTREL_API int vantrel_lib_list_items(const char* url, const char* dir, vantrel_lib_meta*** list);
VANTREL_API int vantrel_lib_meta_item(const char* url, const char* path, vantrel_lib_meta** meta);

/* A null filter is sent as the empty string. */
VANTREL_API int vantrel_lib_search_item(const char* url, int mode, const char* filter, const char* name,
                            char item[VANTREL_STR_SIZE]);
VANTREL_API int vantrel_lib_search_item_dur_range(const char* url, int mode, const char* filter,
                                      char item[VANTREL_STR_SIZE], double dur_min,
                                      double dur_max);

VANTREL_API int vantrel_lib_list_subclips(const char* url, const char* path, vantrel_lib_subclip*** list,
                              uint64_t user);
VANTREL_API int vantrel_lib_subclips_free(vantrel_lib_subclip*** list);

/* The bytes are a heap block owned by the caller. */
VANTREL_API int vantrel_lib_thumb_item(const char* url, const char* path, const char* kind, int width,
                           int height, unsigned char** data, uint32_t* size);
VANTREL_API int vantrel_lib_thumb_overlay(const char* url, const char* path, unsigned char** data,
                              uint32_t* size);

VANTREL_API int vantrel_lib_list_overlays(const char* url, vantrel_lib_overlay*** list);
VANTREL_API int vantrel_lib_overlays_free(vantrel_lib_overlay*** list);

VANTREL_API int vantrel_lib_state(const char* url, int amend_idx, vantrel_lib_usage** usage);
VANTREL_API int vantrel_lib_disk_usage(const char* url, vantrel_lib_usage** usage);

/* cue_cnt and cue_date may be null. */
VANTREL_API int vantrel_lib_register_cue(const char* url, const char* path, int cue, int64_t* cue_cnt,
                             int64_t* cue_date);

/* opt may be null or empty; shm_id may be null and is -1 when unknown. */
VANTREL_API int vantrel_lib_basename_item(const char* url, const char* path, const char* opt,
                              char value[VANTREL_STR_SIZE], char object[VANTREL_STR_SIZE],
                              int32_t* shm_id);
VANTREL_API int vantrel_io_basename_item(const char* url, const char* path, char value[VANTREL_STR_SIZE],
                             char object[VANTREL_STR_SIZE], int32_t* shm_id);
VANTREL_API int vantrel_lib_basename_overlay(const char* url, const char* path,
                                 char value[VANTREL_STR_SIZE]);

/* Audio channel layouts. A channel map holds one base-36 channel number
 * ("0"-"9", "A"-"Z") per output position. */
VANTREL_API int vantrel_audio_layouts_count(void);
VANTREL_API const char* vantrel_audio_layout_name(int layout);
VANTREL_API const char* vantrel_audio_layout_format(int layout);
VANTREL_API int vantrel_audio_map_digit(int pos, const char* map);
VANTREL_API char* vantrel_audio_map_format(char* buf, size_t size, int layout, const char* map);

#ifdef __cplusplus
}
#endif
