/*
 * The message service without other processes: the host itself sends messages to the library's modules, and
 * nobody answers its questions to the storage side.
 */
#include "minimal_host.h"

#include <errno.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/host/message.h>
#include <stdio.h>

#define MODULES_MAX 32U

static uint32_t (*g_handlers[MODULES_MAX])(svr_msg_t *record); /* filled at start, then only read */

int32_t svr_regist_module(const svr_module_reg_t *record)
{
    if (record->module >= MODULES_MAX) {
        return EINVAL;
    }
    g_handlers[record->module] = record->handler;
    return 0;
}

uint32_t sendMessage(uint32_t module, uint32_t opcode, void *buffer, uint32_t length)
{
    svr_msg_t record = {.buffer = buffer, .length = length, .module = module, .opcode = opcode};
    if (module >= MODULES_MAX || g_handlers[module] == NULL) {
        return NAS_ERROR;
    }
    return g_handlers[module](&record);
}

uint32_t SvrSendResponse(svr_msg_t *record, const void *reply, uint32_t length)
{
    (void)reply;
    printf("module %u replies with %u bytes\n", record->module, length);
    return 0;
}

int32_t svr_upcall_sync(const svr_call_t *call, void **response, uint32_t *response_length)
{
    (void)call;
    *response = NULL;
    *response_length = 0;
    return -ENOTCONN; /* there is no storage side */
}

uint32_t IpcGetLocalNid(void)
{
    return LOCAL_LS;
}
