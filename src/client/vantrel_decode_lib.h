#pragma once
// Decoders of the media library client. Each takes a clean fault environment
// and the service's answer (borrowed, never released here), fills the
// caller's outputs and returns what the public function returns. Kept apart
// from the transport so that any value can be fed to them.
#include <cstdint>

#include <xmlrpc-c/base.h>

#include "vantrel_lib.h"

// Members are taken one at a time; a missing or mistyped one is reported and
// left zero/empty. *out is set once the record is complete. Returns 0, or
// -12 when the record cannot be allocated.
int vantrel_lib_meta_item_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_lib_meta** out);

// Result of the register/delete calls, with their own decompose line.
int vantrel_lib_path_result_decode(xmlrpc_env* env, const char* fn, xmlrpc_value* answer);

int vantrel_lib_list_dirs_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* dir,
                                 vantrel_lib_dir*** list);
int vantrel_lib_list_items_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* dir,
                                  vantrel_lib_meta*** list);
int vantrel_lib_meta_item_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* path,
                                 vantrel_lib_meta** meta);
int vantrel_lib_search_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* fn,
                              const char* method, char* item);
int vantrel_lib_list_subclips_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                     vantrel_lib_subclip*** list, uint64_t user);
// `member` is "thumb" or "png"; url and method only name the failure.
int vantrel_lib_thumb_decode(xmlrpc_env* env, xmlrpc_value* answer, const char* fn,
                             const char* url, const char* method, const char* member,
                             unsigned char** data, uint32_t* size);
// One level of the overlay tree: 0 for groups, 1 for leaves. Returns the
// number of entries, -14 or -12; *out is null unless it succeeds.
int vantrel_lib_list_overlays_level(xmlrpc_env* env, xmlrpc_value* array, int level,
                                    vantrel_lib_overlay*** out);
int vantrel_lib_list_overlays_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                     vantrel_lib_overlay*** list);
int vantrel_lib_state_decode(xmlrpc_env* env, xmlrpc_value* answer, vantrel_lib_usage** usage);
int vantrel_lib_disk_usage_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                  vantrel_lib_usage** usage);
int vantrel_lib_register_cue_decode(xmlrpc_env* env, xmlrpc_value* answer, int64_t* cue_cnt,
                                    int64_t* cue_date);
int vantrel_basename_item_decode(xmlrpc_env* env, xmlrpc_value* answer, char* value,
                                 char* object, int32_t* shm_id);
int vantrel_lib_basename_overlay_decode(xmlrpc_env* env, xmlrpc_value* answer, char* value);
