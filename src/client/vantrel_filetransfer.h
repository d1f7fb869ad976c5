#pragma once
/* File transfer and file transcoder clients. The list functions write at most
 * `capacity` records into an array the caller provides and never allocate. */
#include <stdint.h>

#include "vantrel_call.h"

#ifdef __cplusplus
extern "C" {
#endif


typedef struct vantrel_ft_target {
    char id[VANTREL_STR_SIZE];
    char type[VANTREL_STR_SIZE];
    char title[VANTREL_STR_SIZE];
    char host[VANTREL_STR_SIZE];
    char port[VANTREL_STR_SIZE];
    char path[VANTREL_STR_SIZE];
    char login[VANTREL_STR_SIZE];
    char passw[VANTREL_STR_SIZE];
} vantrel_ft_target;

typedef struct vantrel_ft_request {
    int32_t id;
    char target[VANTREL_STR_SIZE];
    int32_t f_import;
    int32_t f_delete;
    char object_local[VANTREL_STR_SIZE];
    char object_remote[VANTREL_STR_SIZE];
    int32_t progress;
    int32_t state;
    char error[VANTREL_STR_SIZE];
    int64_t updated;
    int64_t created;
    char user_data[VANTREL_STR_SIZE]; /* the caller's own; never touched here */
} vantrel_ft_request;

typedef struct vantrel_ftc_request {
    int32_t id;
    int64_t updated;
    int64_t created;
    int32_t f_delete;
    char src_object[VANTREL_STR_SIZE];
    char src_local[VANTREL_STR_SIZE];
    char dst_object[VANTREL_STR_SIZE];
    char dst_local[VANTREL_STR_SIZE];
    char in[VANTREL_STR_SIZE];
    char dur[VANTREL_STR_SIZE];
    char factory[VANTREL_STR_SIZE];
    char profile[VANTREL_STR_SIZE];
    char audio_map[VANTREL_STR_SIZE];
    int32_t audio_conf;
    int32_t progress;
    int32_t state;
    char error[VANTREL_STR_SIZE];
    char timecode[VANTREL_STR_SIZE];
    char osd[VANTREL_STR_SIZE];
} vantrel_ftc_request;

VANTREL_API int vantrel_filetransfer_request_del(const char* url, int id);
VANTREL_API int vantrel_filetransfer_request_cancel(const char* url, int id);
VANTREL_API int vantrel_filetransfer_request_restart(const char* url, int id);
VANTREL_API int vantrel_filetransfer_request_add(const char* url, const vantrel_ft_request* request);
VANTREL_API int vantrel_filetransfer_probe(const char* url, const char* target, const char* location);

VANTREL_API int vantrel_filetranscoder_request_del(const char* url, int id);
VANTREL_API int vantrel_filetranscoder_request_cancel(const char* url, int id);
VANTREL_API int vantrel_filetranscoder_request_restart(const char* url, int id);
VANTREL_API int vantrel_filetranscoder_request_add(const char* url, const vantrel_ftc_request* request);

VANTREL_API int vantrel_filetransfer_targets_list(const char* url, int arg, int capacity,
                                      vantrel_ft_target* targets);
VANTREL_API int vantrel_filetransfer_requests_list(const char* url, int arg1, int arg2, int capacity,
                                       vantrel_ft_request* requests);
VANTREL_API int vantrel_filetransfer_request_get(const char* url, int id, vantrel_ft_request* request);

/* Appends the remote names to *list (a NUL-terminated string list; started
 * when null). On failure *list keeps only what it held before the call. */
VANTREL_API int vantrel_filetransfer_list(const char* url, const char* target, const char* location,
                              char*** list);

VANTREL_API int vantrel_filetranscoder_requests_list(const char* url, int arg1, int arg2, int capacity,
                                         vantrel_ftc_request* requests);

#ifdef __cplusplus
}
#endif
