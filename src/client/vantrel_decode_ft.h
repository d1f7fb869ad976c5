#pragma once
// Decoders of the file transfer and transcoder clients: a clean fault
// environment and the service's answer (borrowed) in, the caller's records
// out, the public function's result back.
#include <xmlrpc-c/base.h>

#include "vantrel_filetransfer.h"

// One element into the caller's record, which is written only when the
// whole element decodes. 0, or -14 with the fault left in env.
int vantrel_ft_target_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_ft_target* out);
int vantrel_ft_request_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_ft_request* out);
int vantrel_ftc_request_decompose(xmlrpc_env* env, xmlrpc_value* item, vantrel_ftc_request* out);

int vantrel_filetransfer_targets_list_decode(xmlrpc_env* env, xmlrpc_value* answer, int capacity,
                                             vantrel_ft_target* targets);
int vantrel_filetransfer_requests_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                              int capacity, vantrel_ft_request* requests);
int vantrel_filetranscoder_requests_list_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                                int capacity, vantrel_ftc_request* requests);
int vantrel_filetransfer_request_get_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                            vantrel_ft_request* request);
int vantrel_filetransfer_list_decode(xmlrpc_env* env, xmlrpc_value* answer, char*** list);
