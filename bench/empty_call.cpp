#include "empty_call.h"

void emptyLog(uint32_t, uint32_t, const char *, uint32_t, const char *, uint32_t, const char *, ...) {}
