/*
 * The table of questions to the storage-side service, and the road that all of them take: build the request, call,
 * copy the response for the caller. Nothing in a response is judged here. No state and no lock; every function blocks
 * its caller during the call.
 */
#include "internal/ipc_query.h"

#include "internal/bounded.h"
#include "internal/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <nasctrl/ipc.h>

namespace nas {
namespace {

constexpr size_t kIpTextSize = 64;
constexpr size_t kNeighbourCountOffset = 68;
constexpr uint32_t kConfSize = 4172;
constexpr size_t kDtreePathOffset = 8;

static_assert(sizeof(zone_request) == 72);
static_assert(offsetof(zone_request, fsId) == 0 && offsetof(zone_request, tenantId) == 4);
static_assert(offsetof(zone_request, subnet) == 8 && sizeof(zone_request::subnet) == 64);

using IpText = CutText<kIpTextSize>;
using DtreePath = CutText<kConfSize - kDtreePathOffset>;

uint32_t wordAt(const void *bytes, size_t offset)
{
    uint32_t word = 0;
    memcpy(&word, static_cast<const char *>(bytes) + offset, sizeof word);
    return word;
}

/* ---- each query's own lines ---- */

/* Logs a line of a query. */
#define QUERY_LINE(...) LOG_LINE_AS(func, NASCTRL_LOG_PROGRESS, __VA_ARGS__)

void confBegin(const char *func, const void *input)
{
    QUERY_LINE("Begin GetHdfsConf by IP(%s).", IpText(static_cast<const char *>(input)).c_str());
}
void confSuccess(const char *func, const void *input, const void *response)
{
    QUERY_LINE("End GetHdfsConf by IP(%s), response(result:%d, fsid:%u, dtreePath:%s).",
               IpText(static_cast<const char *>(input)).c_str(), resultWord(response), valueWord(response),
               DtreePath(static_cast<const char *>(response) + kDtreePathOffset).c_str());
}
void confFailure(const char *func, const void *input, int32_t ret)
{
    QUERY_LINE("End GetHdfsConf by IP(%s), ret: %d.", IpText(static_cast<const char *>(input)).c_str(), ret);
}

void neighborBegin(const char *func, const void *input)
{
    QUERY_LINE("Begin GetHdfsNeighborIpList by edsLsid(%d).", static_cast<int32_t>(wordAt(input, 0)));
}
void neighborSuccess(const char *func, const void *input, const void *response)
{
    QUERY_LINE("End GetHdfsNeighborIpList by edsLsid(%d), response(result: %d, ipCount: %u).",
               static_cast<int32_t>(wordAt(input, 0)), resultWord(response), valueWord(response));
}
void neighborFailure(const char *func, const void *input, int32_t ret)
{
    QUERY_LINE("End GetHdfsNeighborIpList by edsLsid(%d), ret: %d.", static_cast<int32_t>(wordAt(input, 0)), ret);
}

void zoneIpSuccess(const char *func, const void *, const void *response)
{
    QUERY_LINE("GetHdfsZoneIpList success, response(result: %d, ipCount: %u).", resultWord(response),
               valueWord(response));
}
void zoneIpFailure(const char *func, const void *, int32_t ret)
{
    QUERY_LINE("GetHdfsZoneIpList failed, ret: %d.", ret);
}

void globalZoneBegin(const char *func, const void *input)
{
    const auto *zone = static_cast<const zone_request *>(input);
    QUERY_LINE("Begin GetHdfsGlobalZoneIpList for fsId(%u), subnet(%s), tenantId(%u).", zone->fsId,
               CutText<sizeof zone->subnet>(zone->subnet).c_str(), zone->tenantId);
}
void globalZoneSuccess(const char *func, const void *input, const void *response)
{
    const auto *zone = static_cast<const zone_request *>(input);
    QUERY_LINE("Success, response(result: %d, ipCount: %u), fsId(%u), subnet(%s), tenantId(%u).", resultWord(response),
               valueWord(response), zone->fsId, CutText<sizeof zone->subnet>(zone->subnet).c_str(), zone->tenantId);
}
void globalZoneFailure(const char *func, const void *input, int32_t ret)
{
    const auto *zone = static_cast<const zone_request *>(input);
    QUERY_LINE("GetHdfsGlobalZoneIpList failed, ret: %d, fsId(%u), subnet(%s), tenantId(%u)", ret, zone->fsId,
               CutText<sizeof zone->subnet>(zone->subnet).c_str(), zone->tenantId);
}

void tenantBegin(const char *func, const void *input)
{
    QUERY_LINE("Begin GetTenantIdByIp by IP(%s).", IpText(static_cast<const char *>(input)).c_str());
}
void tenantSuccess(const char *func, const void *input, const void *response)
{
    QUERY_LINE("End GetTenantId by IP(%s), response(result:%d, tenantid:%d).",
               IpText(static_cast<const char *>(input)).c_str(), resultWord(response),
               static_cast<int32_t>(valueWord(response)));
}
void tenantFailure(const char *func, const void *input, int32_t ret)
{
    QUERY_LINE("End GetTenantId by IP(%s), ret: %d.", IpText(static_cast<const char *>(input)).c_str(), ret);
}

void contactedZoneSuccess(const char *func, const void *, const void *response)
{
    QUERY_LINE("GetContactedZoneHdfsConfigure success, the result (%d)", resultWord(response));
}
void contactedZoneFailure(const char *func, const void *, int32_t ret)
{
    QUERY_LINE("Get Contacted Zone Hdfs Configure failed, ret: %d.", ret);
}

void subnetBegin(const char *func, const void *input)
{
    const auto *zone = static_cast<const zone_request *>(input);
    QUERY_LINE("Begin GetSubnetAllIpList subnet(%s).", CutText<sizeof zone->subnet>(zone->subnet).c_str());
}
void subnetSuccess(const char *func, const void *input, const void *response)
{
    const auto *zone = static_cast<const zone_request *>(input);
    QUERY_LINE("Success, response(result: %d, ipCount: %u), req subnet(%s).", resultWord(response), valueWord(response),
               CutText<sizeof zone->subnet>(zone->subnet).c_str());
}
void subnetFailure(const char *func, const void *input, int32_t ret)
{
    const auto *zone = static_cast<const zone_request *>(input);
    QUERY_LINE("GetSubnetAllIpList failed, ret: %d, subnet(%s)", ret,
               CutText<sizeof zone->subnet>(zone->subnet).c_str());
}

void domainSuccess(const char *func, const void *, const void *response)
{
    QUERY_LINE("GetZoneFullDomain success, the result (%d)", resultWord(response));
}
void domainFailure(const char *func, const void *, int32_t ret)
{
    QUERY_LINE("GetZoneFullDomain failed, ret: %d.", ret);
}

#undef QUERY_LINE

/* ---- the table ---- */

/*
 * The answer to type 10 is unpacked by its function, not copied. 258 for the full domain is meant. The two queries that
 * do not check their output rely on their caller.
 */
constexpr Query kQueries[] = {
    {QueryId::curNodeIpList, 1, "GetCurNodeIpList", RequestKind::fourZeroBytes, true, 8, nullptr, nullptr, nullptr},
    {QueryId::hdfsConf, 3, "GetHdfsConf", RequestKind::ipText, true, kConfSize, confBegin, confSuccess, confFailure},
    {QueryId::hdfsNeighborIpList, 4, "GetHdfsNeighborIpList", RequestKind::neighbours, true, 8, neighborBegin,
     neighborSuccess, neighborFailure},
    {QueryId::hdfsZoneIpList, 5, "GetHdfsZoneIpList", RequestKind::fourZeroBytes, true, 12, nullptr, zoneIpSuccess,
     zoneIpFailure},
    {QueryId::curNodeIfaceList, 6, "GetCurNodeIfaceList", RequestKind::fourZeroBytes, true, 8, nullptr, nullptr,
     nullptr},
    {QueryId::hdfsGlobalZoneIpList, 9, "GetHdfsGlobalZoneIpList", RequestKind::zone, true, 12, globalZoneBegin,
     globalZoneSuccess, globalZoneFailure},
    {QueryId::hdfsGlobalZoneNodeId, 10, "GetHdfsGlobalZoneNodeId", RequestKind::fourZeroBytes, true, 0, nullptr,
     nullptr, nullptr},
    {QueryId::tenantIdByIp, 11, "GetTenantIdByIp", RequestKind::ipText, true, 8, tenantBegin, tenantSuccess,
     tenantFailure},
    {QueryId::contactedZoneHdfsConfigure, 13, "GetContactedZoneHdfsConfigure", RequestKind::fourZeroBytes, false, 16,
     nullptr, contactedZoneSuccess, contactedZoneFailure},
    {QueryId::subnetAllIpList, 14, "GetSubnetAllIpList", RequestKind::zone, true, 8, subnetBegin, subnetSuccess,
     subnetFailure},
    {QueryId::zoneFullDomain, 15, "GetZoneFullDomain", RequestKind::fourZeroBytes, false, 258, nullptr, domainSuccess,
     domainFailure},
};

constexpr bool rowsStandInOrder()
{
    for (size_t i = 0; i < std::size(kQueries); ++i) {
        if (kQueries[i].id != static_cast<QueryId>(i)) {
            return false;
        }
    }
    return kQueries[std::size(kQueries) - 1].id == QueryId::zoneFullDomain;
}
static_assert(rowsStandInOrder());

/* ---- the road ---- */

uint32_t requestLength(RequestKind kind, const void *input)
{
    switch (kind) {
    case RequestKind::ipText:
        return kIpTextSize;
    case RequestKind::zone:
        return sizeof(zone_request);
    case RequestKind::neighbours:
        /* In 32 bits, as the service computes it: a count beyond them wraps. */
        return (wordAt(input, kNeighbourCountOffset) * 9 + 9) * 8;
    case RequestKind::fourZeroBytes:
        break;
    }
    return sizeof(uint32_t);
}

int32_t fillRequest(const Query &query, const void *input, Exchange &exchange)
{
    if (query.request != RequestKind::fourZeroBytes &&
        memcpy_s(exchange.request.get(), exchange.requestLength, input, exchange.requestLength) != 0) {
        LOG_FAILED_CODE_GOTO_AS(query.name, "(ret != EOK)", -ENOMEM, "OUT");
        return -ENOMEM;
    }
    return 0;
}

int32_t copyResponse(const Query &query, Exchange &exchange)
{
    const uint32_t length = exchange.responseLength;
    exchange.copy.reset(nas_mem_comm_zalloc(std::max(length, query.minimumCopy), query.name, __LINE__));
    if (exchange.copy == nullptr) {
        LOG_FAILED_CODE_GOTO_AS(query.name, "(pTmpRsp == NULL)", -ENOMEM, "OUT");
        return -ENOMEM;
    }
    /* An empty response fails here. */
    if (memcpy_s(exchange.copy.get(), length, exchange.response.get(), length) != 0) {
        LOG_FAILED_CODE_GOTO_AS(query.name, "(ret != EOK)", -ENOMEM, "OUT");
        return -ENOMEM;
    }
    return 0;
}

int32_t exchangeMessages(const Query &query, const void *input, Exchange &exchange)
{
    int32_t ret = fillRequest(query, input, exchange);
    if (ret == 0) {
        ret = callService(query, exchange);
    }
    return ret != 0 ? ret : copyResponse(query, exchange);
}

/* Whether an argument that the query needs is there; logs the one that is not. */
bool argumentsPresent(const Query &query, const void *input, void **rsp)
{
    const char *missing = nullptr;
    if (query.request != RequestKind::fourZeroBytes && input == nullptr) {
        missing = "req";
    } else if (query.checksOutput && rsp == nullptr) {
        missing = "rsp";
    }
    if (missing != nullptr) {
        LOG_NULL_AS(query.name, missing, "-EINVAL", -EINVAL);
    }
    return missing == nullptr;
}

} // namespace

int32_t resultWord(const void *response)
{
    return static_cast<int32_t>(wordAt(response, 0));
}

uint32_t valueWord(const void *response)
{
    return wordAt(response, 4);
}

const Query &queryOf(QueryId id)
{
    return kQueries[static_cast<size_t>(id)];
}

int32_t allocateRequest(const Query &query, const void *input, Exchange &exchange)
{
    exchange.requestLength = requestLength(query.request, input);
    exchange.request.reset(nas_mem_comm_zalloc(exchange.requestLength, query.name, __LINE__));
    if (exchange.request == nullptr) {
        LOG_NULL_AS(query.name, "reqMsg", "-ENOMEM", -ENOMEM);
        return -ENOMEM;
    }
    return 0;
}

int32_t callService(const Query &query, Exchange &exchange)
{
    void *response = nullptr;
    const int32_t ret = NasCtrlMsgCallSync(query.type, exchange.request.get(), exchange.requestLength, &response,
                                           &exchange.responseLength);
    /* A failed call may have left one too. */
    exchange.response.reset(response);
    if (ret != 0) {
        LOG_FAILED_GOTO_AS(query.name, "ret", "OUT");
    }
    return ret;
}

int32_t ask(QueryId id, const void *input, void **rsp)
{
    const Query &query = queryOf(id);
    if (!argumentsPresent(query, input, rsp)) {
        return -EINVAL;
    }
    if (query.begin != nullptr) {
        query.begin(query.name, input);
    }
    Exchange exchange(query);
    if (allocateRequest(query, input, exchange) != 0) {
        return -ENOMEM;
    }
    const int32_t ret = exchangeMessages(query, input, exchange);
    if (ret != 0) {
        if (query.failure != nullptr) {
            query.failure(query.name, input, ret);
        }
        return ret;
    }
    *rsp = exchange.copy.release();
    if (query.success != nullptr) {
        query.success(query.name, input, *rsp);
    }
    return 0;
}

} // namespace nas
