/*
 * The VPC table of a cloud deployment: which tenant's virtual private cloud (VPC) owns a client's IPv4 address. At most
 * 100 networks, each with the id of its VPC, kept in a table and in the file /opt/dr/config/vpc.local.conf.
 *
 * There is no lock: whoever changes the table does so from one thread at a time, and a look-up that runs during a
 * change may see a record half written.
 */
#ifndef NASCTRL_VPC_H
#define NASCTRL_VPC_H

#include <nasctrl/base.h>
#include <sys/socket.h>

NASCTRL_BEGIN_DECLS

#define NAS_VPC_RECORDS 100                 /* networks in the table */
#define NAS_VPC_ID_SIZE 129                 /* of a buffer for any id, NUL included */
#define NAS_VPC_EXISTS 0xFFFFFFFEU          /* NasSetVpcInfo: the same record is there already */
#define NAS_VPC_DEFAULT_ID "vpc_id_default" /* of an address in no network */

/* A network and the id of its VPC. */
typedef struct {
    char id[NAS_VPC_ID_SIZE]; /* at most 128 characters */
    char ip[20];              /* the network's address as text, without a NUL when it has 20 characters */
    char spare;               /* 0, so that such a text ends here */
    int16_t mask;             /* prefix length */
    uint32_t in_use;          /* 1 = used, 0 = free */
} vpc_record;

extern NASCTRL_API vpc_record g_vpc[NAS_VPC_RECORDS]; /* the table */
/* The answer for an address that belongs to no network: NAS_VPC_DEFAULT_ID. */
extern NASCTRL_API char g_VpcDefault[NAS_VPC_ID_SIZE];

/*
 * Adds a network, "ADDRESS/LENGTH", which is cut in place; the address is not checked, and without a "/LENGTH" the
 * length is 0. The search for the same record ends at the first free slot, which takes the new one. Returns 0,
 * NAS_VPC_EXISTS, or NAS_INVALID: no address, an address above 20 or an id above 128 characters, a full table, null.
 */
NASCTRL_API uint32_t NasSetVpcInfo(const char *vpcId, char *ipMask);

/*
 * Writes the id of the first network that a, an IPv4 address, lies in to out (NAS_VPC_ID_SIZE bytes); that of
 * g_VpcDefault when it lies in none. The address is compared as it lies in memory, shifted left by 32 - LENGTH bits
 * modulo 32: on a little-endian machine the lengths 8, 16 and 24 compare the leading octets, 0 and 32 the whole
 * address, and any other length not the bits that one would expect. Returns 0, or NAS_INVALID for another family or
 * null.
 */
NASCTRL_API uint32_t NasGetVpcInfoByIP(const struct sockaddr *a, char *out);

/* 0 when a slot, used or free, has this id (an empty one while a slot is free), else -1. */
NASCTRL_API int32_t NasCheckVpcID(const char *vpcId);

/* Frees every slot: 0, or the code with which clearing failed. The file stays. */
NASCTRL_API int32_t NasClearVpcInfo(void);

/* Puts the records in the order of their ids, then of their addresses as texts. */
NASCTRL_API void NasSortVpc(void);

/*
 * Sorts the table and prints it into buf (size bytes, NUL included), cut to fit. Returns the number of characters
 * written; 0 for a size of 0, which writes nothing, and for a null buf.
 */
NASCTRL_API uint32_t NasListVpcInfo(char *buf, uint32_t size);

/*
 * Writes the records to the file: a line "ID;ADDRESS/LENGTH" and an empty one each. The file is made when it is not
 * there, its folder is not, and it is not cut: what an older, longer text holds behind the new one stays. A file that
 * cannot be opened is left alone without a word.
 */
NASCTRL_API void NasVpcSave(void);

/* Adds what the file holds to the table, line by line as NasSetVpcInfo does it; no file is no error. */
NASCTRL_API void NasVpcLoad(void);

/* Copies a record: 0, or NAS_INVALID when a copy failed or for null. */
NASCTRL_API uint32_t NasCopyVpc(vpc_record *dst, const vpc_record *src);

/* Empty in this build: 0. A host may define its own in its place. */
NASCTRL_API uint32_t NasGetVpcInfo(void);

NASCTRL_END_DECLS

#endif
