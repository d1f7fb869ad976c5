#pragma once
/*
 * Playout, playlist and recording control of the playout/record service
 * ("VantrelIO." methods), and the UDP transport commands.
 *
 * Every XML-RPC function takes the server URL first and returns the answer's
 * "result" (negative values passed through) or -14 on a transport failure or
 * a malformed answer. Parameters marked "null sends empty" may be null.
 */
#include <stdint.h>

#include "vantrel_call.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vantrel_status {
    int32_t reserved;  /* not filled by vantrel_getstatus: stays 0 */
    int32_t status;
    char name[VANTREL_STR_SIZE];
    char cookie[VANTREL_STR_SIZE];
    int32_t loop;
    int32_t clip_length;
    int32_t clip_in;
    int32_t clip_dur;
    int32_t clip_pos;
    int32_t clip_start;
    int32_t clip_idx;
    int32_t playlist_gen;
    int32_t playlist_dur;
    int32_t playlist_pos;
    int32_t playlist_count;
    double playlist_speed;
    int32_t rec_paused;
    int32_t tc_frames;
    int32_t tc_src;
} vantrel_status;

typedef struct vantrel_playlist_item {
    char name[VANTREL_STR_SIZE];
    int32_t in;
    int32_t dur;
    char overlay_name[VANTREL_STR_SIZE];
    char overlay_pos[VANTREL_STR_SIZE];
    char cookie[VANTREL_STR_SIZE];
    char amap[VANTREL_STR_SIZE];
    int32_t length;
    int32_t pos;
    int32_t start;
    int32_t idx;
    int32_t repeat;
} vantrel_playlist_item;

/* Transport commands without parameters. */
VANTREL_API int vantrel_play(const char* url);
VANTREL_API int vantrel_pause(const char* url);
VANTREL_API int vantrel_stop(const char* url);
VANTREL_API int vantrel_cue_play(const char* url);
VANTREL_API int vantrel_playlist_clear(const char* url);
VANTREL_API int vantrel_record(const char* url);

VANTREL_API int vantrel_play_vari(const char* url, double speed);
VANTREL_API int vantrel_cue_play_with_data(const char* url, int data);
/* `name` is sent as given; overlay_name, overlay_pos, cookie: null sends empty. */
VANTREL_API int vantrel_playlist_append(const char* url, const char* name, int in, int dur,
                            const char* overlay_name, const char* overlay_pos,
                            const char* cookie);
VANTREL_API int vantrel_playlist_insert(const char* url, int at, const char* name, int in, int dur,
                            const char* overlay_name, const char* overlay_pos,
                            const char* cookie);
VANTREL_API int vantrel_playlist_remove(const char* url, int idx);
VANTREL_API int vantrel_playlist_repeat_clip(const char* url, int idx, int repeat);
VANTREL_API int vantrel_playlist_resize_clip(const char* url, int idx, int in, int dur);
VANTREL_API int vantrel_playlist_move(const char* url, int from, int to);
VANTREL_API int vantrel_playlist_loop(const char* url, int loop);
VANTREL_API int vantrel_playlist_seek_to(const char* url, int idx, int pos);
VANTREL_API int vantrel_playlist_seek(const char* url, int pos);
VANTREL_API int vantrel_playlist_step(const char* url, int step);
/* Sends name, in, dur, overlay_name, overlay_pos, cookie, amap of `item`. */
VANTREL_API int vantrel_playlist_insert2(const char* url, int at, const vantrel_playlist_item* item);
VANTREL_API int vantrel_playlist_append2(const char* url, const vantrel_playlist_item* item);

/*
 * Inserts a template instance. `list` holds `list_cnt` strings, or is
 * null-terminated when list_cnt is negative; null entries are skipped.
 * The variables are `var_cnt` name/value pairs; with a negative var_cnt they
 * are counted up to the first position where the name or the value is null.
 * Positions with a null name or value are skipped. `last`: null sends empty.
 */
VANTREL_API int vantrel_playlist_insert_template(const char* url, int at, const char* name, int p1, int p2,
                                     int list_cnt, const char* const* list, int var_cnt,
                                     const char* const* var_names,
                                     const char* const* var_values, const char* last);

/* The last string is sent only when it is not null. */
VANTREL_API int vantrel_cue_record_with_data(const char* url, const char* name, int p1, int p2,
                                 const char* data);
VANTREL_API int vantrel_cue_record(const char* url, const char* name, const char* data);
VANTREL_API int vantrel_record_next(const char* url, const char* name, const char* data);
VANTREL_API int vantrel_record_pause(const char* url, int pause);

/*
 * Zero-fills *status, then fills it from the service's status. Returns the
 * answer's result (the members are decoded whatever its value), or -14 when
 * the call fails or any member is missing (the record may be partly filled).
 */
VANTREL_API int vantrel_getstatus(const char* url, vantrel_status* status);

/*
 * Reads the playlist. Sets *items to null, then to one zero-filled heap
 * block of records once the first item arrives; the caller frees it with one
 * free() whenever it is not null, whatever the result. Returns the number of
 * items decoded, or -14. overlay_name, overlay_pos and amap stay empty.
 */
VANTREL_API int vantrel_playlist_items(const char* url, int* gen, int* pos, int* idx,
                           vantrel_playlist_item** items);

/*
 * Sends `text` and its terminating NUL as one datagram to "host:port".
 * Returns the number of bytes sent; -22 without a colon, for a host part over
 * 135 characters or a host that does not resolve; the negated errno when the
 * socket or the send fails. Never waits for a reply.
 */
VANTREL_API int vantrel_udp_send(const char* destination, const char* text);
VANTREL_API int vantrel_udp_play(const char* destination);
VANTREL_API int vantrel_udp_pause(const char* destination);
VANTREL_API int vantrel_udp_stop(const char* destination);
VANTREL_API int vantrel_udp_record(const char* destination);

#ifdef __cplusplus
}
#endif
