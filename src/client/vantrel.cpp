#include "vantrel.h"

int vantrel_init(void) { return 0; }
void vantrel_cleanup(void) {}
