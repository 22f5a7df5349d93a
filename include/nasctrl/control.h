/*
 * Module entry: start-up, the cluster manager (CM) client's callbacks, and the two modules of the message service.
 *
 * Start order: nas_ctrl_init, nas_ctrl_handler_reg, then NasCtrlClusterInit, each once and from one thread. The CM
 * callbacks and the message handlers run on the host's threads and take no lock: the consumer table is filled before
 * the CM client opens and only read afterwards.
 */
#ifndef NASCTRL_CONTROL_H
#define NASCTRL_CONTROL_H

#include <nasctrl/host/adapters.h>

NASCTRL_BEGIN_DECLS

/* What one consumer of CM traffic wants to be told; an empty slot is skipped. */
typedef struct {
    void (*client_id)(uint32_t id); /* the CM client's id, on every event, before event */
    void (*event)(void *event);     /* a CM event; its first field is its 32-bit type */
    uint32_t (*command)(void *cmd); /* a CM command; its first field is its 32-bit type */
    void (*status)(void);           /* a CM status report */
} cm_ops;

/* The consumers, by index. */
extern NASCTRL_API cm_ops g_nasCtrlCmOps[4];
/* The id of the CM client that NasCtrlClusterInit opened; written by NasCrtlOpenCmClientAdapter. */
extern NASCTRL_API uint32_t g_nasCtrlCMClientId;
/* The storage domain name of the EDS cluster; written by NasCtrlInitEdsDSNameAdapter. */
extern NASCTRL_API char g_nasEdsDsName[64];

/* Registers message-service module 18 and returns what the host's NasCtrlInitAdpater returns. */
NASCTRL_API uint32_t nas_ctrl_init(void);

/*
 * Registers message-service module 3. Returns 0 also when the host refuses the registration, which is only logged;
 * -22 when the registration record cannot be prepared.
 */
NASCTRL_API int32_t nas_ctrl_handler_reg(void);

/*
 * Brings the cluster side up: DPC view, application-data cluster, EDS name and view, CM client, name service. Returns
 * 0, or the code of the step that failed; the steps after it are not run, those before it not undone. A failure of
 * the EDS name or of the name service does not fail the start.
 */
NASCTRL_API uint32_t NasCtrlClusterInit(void);

/*
 * The CM client's callbacks, for the host to hand to its CM library; each tells the consumers in the order of their
 * entries. Event and command stay the host's and are at least 4 bytes long. The command callback returns 0, or 1 for a
 * null command.
 */
NASCTRL_API void NasCtrlHandleClusterEvent(void *event);
NASCTRL_API uint32_t NasCtrlHandleCmCommand(void *cmd);
NASCTRL_API void NasCtrlHandleCmStatus(void);

/* Stores consumer index (0 to 3; 1 is the library's own). The index is not checked. ops is copied. */
NASCTRL_API void NasCtrlRegisterCMClient(uint32_t index, const cm_ops *ops);
/* Stores the DPC view's client id, g_nasDpcClientId. */
NASCTRL_API void NasCtrlSetCmClientId(uint32_t id);

/* Asks the host to fill g_nasEdsDsName, and returns its result; and that name. */
NASCTRL_API uint32_t NasCtrlInitEdsDSName(void);
NASCTRL_API char *NasCtrlGetEdsDSName(void);

/* A trace-point action that forces a failure: stores 1 through fail. Registration is empty in this build. */
NASCTRL_API void NasCtrlTpFail(void *arg, uint32_t *fail);
NASCTRL_API void NasCtrlRegTracePoint(void);

/* ---- message-service module 18: notices from other processes ---- */

/* Registers the module; a refusal is only logged. */
NASCTRL_API void NasCtrlIpServiceInit(void);

/*
 * The module's handler: opcode 1 is a notice, 2 asks for a fixed 8-byte reply, 3 asks for nothing. Returns 0, what
 * sending the reply returned, or 1 for an empty message or an unknown opcode.
 */
NASCTRL_API uint32_t NasCtrlIpServiceDispatch(svr_msg_t *record);

/*
 * Opcode 1: a 516-byte notice (tenant id, 256-byte key, 256-byte value) that HDFS data changed or was cleared, or
 * that an address came or went. Answered with its own bytes; returns what sending the answer returned, or 1 when the
 * notice is malformed and gets no answer.
 */
NASCTRL_API uint32_t NasCtrlIpServiceNotifyCommand(svr_msg_t *record);

NASCTRL_END_DECLS

#endif
