#pragma once
// Answer decoders of the client library, apart from the transport so that
// tests and fuzz targets can feed them any value. Each takes a clean fault
// environment and the whole answer (borrowed: never released here), fills the
// caller's outputs and returns what the public function returns. They write
// the same diagnostic lines as the public functions and never crash on an
// answer of the wrong shape.
#include <xmlrpc-c/base.h>

#include "vantrel_io.h"
#include "vantrel_templates.h"

// Standard decoding of "result".
int vantrel_result_decode(xmlrpc_env* env, const char* fn, const char* method,
                          xmlrpc_value* answer);

int vantrel_getstatus_decode(xmlrpc_env* env, xmlrpc_value* answer, vantrel_status* status);
int vantrel_playlist_items_decode(xmlrpc_env* env, xmlrpc_value* answer, int* gen, int* pos,
                                  int* idx, vantrel_playlist_item** items);

int vantrel_lib_tmpl_get_decode(xmlrpc_env* env, xmlrpc_value* answer, char*** layers);
int vantrel_lib_tmpl_fonts_decode(xmlrpc_env* env, const char* method, xmlrpc_value* answer,
                                  char*** fonts);
int vantrel_lib_build_template_decode(xmlrpc_env* env, xmlrpc_value* answer, char* value);
int vantrel_io_settings_get_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                   vantrel_io_settings* settings);
int vantrel_io_settings_get_modes_decode(xmlrpc_env* env, xmlrpc_value* answer,
                                         vantrel_io_mode*** modes);
