#pragma once
/* The suite client library: one plain function per remote method. */
#ifdef __cplusplus
extern "C" {
#endif

int vantrel_init(void);
void vantrel_cleanup(void);

#ifdef __cplusplus
}
#endif
