/*
 * Host service: the inter-process message service.
 */
#ifndef NASCTRL_HOST_MESSAGE_H
#define NASCTRL_HOST_MESSAGE_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* One received message, as a module's handler gets it. Record and buffer belong to the host and end with the call. */
typedef struct {
    void *buffer;         /*  0: the message, length bytes */
    uint32_t length;      /*  8 */
    uint32_t module;      /* 12: the module it was sent to */
    uint32_t opcode;      /* 16 */
    uint32_t reserved[3]; /* 20: the host's own */
    uint32_t sequence;    /* 32 */
    uint32_t direction;   /* 36 */
} svr_msg_t;

/* A module's registration; the host copies it. */
typedef struct {
    uint32_t module; /* 0 */
    uint32_t pad;
    uint32_t (*handler)(svr_msg_t *record); /* 8 */
    uint8_t zero[32];
    uint8_t flag;    /* 48: 1 */
    uint8_t tail[7]; /* not used */
} svr_module_reg_t;

/* A synchronous call to the storage-side service. */
typedef struct {
    const void *request; /*   0: stays the caller's */
    uint32_t length;     /*   8 */
    uint32_t module;     /*  12: 18 */
    uint32_t type;       /*  16: the question */
    uint32_t const10;    /*  20: 10 */
    uint32_t reserved24;
    uint32_t sid; /*  28: 6, the storage-side service */
    uint32_t reserved32;
    uint32_t zero36;
    uint32_t const9; /*  40: 9 */
    uint32_t zero44;
    uint32_t zero48;
    uint8_t reserved52[44];
    uint32_t local_nid; /*  96: this node's id */
    uint32_t reserved100;
} svr_call_t;

/*
 * Registers a module's handler; messages to the module reach it from then on, on the host's threads, possibly several
 * at once. The handler's result is 0 or an error code. Returns 0, or non-zero when the module cannot be registered.
 */
NASCTRL_API int32_t svr_regist_module(const svr_module_reg_t *record);

/*
 * Sends the reply to the message that record describes; called by its handler, at most once, before it returns. The
 * reply is copied. Returns 0, or non-zero when it could not be handed to the sender.
 */
NASCTRL_API uint32_t SvrSendResponse(svr_msg_t *record, const void *reply, uint32_t length);

/*
 * Asks the storage-side service and blocks until it answers. Returns 0 and stores a block of the memory pool, which
 * the caller frees with nas_mem_comm_free, and its length; or a negative errno: -110 (-ETIMEDOUT) when no answer came
 * in time, another for every other failure. An empty answer is a null block of length 0, and so is a failure.
 */
NASCTRL_API int32_t svr_upcall_sync(const svr_call_t *call, void **response, uint32_t *response_length);

/* This node's id. */
NASCTRL_API uint32_t IpcGetLocalNid(void);

NASCTRL_END_DECLS

#endif
