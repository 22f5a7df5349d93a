/*
 * Notices to the modules FMM and DLG. Told on any thread, without a lock.
 */
#ifndef NASCTRL_INTERNAL_FMM_NOTICE_H
#define NASCTRL_INTERNAL_FMM_NOTICE_H

#include <nasctrl/fmm.h>
#include <nasctrl/host/notify.h>

namespace nas {

/* DLG is told before FMM, of the event and its data word. What they answer does not matter. */
inline void tellDlgAndFmm(uint32_t event, uint64_t data)
{
    notify_arg_t argument = {};
    argument.data = data;
    notifyCall(NOTIFY_MODULE_DLG, event, &argument);
    notifyCall(NOTIFY_MODULE_FMM, event, &argument);
}

} // namespace nas

#endif
