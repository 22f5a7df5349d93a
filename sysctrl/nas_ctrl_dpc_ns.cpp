/*
 * The version record in the name service.
 */
#include <nasctrl/version_ns.h>

int32_t InitNasCtrlDpcNs(void)
{
    return 0;
}
