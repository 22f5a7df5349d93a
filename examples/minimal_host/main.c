/*
 * A host in its smallest form: starts the library, adds an address, moves shards, and prints what it is told.
 *
 * The other files define what the library takes from its host, a file per service:
 *   platform.c       log, memory, threads, time, locks
 *   light_threads.c  light-weight threads, their semaphores and work queues
 *   config.c         the two configuration readers
 *   messages.c       messages from and to other processes
 *   cluster.c        cluster manager and name service
 *   notices.c        what modules are told, debug commands, statistics
 *   node.c           the node's own facts, addresses and modules
 *
 * Usage: minimal_host FOLDER, which holds opt/...
 */
#include "minimal_host.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#define SHARD_FILE "/opt/ostrak/eds/eds-f/conf/EBSServer.cfg"

static void step(const char *name, uint32_t result)
{
    printf("%s: %u\n", name, result);
    if (result != 0) {
        exit(1);
    }
}

/* The protocol module: a real one would open and close its sockets here. */
static uint32_t serveAddress(uint32_t event, const char *address, uint32_t family)
{
    notice("nfs is told: %s %s (IPv%d)", event == NAS_IP_EVENT_ADD ? "serve" : "leave", address,
           family == AF_INET ? 4 : 6);
    return 0;
}

static int32_t startService(void *first, void *second)
{
    (void)first;
    (void)second;
    nas_ctrl_power_on_success();
    return 0;
}

static int32_t stopService(void *first, void *second)
{
    (void)first;
    (void)second;
    return 0;
}

/* The order that the library asks for; a host leaves the rest out if it has no use for it. */
static void startLibrary(void)
{
    nas_ctrl_cluster_list_init();
    step("DpcInitExternStub", DpcInitExternStub());
    step("extern_stub_init", extern_stub_init());
    step("nas_ctrl_init", nas_ctrl_init());
    step("nas_ctrl_handler_reg", (uint32_t)nas_ctrl_handler_reg());
    step("NasCtrlClusterInit", NasCtrlClusterInit());
    step("stub_initShardView", stub_initShardView(SHARD_FILE));
    step("nas_fmm_module_init", (uint32_t)nas_fmm_module_init());
    nsa_fmm_cmd_init();
    step("NasIpMgrRegisterIpEvent", NasIpMgrRegisterIpEvent(NFS_MODULE, serveAddress));
    step("NasIpMgrInitModule", (uint32_t)NasIpMgrInitModule(NULL));
    step("NasLifMgrModuleStart", NasLifMgrModuleStart());
    step("nas_ctrl_power_reg", (uint32_t)nas_ctrl_power_reg(startService, stopService));
    step("nas_ctrl_power_on", (uint32_t)nas_ctrl_power_on(NULL, NULL));
}

static void awaitAddress(const char *address)
{
    while (NasIpMgrIsIpPresent(address) == 0) {
        kvos_msleep(1);
    }
}

/* A notice as another process sends it to module 18. */
static void sendAddressNotice(const char *address)
{
    struct {
        uint32_t tenantId;
        char key[256];
        char value[256];
    } notice = {0};
    strcpy(notice.key, "ip_add_event");
    snprintf(notice.value, sizeof notice.value, "%s", address);
    printf("notice: %u\n", sendMessage(18, 1, &notice, sizeof notice));
}

/* The node has an address already, which the monitor finds; a second one is told by a notice. */
static void addAddresses(void)
{
    char text[256];
    awaitAddress("192.0.2.10");
    printNotices(1);
    addNodeAddress("192.0.2.11");
    sendAddressNotice("192.0.2.11");
    awaitAddress("192.0.2.11");
    printNotices(1);
    NasIpMgrShowAllIp(text, sizeof text);
    printf("%s", text);
}

static void printPlacement(uint32_t fsp)
{
    shard_entry entry;
    uint64_t version = 0;
    char address[NAS_SHARD_ADDR_SIZE];
    if (stub_getShardingInfoById(fsp, &entry, &version, address, sizeof address) == 0) {
        printf("FSP %u: LS %u at %s, version %u\n", fsp, entry.lsId, address, (unsigned)version);
    }
}

static void printPlacements(void)
{
    for (uint32_t fsp = 0; fsp < 6; ++fsp) {
        printPlacement(fsp);
    }
}

/* Moves one FSP, and then all that this node serves, as after its fault. */
static void moveShards(void)
{
    printPlacements();
    step("FspModifyShardView", FspModifyShardView(4, 3));
    printNotices(1);
    step("FspMigrationNode", FspMigrationNode(LOCAL_LS, 2, 0));
    printNotices(5);
    printPlacements();
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "minimal_host: name the folder that holds opt/...\n");
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    setConfigurationRoot(argv[1]);
    startLibrary();
    addAddresses();
    moveShards();
    return 0; /* The library's threads end with the process. */
}
