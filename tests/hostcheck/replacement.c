/* Stands in the place of a function of the library. */
#include <nasctrl/config.h>

uint32_t HdfsCtrlGetTenantId(void)
{
    return 7;
}
