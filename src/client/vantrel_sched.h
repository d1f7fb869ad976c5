#pragma once
/* Scheduler client: schedule items, the execution log and the state. */
#include <stdint.h>

#include "vantrel_call.h"

#ifdef __cplusplus
extern "C" {
#endif


/* One heap block, freed with free(). id and calc are the scheduler's own and
 * are not sent when adding. */
typedef struct vantrel_sched_item {
    int32_t start_time;
    int32_t duration;
    int32_t tc;
    int32_t enabled;
    int32_t id;
    char path[VANTREL_STR_SIZE];
    char title[VANTREL_STR_SIZE];
    int64_t min;
    int64_t hour;
    int64_t day;
    int64_t weekday;
    int64_t month;
    int64_t year;
    int64_t calc; /* next start time computed by the scheduler */
    char mode[VANTREL_STR_SIZE];
    char enc[VANTREL_STR_SIZE];
    char transfer[VANTREL_STR_SIZE];
    char prefix[VANTREL_STR_SIZE];
} vantrel_sched_item;

typedef struct vantrel_sched_log {
    int64_t start;
    int64_t calc;
    int32_t status;
    int32_t start_time;
    int32_t duration;
    int32_t tc;
    char origin[VANTREL_STR_SIZE];
    char mode[VANTREL_STR_SIZE];
    char enc[VANTREL_STR_SIZE];
    char transfer[VANTREL_STR_SIZE];
    char prefix[VANTREL_STR_SIZE];
} vantrel_sched_log;

/* state != 0: an item runs and the running group is valid; state == 0: idle
 * and only t_next/s_next are. The two groups share storage. */
typedef struct vantrel_sched_state {
    int32_t state;
    int64_t t_now;
    char s_now[VANTREL_STR_SIZE];
    VANTREL_EXTENSION union {
        VANTREL_EXTENSION struct {
            int32_t status;
            int32_t duration;
            int64_t t_start;
            int64_t t_end;
            char s_start[VANTREL_STR_SIZE];
            char s_end[VANTREL_STR_SIZE];
        };
        VANTREL_EXTENSION struct {
            int64_t t_next;
            char s_next[VANTREL_STR_SIZE];
        };
    };
} vantrel_sched_state;

VANTREL_API int vantrel_sched_item_add(const char* url, const vantrel_sched_item* item);
VANTREL_API int vantrel_sched_item_del(const char* url, int id);
VANTREL_API int vantrel_sched_item_enable(const char* url, int id, int enable);
VANTREL_API int vantrel_sched_expand_curr(const char* url, int arg);

/* *item stays null unless the answer's result is 0 and the item decodes.
 * "start_time", "transfer" and "prefix" may be missing from an item (older
 * schedulers): they are then left zero/empty. */
VANTREL_API int vantrel_sched_item_get(const char* url, int id, vantrel_sched_item** item);

/* Heap arrays of heap records: free every record, then the array. Items come
 * sorted by calc ascending; log entries in the scheduler's order. */
VANTREL_API int vantrel_sched_item_list(const char* url, vantrel_sched_item*** list);
VANTREL_API int vantrel_sched_log_list(const char* url, vantrel_sched_log*** list);

VANTREL_API int vantrel_sched_get_state(const char* url, vantrel_sched_state* state);

#ifdef __cplusplus
}
#endif
