// The protocol modules: their descriptions, and the sockets that they open for the node's addresses. All addresses are
// loopback ones, all ports were free a moment before.
#include "modules/modules.h"

#include "recorded_log.h"
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <gmock/gmock.h>
#include <map>
#include <nasctrl/host/adapters.h>
#include <nasctrl/ip_manager.h>
#include <netinet/in.h>
#include <set>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::map<uint32_t, ip_event_hook> hooks;

// While armed, every bind says that it has begun and waits to be let go.
struct BindGate {
    std::promise<void> begun;
    std::promise<void> go;
};
std::atomic<BindGate *> gate;

} // namespace

// The library's registration of hooks, as these modules see it.
uint32_t NasIpMgrRegisterIpEvent(uint32_t moduleId, ip_event_hook hook)
{
    hooks[moduleId] = hook;
    return 0;
}

// Takes the place of the system's own function, so that a test can hold a bind up.
extern "C" __attribute__((visibility("default"))) int bind(int fd, const sockaddr *address, socklen_t size) noexcept
{
    if (BindGate *held = gate.exchange(nullptr)) {
        held->begun.set_value();
        held->go.get_future().wait();
    }
    return static_cast<int>(syscall(SYS_bind, fd, address, size));
}

namespace {

constexpr uint32_t kAdd = NAS_IP_EVENT_ADD;
constexpr uint32_t kDelete = NAS_IP_EVENT_DELETE;

sockaddr_in ipv4(const std::string &text, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, text.c_str(), &address.sin_addr);
    return address;
}

