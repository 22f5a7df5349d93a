/*
 * Which cloud an address belongs to, with 1, 50 and 100 networks in the table, beside a search in a sorted array of the
 * same networks as numbers: what the same question costs when the texts are read once.
 */
#include <algorithm>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <cstring>
#include <nasctrl/nasctrl.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr char kDefault[] = NAS_VPC_DEFAULT_ID;

std::string networkAt(int64_t index)
{
    return "10." + std::to_string(index) + ".0.0";
}

std::string idAt(int64_t index)
{
    return "vpc-" + std::to_string(index);
}

sockaddr_in addressOf(const std::string &text)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(text.c_str());
    return address;
}

// One in each network, and one in none.
std::vector<sockaddr_in> addresses(int64_t networks)
{
    std::vector<sockaddr_in> all = {addressOf("192.168.7.9")};
    for (int64_t i = 0; i < networks; ++i) {
        all.push_back(addressOf("10." + std::to_string(i) + ".7.9"));
    }
    return all;
}

void fillTable(int64_t networks)
{
    NasClearVpcInfo();
    for (int64_t i = 0; i < networks; ++i) {
        std::string network = networkAt(i) + "/16";
        if (NasSetVpcInfo(idAt(i).c_str(), network.data()) != NAS_OK) {
            throw std::runtime_error("the table refuses " + network);
        }
    }
}

void tableLookUp(benchmark::State &state)
{
    fillTable(state.range(0));
    const std::vector<sockaddr_in> asked = addresses(state.range(0));
    char id[NAS_VPC_ID_SIZE];
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(NasGetVpcInfoByIP(reinterpret_cast<const sockaddr *>(&asked[next]), id));
        benchmark::ClobberMemory();
        next = next + 1 < asked.size() ? next + 1 : 0;
    }
}

struct Network {
    uint32_t address; // in host order
    char id[NAS_VPC_ID_SIZE];
};

std::vector<Network> sortedNetworks(int64_t networks)
{
    std::vector<Network> sorted(static_cast<size_t>(networks));
    for (int64_t i = 0; i < networks; ++i) {
        Network &network = sorted[static_cast<size_t>(i)];
        network.address = ntohl(inet_addr(networkAt(i).c_str()));
        strcpy(network.id, idAt(i).c_str());
    }
    std::sort(sorted.begin(), sorted.end(), [](const Network &a, const Network &b) { return a.address < b.address; });
    return sorted;
}

void arrayLookUp(benchmark::State &state)
{
    constexpr uint32_t kMask = 0xFFFF0000;
    const std::vector<Network> networks = sortedNetworks(state.range(0));
    const std::vector<sockaddr_in> asked = addresses(state.range(0));
    char id[NAS_VPC_ID_SIZE];
    size_t next = 0;
    for (auto _ : state) {
        const uint32_t address = ntohl(asked[next].sin_addr.s_addr) & kMask;
        const auto found = std::lower_bound(networks.begin(), networks.end(), address,
                                            [](const Network &network, uint32_t key) { return network.address < key; });
        const bool hit = found != networks.end() && found->address == address;
        memcpy(id, hit ? found->id : kDefault, hit ? sizeof found->id : sizeof kDefault);
        benchmark::DoNotOptimize(id);
        benchmark::ClobberMemory();
        next = next + 1 < asked.size() ? next + 1 : 0;
    }
}

BENCHMARK(tableLookUp)->Name("VPC table")->Arg(1)->Arg(50)->Arg(100);
BENCHMARK(arrayLookUp)->Name("sorted array of networks")->Arg(1)->Arg(50)->Arg(100);

} // namespace
