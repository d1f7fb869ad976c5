#pragma once
/*
 * Supervisor client: one function per control method of VantrelWatchdog.
 *
 * Results: the methods answer with a "ret" member rather than "result", and
 * these functions return it unchanged: 0 or a slot index on success, -34
 * (VANTREL_ERANGE) when the request addressed no application, -12 when the
 * table is full, -2 for an unknown type or command; -14 when the call failed
 * or the answer had the wrong shape. The listings return their number of
 * entries, or -14.
 *
 * Addressing: `idx` 0 or more is a slot index (which changes when slots
 * move); `idx` -1 with `ptr` the application's handle ("ptr" of the status
 * listing, lower-case hexadecimal) names the application itself, wherever it
 * has moved. Changes should use the handle.
 *
 * Records are the caller's; those holding heap blocks have a freeing
 * function, which may be called on a zero-filled or already freed record.
 */
#include <stdint.h>

#include "vantrel_call.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VANTREL_ERANGE (-34)

/* Handle text: 16 hexadecimal digits at most. */
#define VANTREL_WD_PTR_SIZE 32
/* Type names of the application type table. */
#define VANTREL_WD_NAME_SIZE 64

/* Standard output and standard error of a child, for get_std_buf. */
#define VANTREL_WD_STDOUT 1
#define VANTREL_WD_STDERR 2

/* One application slot of GetStatus. */
typedef struct vantrel_wd_app {
    int64_t amend;      /* the application's own change counter */
    char ptr[VANTREL_WD_PTR_SIZE];
    int32_t pid;        /* 0 when not running */
    int64_t started;    /* seconds since the child started, 0 when not running */
    int64_t terminated; /* seconds since a stop was requested, 0 when none is pending */
    int32_t f_autorun;
    int32_t f_respawn;
    char err[VANTREL_STR_SIZE]; /* last start error, empty when none */
    char alias[VANTREL_STR_SIZE];
    char thumb[VANTREL_STR_SIZE];
    char app_name[VANTREL_WD_NAME_SIZE]; /* type name */
} vantrel_wd_app;

/* One running processing element of GetElements. */
typedef struct vantrel_wd_element {
    int32_t id; /* type row */
    int32_t port;
    char alias[VANTREL_STR_SIZE];
    char thumb[VANTREL_STR_SIZE];
    char app_name[VANTREL_WD_NAME_SIZE];
} vantrel_wd_element;

/* What GetStatus and GetElements share; the list is one heap block of
 * `count` records, freed with vantrel_watchdog_listing_free. */
typedef struct vantrel_wd_listing {
    int64_t amend; /* the supervisor's configuration change counter */
    char version[VANTREL_STR_SIZE];
    char instance_name[VANTREL_STR_SIZE];
    int32_t count;
    vantrel_wd_app* apps;         /* GetStatus only */
    vantrel_wd_element* elements; /* GetElements only */
} vantrel_wd_listing;

/* The stored configuration of one application (GetItem, SetItem). raws and
 * envs are NUL-terminated string lists (vantrel_str_list_*), null meaning
 * empty; freed with vantrel_watchdog_item_free. */
typedef struct vantrel_wd_item {
    char ptr[VANTREL_WD_PTR_SIZE]; /* the request's ptr, echoed */
    int32_t id;                    /* type row */
    char id_name[VANTREL_WD_NAME_SIZE];
    char alias[VANTREL_STR_SIZE];
    char thumb[VANTREL_STR_SIZE];
    char config[VANTREL_STR_SIZE];
    char bin_path[VANTREL_STR_SIZE];
    char numa_bind[VANTREL_STR_SIZE];
    char** raws;
    char** envs;
} vantrel_wd_item;

/* A piece of captured output (GetStdXXXBuf); data is a heap block of `size`
 * bytes (null when empty), freed with vantrel_watchdog_output_free. */
typedef struct vantrel_wd_output {
    int64_t off;  /* stream offset just past the returned bytes: the next call's off */
    int64_t head; /* oldest stream offset still held */
    int64_t tail; /* stream offset just past the newest byte */
    int32_t file_no;
    uint32_t size;
    unsigned char* data;
} vantrel_wd_output;

/* Every slot with its run state. Returns the number of slots, or -14. */
VANTREL_API int vantrel_watchdog_get_status(const char* url, vantrel_wd_listing* status);
/* The running processing elements with their control ports. Count or -14. */
VANTREL_API int vantrel_watchdog_get_elements(const char* url, vantrel_wd_listing* elements);
VANTREL_API void vantrel_watchdog_listing_free(vantrel_wd_listing* listing);

/* The configurable type names into a new string list at *names (the
 * caller's, also on failure once set). Count or -14. */
VANTREL_API int vantrel_watchdog_get_apps(const char* url, char*** names);

/* Returns the slot index, -34, or -14. */
VANTREL_API int vantrel_watchdog_get_item(const char* url, int idx, const char* ptr, vantrel_wd_item* item);
/* idx -1 with an empty ptr adds an application. The type is item->id_name;
 * item->ptr and item->id are not sent. Returns 0, -34, -12, -2 or -14. */
VANTREL_API int vantrel_watchdog_set_item(const char* url, int idx, const char* ptr,
                              const vantrel_wd_item* item);
VANTREL_API void vantrel_watchdog_item_free(vantrel_wd_item* item);

/* One command ("t_run", "t_term", "f_respawn", ...) with its value (null is
 * sent as ""). Returns 0, -2, -12, -34 or -14. */
VANTREL_API int vantrel_watchdog_set_field(const char* url, int idx, const char* ptr, const char* field,
                               const char* val);

/* Up to 1024 bytes of standard output (1) or error (2) from stream offset
 * `off`. Returns the slot index, -34, or -14. */
VANTREL_API int vantrel_watchdog_get_std_buf(const char* url, int idx, const char* ptr, int64_t off,
                                 int file_no, vantrel_wd_output* output);
VANTREL_API void vantrel_watchdog_output_free(vantrel_wd_output* output);

/* Checks a secret or a session token. Returns 1 (accepted, the token copied
 * into `session_out` when given, VANTREL_STR_SIZE bytes), 0 (refused), or
 * -14. */
VANTREL_API int vantrel_watchdog_get_auth(const char* url, const char* secret, const char* session,
                              char* session_out);

#ifdef __cplusplus
}
#endif