// A socket of the test, listening on a port that nobody else has.
class Listener {
public:
    explicit Listener(const std::string &text) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = ipv4(text, 0);
        socklen_t size = sizeof address;
        if (syscall(SYS_bind, fd_, &address, size) != 0 || listen(fd_, 1) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size) != 0) {
            throw std::runtime_error("the test cannot listen");
        }
        port_ = ntohs(address.sin_port);
    }
    ~Listener() { release(); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    uint16_t port() const { return port_; }

    void release()
    {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

private:
    int fd_;
    uint16_t port_ = 0;
};

// Below the ports of outgoing connections, and of no other test process that runs beside this one.
uint16_t freePort()
{
    constexpr pid_t kLowest = 20000;
    constexpr pid_t kPorts = 12000;
    return static_cast<uint16_t>(kLowest + getpid() % kPorts);
}

// What a caller is told before it is hung up on, or "refused".
std::string call(const sockaddr *address, socklen_t size)
{
    const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string heard = "refused";
    if (connect(fd, address, size) == 0) {
        heard.clear();
        char piece[100];
        for (ssize_t got = 0; (got = recv(fd, piece, sizeof piece, 0)) > 0;) {
            heard.append(piece, static_cast<size_t>(got));
        }
    }
    close(fd);
    return heard;
}

std::string call(const std::string &text, uint16_t port)
{
    const sockaddr_in address = ipv4(text, port);
    return call(reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

// One event as the library sends it: the question for the type, then, when the module serves it, the hook.
uint32_t event(uint32_t slot, uint32_t kind, const char *text, uint32_t type = 3, uint32_t family = AF_INET)
{
    if (ModuleNeedInvokeAdapter(slot, type) == 0) {
        return 0xEEEEEEEEU;
    }
    return slot == host::kLifSlot ? LifIpEventAdpter(kind, text, family) : hooks.at(slot)(kind, text, family);
}

std::string onlyAddressOf(const std::vector<host::ModuleState> &states)
{
    return states.size() == 1 && states[0].listening.size() == 1 ? states[0].listening[0] : "not one address";
}

class Modules : public testing::Test {
protected:
    void SetUp() override
    {
        recorded::clear();
        hooks.clear();
    }

    void TearDown() override { host::closeModules(); }

    void configure(const std::vector<host::ModuleConfig> &configs)
    {
        host::configureModules(configs);
        host::registerModuleHooks();
    }

    uint16_t port = freePort();
    std::string portText = std::to_string(port);
};

// ---- descriptions

TEST(ModuleText, IsReadIntoASlotANameTypesAndAPort)
{
    const host::ModuleConfig config = host::parseModule("2:nfs-v4_1:3,0,4294967295:2049");

    EXPECT_EQ(config.slot, 2U);
    EXPECT_EQ(config.name, "nfs-v4_1");
    EXPECT_THAT(config.protoTypes, ElementsAre(3U, 0U, 4294967295U));
    EXPECT_EQ(config.port, 2049);
}

TEST(ModuleText, IsRefusedWithWhatIsWrong)
{
    struct Row {
        std::string text;
        std::string reason;
    };
    const std::string longName(33, 'n');
    const std::vector<Row> rows = {
        {"", "it is not SLOT:NAME:TYPE[,TYPE...]:PORT"},
        {"1:nfs:3", "it is not SLOT:NAME:TYPE[,TYPE...]:PORT"},
        {"1:nfs:3:2049:", "it is not SLOT:NAME:TYPE[,TYPE...]:PORT"},
        {"6:nfs:3:2049", "slot \"6\" is not 0 to 5"},
        {"-1:nfs:3:2049", "slot \"-1\" is not 0 to 5"},
        {":nfs:3:2049", "slot \"\" is not 0 to 5"},
        {"1x:nfs:3:2049", "slot \"1x\" is not 0 to 5"},
        {"99999999999:nfs:3:2049", "slot \"99999999999\" is not 0 to 5"},
        {"1::3:2049", "name \"\" is not 1 to 32 letters, digits, - or _"},
        {"1:a b:3:2049", "name \"a b\" is not 1 to 32 letters, digits, - or _"},
        {"1:" + longName + ":3:2049", "name \"" + longName + "\" is not 1 to 32 letters, digits, - or _"},
        {"1:nfs::2049", "protocol type \"\" is not 0 to 4294967295"},
        {"1:nfs:3,:2049", "protocol type \"\" is not 0 to 4294967295"},
        {"1:nfs:3,x:2049", "protocol type \"x\" is not 0 to 4294967295"},
        {"1:nfs:4294967296:2049", "protocol type \"4294967296\" is not 0 to 4294967295"},
        {"1:nfs:3,4,3:2049", "protocol type 3 is there twice"},
        {"1:nfs:3:", "port \"\" is not 1 to 65535"},
        {"1:nfs:3:0", "port \"0\" is not 1 to 65535"},
        {"1:nfs:3:65536", "port \"65536\" is not 1 to 65535"},
        {"1:nfs:3: 80", "port \" 80\" is not 1 to 65535"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.text);
        std::string reason = "accepted";
        try {
            host::parseModule(row.text);
        } catch (const std::invalid_argument &error) {
            reason = error.what();
        }
        EXPECT_EQ(reason, "module \"" + row.text + "\": " + row.reason);
    }
}

TEST_F(Modules, AreRefusedWhenTwoShareASlotOrOneHasNone)
{
    struct Row {
        std::vector<host::ModuleConfig> configs;
        std::string reason;
    };
    const std::vector<Row> rows = {
        {{{2, "nfs", {3}, 1}, {2, "smb", {4}, 2}}, "modules nfs and smb: both are in slot 2"},
        {{{6, "nfs", {3}, 1}}, "module nfs: slot 6 is not 0 to 5"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.reason);
        try {
            host::configureModules(row.configs);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument &error) {
            EXPECT_EQ(error.what(), row.reason);
        }
    }
}

// ---- which module is told of what

TEST_F(Modules, RegisterAHookEachButForTheSlotOfTheLifManager)
{
    configure({{5, "e", {1}, 1}, {0, "a", {1}, 1}, {host::kLifSlot, "lif", {1}, 1}});

    std::set<ip_event_hook> different;
    std::vector<uint32_t> slots;
    for (const auto &[slot, hook] : hooks) {
        slots.push_back(slot);
        different.insert(hook);
    }
    EXPECT_THAT(slots, ElementsAre(0U, 5U));
    EXPECT_EQ(different.size(), 2U);
}

TEST_F(Modules, ServeTheTypesOfTheirDescriptionAlone)
{
    configure({{1, "nfs", {3, 7}, port}});

    EXPECT_EQ(ModuleNeedInvokeAdapter(1, 3), 1U);
    EXPECT_EQ(ModuleNeedInvokeAdapter(1, 7), 1U);
    EXPECT_EQ(ModuleNeedInvokeAdapter(1, 4), 0U);
    EXPECT_EQ(ModuleNeedInvokeAdapter(0, 3), 0U);
    EXPECT_EQ(ModuleNeedInvokeAdapter(6, 3), 0U);
}

TEST_F(Modules, AreShownBySlot)
{
    configure({{4, "smb", {4}, 445}, {0, "nfs", {3}, 2049}});

    const auto states = host::moduleStates();

    ASSERT_EQ(states.size(), 2U);
    EXPECT_EQ(states[0].config.name, "nfs");
    EXPECT_EQ(states[1].config.name, "smb");
    EXPECT_THAT(states[0].listening, IsEmpty());
    EXPECT_THAT(states[0].failures, IsEmpty());
}

// ---- addresses

TEST_F(Modules, ListenOnAnAddedAddressUntilItIsDeleted)
{
    configure({{1, "nfs", {3}, port}});

    EXPECT_EQ(event(1, kAdd, "127.0.0.2"), 0U);
    EXPECT_EQ(onlyAddressOf(host::moduleStates()), "127.0.0.2");
    EXPECT_EQ(call("127.0.0.2", port), "nasctrld nfs 127.0.0.2:" + portText + "\n");
    EXPECT_EQ(call("127.0.0.2", port), "nasctrld nfs 127.0.0.2:" + portText + "\n");
    EXPECT_EQ(call("127.0.0.3", port), "refused");

    EXPECT_EQ(event(1, kDelete, "127.0.0.2"), 0U);
    EXPECT_EQ(call("127.0.0.2", port), "refused");
    EXPECT_THAT(host::moduleStates()[0].listening, IsEmpty());
    EXPECT_THAT(recorded::lines(), ElementsAre("4 module nfs: listens on 127.0.0.2 port " + portText,
                                               "4 module nfs: closed 127.0.0.2 port " + portText));
}

TEST_F(Modules, ListenOnTheirOwnPortsOfOneAddress)
{
    const Listener nfs("127.0.0.1"), smb("127.0.0.1"), lif("127.0.0.1"); // all at once, so that the ports differ
    configure({{0, "nfs", {3}, nfs.port()}, {5, "smb", {3}, smb.port()}, {host::kLifSlot, "lif", {3}, lif.port()}});

    EXPECT_EQ(event(0, kAdd, "127.0.0.2"), 0U);
    EXPECT_EQ(event(host::kLifSlot, kAdd, "127.0.0.2"), 0U);
    EXPECT_EQ(event(5, kAdd, "127.0.0.2"), 0U);

    const auto states = host::moduleStates();
    for (const auto &state : states) {
        EXPECT_EQ(call("127.0.0.2", state.config.port),
                  "nasctrld " + state.config.name + " 127.0.0.2:" + std::to_string(state.config.port) + "\n");
    }
    EXPECT_EQ(states.size(), 3U);
}

TEST_F(Modules, ListenOnIpv6AddressesBesideIpv4Ones)
{
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_port = htons(port);
    loopback.sin6_addr = in6addr_loopback;
    configure({{1, "nfs", {3}, port}});

    if (event(1, kAdd, "::1", 3, AF_INET6) == EADDRNOTAVAIL) {
        GTEST_SKIP() << "this machine has no IPv6 loopback address";
    }
    EXPECT_EQ(event(1, kAdd, "127.0.0.1"), 0U);

    EXPECT_EQ(call(reinterpret_cast<sockaddr *>(&loopback), sizeof loopback), "nasctrld nfs [::1]:" + portText + "\n");
    EXPECT_EQ(call("127.0.0.1", port), "nasctrld nfs 127.0.0.1:" + portText + "\n");
}

TEST_F(Modules, LeaveTheIpv4AddressesToOthersWhenTheyListenOnAllIpv6Ones)
{
    configure({{1, "nfs", {3}, port}});
    if (event(1, kAdd, "::", 3, AF_INET6) == EAFNOSUPPORT) {
        GTEST_SKIP() << "this machine has no IPv6";
    }

    EXPECT_EQ(call("127.0.0.1", port), "refused");
    EXPECT_EQ(event(1, kAdd, "127.0.0.1"), 0U);
}

TEST_F(Modules, KeepAnAddressUntilTheLastOfItsTypesIsDeleted)
{
    configure({{1, "nfs", {3, 7}, port}});
    event(1, kAdd, "127.0.0.2", 3);

    EXPECT_EQ(event(1, kAdd, "127.0.0.2", 7), 0U);
    EXPECT_EQ(event(1, kDelete, "127.0.0.2", 3), 0U);
    EXPECT_EQ(event(1, kDelete, "127.0.0.2", 3), 0U); // the library may well delete what is gone
    EXPECT_EQ(call("127.0.0.2", port), "nasctrld nfs 127.0.0.2:" + portText + "\n");

    EXPECT_EQ(event(1, kDelete, "127.0.0.2", 7), 0U);
    EXPECT_EQ(call("127.0.0.2", port), "refused");
    EXPECT_EQ(recorded::lines().size(), 2U);
}

TEST_F(Modules, TakeAnAddressTwiceForOneTypeAsOnce)
{
    configure({{1, "nfs", {3}, port}});
    event(1, kAdd, "127.0.0.2");
    EXPECT_EQ(event(1, kAdd, "127.0.0.2"), 0U);

    EXPECT_EQ(event(1, kDelete, "127.0.0.2"), 0U);

    EXPECT_EQ(call("127.0.0.2", port), "refused");
}

TEST_F(Modules, AreNotTroubledByTheDeletionOfAnUnknownAddress)
{
    configure({{1, "nfs", {3}, port}});

    EXPECT_EQ(event(1, kDelete, "127.0.0.9"), 0U);
    EXPECT_THAT(recorded::lines(), IsEmpty());
    EXPECT_EQ(hooks.at(1)(2, "127.0.0.9", AF_INET), static_cast<uint32_t>(EINVAL)); // no such event
}

TEST_F(Modules, AnswerForTheLifManagerWithoutAModuleInItsSlot)
{
    configure({{1, "nfs", {3}, port}});

    EXPECT_EQ(LifIpEventAdpter(kAdd, "127.0.0.2", AF_INET), 0U);
    EXPECT_THAT(host::moduleStates()[0].listening, IsEmpty());
}

// ---- failures

TEST_F(Modules, RememberWhyAnAddressCannotBeServed)
{
    struct Row {
        const char *name;
        const char *address;
        uint32_t family;
        int error;
    };
    const Row rows[] = {
        {"not of this machine", "192.0.2.1", AF_INET, EADDRNOTAVAIL},
        {"no address", "127.0.0.300", AF_INET, EINVAL},
        {"empty", "", AF_INET, EINVAL},
        {"of the other family", "127.0.0.2", AF_INET6, EINVAL},
        {"of no family", "127.0.0.2", 0, EINVAL},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        recorded::clear();
        configure({{1, "nfs", {3}, port}});

        EXPECT_EQ(event(1, kAdd, row.address, 3, row.family), static_cast<uint32_t>(row.error));

        EXPECT_THAT(recorded::lines(), ElementsAre(std::string("3 module nfs: cannot listen on ") + row.address +
                                                   " port " + portText + ": " + strerror(row.error)));
        const auto state = host::moduleStates()[0];
        EXPECT_THAT(state.listening, IsEmpty());
        ASSERT_EQ(state.failures.size(), 1U);
        EXPECT_EQ(state.failures[0].address, row.address);
        EXPECT_EQ(state.failures[0].reason, strerror(row.error));
    }
}

TEST_F(Modules, RefuseAnEventWithoutAnAddress)
{
    configure({{1, "nfs", {3}, port}});

    EXPECT_EQ(event(1, kAdd, nullptr), static_cast<uint32_t>(EINVAL));
    EXPECT_THAT(recorded::lines(),
                ElementsAre("3 module nfs: cannot listen on (null) port " + portText + ": Invalid argument"));
}

TEST_F(Modules, ServeAnAddressOnARetryOnceItsPortIsFree)
{
    Listener holder("127.0.0.2");
    configure({{1, "nfs", {3}, holder.port()}});
    EXPECT_EQ(event(1, kAdd, "127.0.0.2"), static_cast<uint32_t>(EADDRINUSE));
    EXPECT_EQ(host::moduleStates()[0].failures.at(0).reason, "Address already in use");
    holder.release();

    EXPECT_EQ(event(1, kAdd, "127.0.0.2"), 0U);

    EXPECT_THAT(host::moduleStates()[0].failures, IsEmpty());
    EXPECT_EQ(call("127.0.0.2", holder.port()), "nasctrld nfs 127.0.0.2:" + std::to_string(holder.port()) + "\n");
}

TEST_F(Modules, CountWhatTheirHooksWereAskedAndWhatCameOfIt)
{
    Listener taken("127.0.0.1");
    configure({{1, "nfs", {3, 4}, taken.port()}});
    event(1, kAdd, "127.0.0.1");
    event(1, kAdd, "127.0.0.1");
    taken.release();
    event(1, kAdd, "127.0.0.1");
    event(1, kAdd, "127.0.0.1", 4);
    event(1, kDelete, "127.0.0.1");

    const host::ModuleCounts counts = host::moduleStates().at(0).counts;

    EXPECT_EQ(counts.additions, 2U);
    EXPECT_EQ(counts.failures, 2U);
    EXPECT_EQ(counts.retries, 2U);
    EXPECT_EQ(counts.deletions, 1U);
}

TEST_F(Modules, ForgetTheFailureOfAnAddressThatIsDeleted)
{
    configure({{1, "nfs", {3}, port}});
    event(1, kAdd, "192.0.2.1");

    EXPECT_EQ(event(1, kDelete, "192.0.2.1"), 0U);

    EXPECT_THAT(host::moduleStates()[0].failures, IsEmpty());
}

// ---- threads

TEST_F(Modules, AreShownWhileABindTakesItsTime)
{
    configure({{1, "nfs", {3}, port}});
    BindGate held;
    gate = &held;
    std::thread adder([] { event(1, kAdd, "127.0.0.2"); });
    held.begun.get_future().wait();

    EXPECT_THAT(host::moduleStates()[0].listening, IsEmpty());
    EXPECT_EQ(event(1, kAdd, "127.0.0.3"), 0U);
    EXPECT_THAT(host::moduleStates()[0].listening, ElementsAre("127.0.0.3"));

    held.go.set_value();
    adder.join();
    EXPECT_THAT(host::moduleStates()[0].listening, ElementsAre("127.0.0.2", "127.0.0.3"));
}

TEST_F(Modules, OpenOneSocketWhenTwoThreadsAddAnAddressAtOnce)
{
    configure({{1, "nfs", {3, 7}, port}});
    BindGate held;
    gate = &held;
    auto first = std::async(std::launch::async, [] { return event(1, kAdd, "127.0.0.2", 3); });
    held.begun.get_future().wait();
    auto second = std::async(std::launch::async, [] { return event(1, kAdd, "127.0.0.2", 7); });
    held.go.set_value();

    EXPECT_EQ(first.get(), 0U);
    EXPECT_EQ(second.get(), 0U);
    EXPECT_THAT(recorded::lines(), ElementsAre("4 module nfs: listens on 127.0.0.2 port " + portText));
}

TEST_F(Modules, ServeManyAddressesThatAreAddedAtOnce)
{
    configure({{1, "nfs", {3}, port}});
    std::vector<std::thread> threads;
    for (int i = 10; i < 35; ++i) {
        threads.emplace_back([i] { event(1, kAdd, ("127.0.0." + std::to_string(i)).c_str()); });
    }
    for (auto &thread : threads) {
        thread.join();
    }

    EXPECT_EQ(host::moduleStates()[0].listening.size(), 25U);
    for (int i = 10; i < 35; ++i) {
        const std::string address = "127.0.0." + std::to_string(i);
        EXPECT_EQ(call(address, port), "nasctrld nfs " + address + ":" + portText + "\n");
    }
}

TEST_F(Modules, StayClosedOnceTheyAreClosed)
{
    configure({{1, "nfs", {3}, port}});
    event(1, kAdd, "127.0.0.2");

    host::closeModules();

    EXPECT_EQ(call("127.0.0.2", port), "refused");
    EXPECT_THAT(host::moduleStates()[0].listening, IsEmpty());
    EXPECT_EQ(event(1, kAdd, "127.0.0.2"), static_cast<uint32_t>(ECANCELED));
    EXPECT_EQ(call("127.0.0.2", port), "refused");
}

} // namespace
