/*
 * What the storage-side service's questions and answers look like, byte by byte. docs/storage.md tells the same.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <message/frame.h>

namespace storage {

constexpr uint32_t kCallModule = 18;     // of a frame that asks a question: its opcode is the question's type
constexpr uint32_t kControlModule = 100; // of a frame that looks at the service itself, or changes how it answers

constexpr uint32_t kControlStatus = 1;
constexpr uint32_t kControlFault = 2;

enum QuestionType : uint32_t {
    kNodeAddresses = 1,
    kHdfsConfiguration = 3,
    kNeighbourAddresses = 4,
    kZoneAddresses = 5,
    kNodeInterfaces = 6,
    kGlobalZoneAddresses = 9,
    kGlobalZoneNodeIds = 10,
    kTenant = 11,
    kContactedZone = 13,
    kSubnetAddresses = 14,
    kZoneDomain = 15,
};

/* ---- requests ---- */

struct EmptyRequest {
    uint32_t zero;
};

struct AddressRequest {
    char address[64];
};

struct ZoneRequest {
    uint32_t fsId;
    uint32_t tenantId;
    char subnet[64];
};

// Followed by count records of its own size, which nobody reads.
struct NeighbourRequest {
    int32_t edsLsId;
    char unread[64];
    uint32_t count;
};

/* ---- answers ---- */

// Every list begins with it, and its entries follow.
struct ListHeader {
    int32_t result;
    uint32_t count;
};

struct AddressEntry {
    uint32_t protocolType;
    char address[64];
    uint32_t workStatus; // 1 = working
};

constexpr uint32_t kInterfaceUp = 1;
constexpr uint32_t kInterfaceRunning = 2;
constexpr uint32_t kInterfaceLoopback = 4;

// One for each address of an interface; one with an empty address for an interface that has none.
struct InterfaceEntry {
    char name[16];
    uint32_t index;
    uint32_t flags;
    uint32_t mtu;
    uint32_t prefixLength;
    char address[64];
};

struct HdfsConfigurationAnswer {
    int32_t result;
    uint32_t fsId;
    char dtreePath[4096];
    char subnet[64];
    uint32_t tenantId;
};

constexpr size_t kNodeIdRow = 3072;

struct TenantAnswer {
    int32_t result;
    uint32_t tenantId;
};

struct ContactedZoneAnswer {
    int32_t result;
    uint32_t zoneId;
    uint32_t fsId;
    uint32_t tenantId;
};

struct ZoneDomainAnswer {
    int32_t result;
    char domain[254]; // a domain name of 253 characters and its NUL
} __attribute__((packed));

static_assert(sizeof(EmptyRequest) == 4);
static_assert(sizeof(AddressRequest) == 64);
static_assert(sizeof(ZoneRequest) == 72 && offsetof(ZoneRequest, subnet) == 8);
static_assert(sizeof(NeighbourRequest) == 72 && offsetof(NeighbourRequest, count) == 68);
static_assert(sizeof(ListHeader) == 8);
static_assert(sizeof(AddressEntry) == 72 && offsetof(AddressEntry, workStatus) == 68);
static_assert(sizeof(InterfaceEntry) == 96 && offsetof(InterfaceEntry, address) == 32);
static_assert(sizeof(HdfsConfigurationAnswer) == 4172 && offsetof(HdfsConfigurationAnswer, dtreePath) == 8);
static_assert(offsetof(HdfsConfigurationAnswer, subnet) == 4104 && offsetof(HdfsConfigurationAnswer, tenantId) == 4168);
static_assert(sizeof(TenantAnswer) == 8);
static_assert(sizeof(ContactedZoneAnswer) == 16);
static_assert(sizeof(ZoneDomainAnswer) == 258 && offsetof(ZoneDomainAnswer, domain) == 4);

/* ---- what fits into one answer ---- */

constexpr size_t kMaxAddresses = (host::kMaxPayload - sizeof(ListHeader)) / sizeof(AddressEntry);
constexpr size_t kMaxInterfaces = (host::kMaxPayload - sizeof(ListHeader)) / sizeof(InterfaceEntry);
constexpr size_t kMaxNodeIds = (host::kMaxPayload - sizeof(ListHeader)) / kNodeIdRow;

} // namespace storage
