#include "store_backends.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace store_test {

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kPatience{30};

// Loopback addresses that no other test process uses.
std::string loopback()
{
    const auto pid = static_cast<unsigned>(getpid());
    return "127." + std::to_string(64 + pid / 65536 % 64) + "." + std::to_string(pid / 256 % 256) + "." +
           std::to_string(pid % 256);
}

std::string freeUrl()
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    inet_pton(AF_INET, loopback().c_str(), &any.sin_addr);
    socklen_t length = sizeof any;
    const bool bound = bind(descriptor, reinterpret_cast<sockaddr *>(&any), length) == 0 &&
                       getsockname(descriptor, reinterpret_cast<sockaddr *>(&any), &length) == 0;
    close(descriptor);
    if (!bound) {
        throw std::runtime_error("no free port");
    }
    return "http://" + loopback() + ":" + std::to_string(ntohs(any.sin_port));
}

[[noreturn]] void execute(const std::vector<std::string> &command, const std::string &output)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing stays behind a test that dies
    const int log = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    std::vector<char *> words;
    for (const std::string &word : command) {
        words.push_back(const_cast<char *>(word.c_str()));
    }
    words.push_back(nullptr);
    execvp(words[0], words.data());
    _exit(127);
}

// Two changes that leave the keys as they were.
void changeAside(host::Store &store)
{
    store.create("forget/me", "");
    store.remove("forget/me", 0);
}

} // namespace

bool eventually(const std::function<bool()> &condition)
{
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > until) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(5));
    }
    return true;
}

TemporaryFolder::TemporaryFolder()
{
    char pattern[] = "/tmp/nasctrl-store-XXXXXX";
    path_ = mkdtemp(pattern);
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

// ---- SQLite

host::StoreSettings SqliteBackend::settings() const
{
    host::StoreSettings settings;
    settings.file = file();
    settings.remembered = kRemembered;
    settings.timeout = kPatient;
    settings.clock = [now = now_] { return milliseconds(*now); };
    return settings;
}

void SqliteBackend::forget(host::Store &store) const
{
    for (uint32_t i = 0; i <= kRemembered / 2; ++i) {
        changeAside(store);
    }
}

void SqliteBackend::takeAway() const
{
    for (const char *suffix : {"-shm", "-wal", ""}) {
        std::filesystem::rename(file() + suffix, file() + ".away" + suffix);
    }
}

void SqliteBackend::giveBack() const
{
    for (const char *suffix : {"-shm", "-wal", ""}) {
        std::filesystem::rename(file() + ".away" + suffix, file() + suffix);
    }
}

// ---- etcd

EtcdBackend::EtcdBackend() : endpoint_(freeUrl()), peer_(freeUrl())
{
    while (peer_ == endpoint_) {
        peer_ = freeUrl();
    }
    start();
}

EtcdBackend::~EtcdBackend()
{
    takeAway();
}

host::StoreSettings EtcdBackend::settings() const
{
    host::StoreSettings settings;
    settings.endpoints = {endpoint_};
    settings.timeout = kPatient;
    return settings;
}

std::string EtcdBackend::deadEndpoint()
{
    return freeUrl();
}

void EtcdBackend::start()
{
    const std::vector<std::string> command = {"etcd",
                                              "--data-dir=" + folder_.path() + "/data",
                                              "--listen-client-urls=" + endpoint_,
                                              "--advertise-client-urls=" + endpoint_,
                                              "--listen-peer-urls=" + peer_,
                                              "--initial-advertise-peer-urls=" + peer_,
                                              "--initial-cluster=default=" + peer_,
                                              "--heartbeat-interval=20",
                                              "--election-timeout=200"};
    const std::string output = folder_.path() + "/etcd.log";
    pid_ = fork();
    if (pid_ == 0) {
        execute(command, output);
    }
    const auto store = host::openStore(settings());
    if (!eventually([&] { return store->read("any").result == host::StoreResult::absent; })) {
        throw std::runtime_error("etcd does not start (Debian package etcd-server)");
    }
}

void EtcdBackend::takeAway()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void EtcdBackend::giveBack()
{
    start();
}

void EtcdBackend::hang() const
{
    kill(pid_, SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
}

void EtcdBackend::goOn() const
{
    kill(pid_, SIGCONT);
}

void EtcdBackend::forget(host::Store &store) const
{
    changeAside(store); // the newest revision is never forgotten
    const std::string request = "{\"revision\":\"" + std::to_string(store.list("").revision) + "\",\"physical\":true}";
    const std::string call =
        "curl --noproxy '*' -sf -o /dev/null -d '" + request + "' " + endpoint_ + "/v3/kv/compaction";
    if (std::system(call.c_str()) != 0) {
        throw std::runtime_error("etcd does not compact");
    }
}

// ---- watches

host::StoreCallback Events::callback()
{
    return [this](const host::StoreEvent &event) {
        const std::scoped_lock lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    };
}

std::vector<host::StoreEvent> Events::wait(size_t count)
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return events_.size() >= count; });
    return events_;
}

bool Events::waitFor(const std::function<bool(const host::StoreEvent &)> &condition)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience,
                             [&] { return std::find_if(events_.begin(), events_.end(), condition) != events_.end(); });
}

size_t Events::count()
{
    const std::scoped_lock lock(mutex_);
    return events_.size();
}

std::string told(const host::StoreEvent &event)
{
    switch (event.kind) {
    case host::StoreEvent::Kind::put:
        return "put " + event.item.key + " " + event.item.value + " v" + std::to_string(event.item.version);
    case host::StoreEvent::Kind::removed:
        return "removed " + event.item.key;
    default:
        return "lost";
    }
}

std::vector<std::string> told(const std::vector<host::StoreEvent> &events)
{
    std::vector<std::string> texts;
    for (const host::StoreEvent &event : events) {
        texts.push_back(told(event));
    }
    return texts;
}

// ---- losses

template <typename Change>
host::StoreWrite LossyStore::change(Change made)
{
    ++changes_;
    const Loss loss = std::exchange(loss_, Loss::none);
    host::StoreWrite answer;
    if (loss != Loss::request) {
        answer = made();
    }
    if (auto action = std::exchange(action_, nullptr)) {
        action();
    }
    return loss == Loss::none ? answer : host::StoreWrite{};
}

host::StoreWrite LossyStore::create(const std::string &key, const std::string &value, host::StoreLease lease)
{
    return change([&] { return store_.create(key, value, lease); });
}

host::StoreWrite LossyStore::write(const std::string &key, const std::string &value, uint64_t version,
                                   host::StoreLease lease)
{
    return change([&] { return store_.write(key, value, version, lease); });
}

host::StoreRead LossyStore::readBack(const std::string &key, uint64_t version)
{
    return readsAreLost_ ? host::StoreRead{} : store_.readBack(key, version);
}

} // namespace store_test
