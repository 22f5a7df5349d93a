#include "internal/pool.h"

#include <nasctrl/ipc.h>

void FreeCurNodeIpList(void *list)
{
    if (list != nullptr) {
        POOL_FREE(list);
    }
}
