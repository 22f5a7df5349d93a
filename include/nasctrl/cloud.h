/*
 * The cloud adapter: the VPC table as commands of module "cloud_adapt", and the state of the cloud's identity (IAM)
 * client, whose requests are empty in this build.
 *
 * The commands take no lock; the host runs them one at a time, as the VPC table asks for.
 */
#ifndef NASCTRL_CLOUD_H
#define NASCTRL_CLOUD_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* Called once at start: registers the commands and loads the VPC file. Returns 0. */
NASCTRL_API int32_t NasCloudAdaptInit(void);
/* The same without a result. Registrations that the host refuses are passed over. */
NASCTRL_API void NasCloudPumRegister(void);

/*
 * ---- the commands: buf, of size bytes, holds the operator's text on entry and the answer on return. They return the
 * answer's length, 0 without an answer, or -EINVAL for a null buf where they read or answer ----
 */

NASCTRL_API int32_t NasCloudSetVpcInfo(char *buf, uint32_t size);     /* "ID,ADDRESS/LENGTH", the id at most 127 long */
NASCTRL_API int32_t NasCloudGetVpcInfo(char *buf, uint32_t size);     /* the table, sorted */
NASCTRL_API int32_t NasCloudClearVpcInfo(char *buf, uint32_t size);   /* the file stays */
NASCTRL_API int32_t NasCloudGetVpcInfoByIP(char *buf, uint32_t size); /* of an IPv4 address */
NASCTRL_API int32_t NasCloudCheckVpcID(char *buf, uint32_t size);     /* of an id */
/* The table to its file. */
NASCTRL_API int32_t NasCloudSaveVpc(char *buf, uint32_t size);
NASCTRL_API int32_t NasCloudReloadVpc(char *buf, uint32_t size); /* adds to the table */

/* ---- the identity client: plain data without a lock ---- */

/* What proves the identity, and until when. */
typedef struct {
    const char *token;  /* the text to show */
    const char *expiry; /* "%Y-%m-%dT%H:%M:%S", local time */
} iam_token;

/* An account, as the host lays it out. */
typedef struct {
    uint64_t fields[3]; /* copied as they are */
} iam_account;

/* The host's; the library neither reads nor writes it. */
extern NASCTRL_API iam_token gToken;
/* What NasSetIamAccoutInfo stored. */
extern NASCTRL_API iam_account gAcc;
extern NASCTRL_API uint8_t bInitialed; /* 1 once NasInitNasIam has run */

/* Against its name: 1 while the token's time has not passed, 0 afterwards, and for a null token or expiry. */
NASCTRL_API uint32_t NasIsTokenExpired(const iam_token *t);
/* Gives two pool blocks back, second before first; null is skipped. */
NASCTRL_API void NasFreeIamToken(void *first, void *second);
/* Copies the account's fields to gAcc. */
NASCTRL_API void NasSetIamAccoutInfo(const iam_account *a);
/* Returns 0. */
NASCTRL_API int32_t NasInitNasIam(void);

/* ---- entry points that are empty in this build and return 0; a host may define its own in their place ---- */

/* Return 0. */
NASCTRL_API int32_t NasGetIamToken(void);
NASCTRL_API int32_t NasParseTokenData(void);
NASCTRL_API int32_t NasSendIamRequest(void);
NASCTRL_API int32_t NasReceiveIamData(void);

NASCTRL_END_DECLS

#endif
