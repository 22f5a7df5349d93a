/*
 * The questions to the storage-side service: a row of data for each, and the one road that all of them take.
 */
#ifndef NASCTRL_INTERNAL_IPC_QUERY_H
#define NASCTRL_INTERNAL_IPC_QUERY_H

#include "pool.h"

#include <cstdint>

namespace nas {

/* One per row of the table, in its order. */
enum class QueryId {
    curNodeIpList,
    hdfsConf,
    hdfsNeighborIpList,
    hdfsZoneIpList,
    curNodeIfaceList,
    hdfsGlobalZoneIpList,
    hdfsGlobalZoneNodeId,
    tenantIdByIp,
    contactedZoneHdfsConfigure,
    subnetAllIpList,
    zoneFullDomain,
};

enum class RequestKind {
    fourZeroBytes,
    ipText,     /* 64 bytes of text */
    zone,       /* a zone_request */
    neighbours, /* a header and its entries, 72 bytes each */
};

struct Query {
    QueryId id;
    uint32_t type;    /* of the message */
    const char *name; /* of the exported function, in whose name lines are logged and memory is taken */
    RequestKind request;
    bool checksOutput;
    uint32_t minimumCopy; /* bytes of the caller's copy, however short the answer */
    /* The function's own lines; null where it has none. input is the caller's, response the copy. */
    void (*begin)(const char *func, const void *input);
    void (*success)(const char *func, const void *input, const void *response);
    void (*failure)(const char *func, const void *input, int32_t ret);
};

const Query &queryOf(QueryId id);

/* The buffers of one question, freed in the order request, response, copy. */
struct Exchange {
    explicit Exchange(const Query &query)
        : copy(poolOwner<void>(nullptr, query.name, __LINE__)),
          response(poolOwner<void>(nullptr, query.name, __LINE__)),
          request(poolOwner<void>(nullptr, query.name, __LINE__))
    {
    }

    PoolPtr<void> copy; /* what the caller gets */
    PoolPtr<void> response;
    uint32_t responseLength = 0;
    PoolPtr<void> request;
    uint32_t requestLength = 0;
};

/* Allocates the request, zeroed: 0, or -ENOMEM. */
int32_t allocateRequest(const Query &query, const void *input, Exchange &exchange);
/* Sends the request and takes the response: 0, or the call's code. */
int32_t callService(const Query &query, Exchange &exchange);

/* The whole road: what each exported query does with its arguments. input is null where the query has none. */
int32_t ask(QueryId id, const void *input, void **rsp);

/* The two words that every response begins with. */
int32_t resultWord(const void *response);
uint32_t valueWord(const void *response);

/* Gives a block back in the name of func; null is ignored. */
inline void freeAnswer(const char *func, void *block)
{
    if (block != nullptr) {
        nas_mem_comm_free(block, func, __LINE__);
    }
}

} // namespace nas

#endif
