/*
 * The record with which a module registers at the host's message service.
 */
#ifndef NASCTRL_INTERNAL_REGISTRATION_H
#define NASCTRL_INTERNAL_REGISTRATION_H

#include <nasctrl/host/message.h>

#include "bounded.h"

namespace nas {

/* Fills record for a module and its handler; 0, or the failure of clearing it first. */
inline int fillRegistration(svr_module_reg_t *record, uint32_t module, uint32_t (*handler)(svr_msg_t *))
{
    const int cleared = memset_s(record, sizeof(*record), 0, sizeof(*record));
    record->module = module;
    record->handler = handler;
    record->flag = 1;
    return cleared;
}

} // namespace nas

#endif
