#pragma once
/*
 * Private XML-RPC clients with their own time-out, for calls made from
 * several threads at once.
 *
 * Every call function of the library goes through the process-wide client
 * that vantrel_init sets up, which one thread may use at a time and which
 * waits for an answer as long as the transport does. A thread that has
 * selected a client of its own with vantrel_client_use makes all its calls
 * through that one instead, each bounded by the client's time-out. Use one
 * client per thread: a client serves one call at a time.
 *
 * Call vantrel_init first. Creating and freeing clients is safe from any
 * thread.
 */
#include "vantrel_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vantrel_client vantrel_client;

/* A new client whose calls give up after `timeout_ms` milliseconds in all
 * (connection, request and answer; 0: the transport's default). Null when
 * it cannot be set up (the reason on standard error). */
VANTREL_API vantrel_client* vantrel_client_new(unsigned timeout_ms);

/* Frees a client that no thread uses any more. Null is fine. */
VANTREL_API void vantrel_client_free(vantrel_client* client);

/* Routes this thread's calls through `client`, or back to the process-wide
 * client with null. Returns the client used before. */
VANTREL_API vantrel_client* vantrel_client_use(vantrel_client* client);

#ifdef __cplusplus
}
#endif
