/*
 * What the HDFS front end asks the storage-side service, and the release of the answers. No state and no lock; every
 * query blocks its caller until the service answers.
 */
#include "internal/bounded.h"
#include "internal/ipc_query.h"
#include "internal/log.h"

#include <cerrno>
#include <cstring>
#include <nasctrl/ipc.h>

namespace {

constexpr size_t kRowSize = 3072;
constexpr size_t kRowsOffset = 8;

/* The rows that were taken so far, and where they came from. */
struct ZoneRows {
    const char *response;
    char **rows;
    uint32_t taken;
};

void freeAndNull(const char *func, void **block)
{
    if (block == nullptr) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "%s is NULL, return !!!!!!!!!!!!", "rsp");
        return;
    }
    nas::freeAnswer(func, *block);
    *block = nullptr;
}

void freeTexts(const char *func, char **texts, int32_t count)
{
    for (int32_t i = 0; texts != nullptr && i < count; ++i) {
        nas::freeAnswer(func, texts[i]);
        texts[i] = nullptr;
    }
    nas::freeAnswer(func, texts);
}

/* Copies one row into a text of its own. A text whose copy fails is listed already and not counted: it stays. */
int32_t takeRow(const char *func, ZoneRows &zone)
{
    const char *text = zone.response + kRowsOffset + zone.taken * kRowSize;
    const size_t size = strlen(text) + 1;
    auto *row = static_cast<char *>(nas_mem_comm_zalloc(size, func, __LINE__));
    if (row == nullptr) {
        LOG_FAILED_CODE_GOTO_AS(func, "(rowData == NULL)", -ENOMEM, "OUT");
        return -ENOMEM;
    }
    zone.rows[zone.taken] = row;
    int ret = nas::memset_s(row, size, 0, size);
    if (ret == 0) {
        ret = nas::memcpy_s(row, size, text, size);
    }
    if (ret != 0) {
        LOG_FAILED_CODE_GOTO_AS(func, "(ret != EOK)", ret, "OUT");
        return ret;
    }
    ++zone.taken;
    return 0;
}

/* Takes count rows; the array is the caller's from the moment it exists, so that it sees what a failure leaves. */
int32_t takeRows(const char *func, ZoneRows &zone, uint32_t count, char ***zoneList)
{
    zone.rows = static_cast<char **>(nas_mem_comm_zalloc(count * sizeof(char *), func, __LINE__));
    if (zone.rows == nullptr) {
        LOG_FAILED_CODE_GOTO_AS(func, "(zoneRow == NULL)", -ENOMEM, "OUT");
        return -ENOMEM;
    }
    *zoneList = zone.rows;
    int32_t ret = 0;
    while (ret == 0 && zone.taken < count) {
        ret = takeRow(func, zone);
    }
    return ret;
}

/* Asks and checks that the response holds its two words: 0, or an error code. */
int32_t askZoneRows(const nas::Query &query, nas::Exchange &exchange)
{
    int32_t ret = nas::allocateRequest(query, nullptr, exchange);
    if (ret == 0) {
        ret = nas::callService(query, exchange);
    }
    if (ret == 0 && (exchange.response == nullptr || exchange.responseLength < kRowsOffset)) {
        LOG_FAILED_CODE_GOTO_AS(query.name, "(ret != EOK)", -ENOMEM, "OUT");
        ret = -ENOMEM;
    }
    return ret;
}

/* Turns a response into the caller's list; the response's length is not compared with its row count. */
int32_t unpackZoneRows(const nas::Query &query, nas::Exchange &exchange, char ***zoneList, uint32_t *zoneNum)
{
    const int32_t result = nas::resultWord(exchange.response.get());
    if (result != 0) {
        LOG_LINE_AS(query.name, NASCTRL_LOG_ERROR, "nas ctrl call sync failed, result = %d", result);
        return result;
    }
    const uint32_t count = nas::valueWord(exchange.response.get());
    if (count == 0) {
        return 0;
    }
    ZoneRows zone{static_cast<const char *>(exchange.response.get()), nullptr, 0};
    const int32_t ret = takeRows(query.name, zone, count, zoneList);
    if (ret != 0) {
        exchange.request.reset();
        exchange.response.reset();
        /* The caller's list keeps the address of the array that ends here. */
        ReleaseZoneNodeId(zone.rows, static_cast<int32_t>(zone.taken));
        return ret;
    }
    LOG_LINE_AS(query.name, NASCTRL_LOG_PROGRESS, "get zone id zone data pointer = %p, row = %d",
                static_cast<void *>(zone.rows), static_cast<int>(count));
    *zoneNum = count;
    return 0;
}

} // namespace

int32_t GetHdfsConf(const char *ip, void **rsp)
{
    return nas::ask(nas::QueryId::hdfsConf, ip, rsp);
}

int32_t GetTenantIdByIp(const char *ip, void **rsp)
{
    return nas::ask(nas::QueryId::tenantIdByIp, ip, rsp);
}

int32_t GetHdfsGlobalZoneIpList(const zone_request *req, void **rsp)
{
    return nas::ask(nas::QueryId::hdfsGlobalZoneIpList, req, rsp);
}

int32_t GetSubnetAllIpList(const zone_request *req, void **rsp)
{
    return nas::ask(nas::QueryId::subnetAllIpList, req, rsp);
}

int32_t GetHdfsNeighborIpList(const void *req, void **rsp)
{
    return nas::ask(nas::QueryId::hdfsNeighborIpList, req, rsp);
}

int32_t GetHdfsZoneIpList(void **rsp)
{
    return nas::ask(nas::QueryId::hdfsZoneIpList, nullptr, rsp);
}

int32_t GetContactedZoneHdfsConfigure(void **rsp)
{
    return nas::ask(nas::QueryId::contactedZoneHdfsConfigure, nullptr, rsp);
}

int32_t GetZoneFullDomain(void **rsp)
{
    return nas::ask(nas::QueryId::zoneFullDomain, nullptr, rsp);
}

int32_t GetHdfsGlobalZoneNodeId(char ***zoneList, uint32_t *zoneNum)
{
    if (zoneNum == nullptr) {
        LOG_NULL("zoneNum", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    if (zoneList == nullptr) {
        LOG_NULL("zoneList", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    *zoneList = nullptr;
    *zoneNum = 0;
    const nas::Query &query = nas::queryOf(nas::QueryId::hdfsGlobalZoneNodeId);
    nas::Exchange exchange(query);
    const int32_t ret = askZoneRows(query, exchange);
    return ret != 0 ? ret : unpackZoneRows(query, exchange, zoneList, zoneNum);
}

void FreeHdfsConf(void *rsp)
{
    nas::freeAnswer(__func__, rsp);
}

void FreeHdfsNeighborIpList(void *rsp)
{
    nas::freeAnswer(__func__, rsp);
}

void FreeHdfsZoneIpList(void *rsp)
{
    nas::freeAnswer(__func__, rsp);
}

void ReleaseContactedZoneHdfsConfigure(void **rsp)
{
    freeAndNull(__func__, rsp);
}

void ReleaseSubnetAllIpList(void **rsp)
{
    freeAndNull(__func__, rsp);
}

void ReleaseGetZoneFullDomain(void **rsp)
{
    freeAndNull(__func__, rsp);
}

void ReleaseHdfsGlobalZoneNodeId(char **zoneList, int32_t count)
{
    freeTexts(__func__, zoneList, count);
}

void ReleaseZoneNodeId(char **zoneList, int32_t count)
{
    freeTexts(__func__, zoneList, count);
}
