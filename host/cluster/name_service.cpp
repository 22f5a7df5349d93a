#include "cluster/name_service.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <random>

namespace host {

namespace {

constexpr size_t kStampSize = 2 * sizeof(uint64_t);
constexpr size_t kMaxWaitingReads = 1024;
constexpr size_t kMaxOpenWrites = 64; // the oldest is forgotten

uint64_t randomWriter()
{
    std::random_device device;
    return static_cast<uint64_t>(device()) << 32 | device();
}

int32_t codeOf(StoreResult result)
{
    switch (result) {
    case StoreResult::done:
        return 0;
    case StoreResult::exists:
        return kNameExists;
    case StoreResult::absent:
        return -ENOENT;
    case StoreResult::differs:
        return -ESTALE;
    default:
        return -ETIMEDOUT; // names have no lease, so what is left is unknown
    }
}

struct NodeService {
    std::mutex mutex; // held for a copy of the pointer
    std::shared_ptr<NameService> service;
};

NodeService &nodeService()
{
    static auto &kept = *new NodeService; // threads of the library may ask until the process is gone
    return kept;
}

std::shared_ptr<NameService> ownService()
{
    const std::scoped_lock lock(nodeService().mutex);
    return nodeService().service;
}

// What the node's service says to a call of the contract, which no exception leaves.
template <typename Call>
int32_t askService(const Call &call)
{
    try {
        const auto service = ownService();
        return service ? call(*service) : -ENOTCONN;
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

bool isName(const char *name)
{
    const size_t length = name == nullptr ? 0 : strnlen(name, kMaxNameLength + 1);
    return length >= 1 && length <= kMaxNameLength;
}

bool isValue(const void *value, uint32_t length)
{
    return length <= kMaxNameValue && (value != nullptr || length == 0);
}

std::string_view viewOf(const void *value, uint32_t length)
{
    return {static_cast<const char *>(value), length};
}

} // namespace

std::string keyOfName(uint32_t handle, std::string_view name)
{
    return "nasctrl/names/" + std::to_string(handle) + "/" + std::string(name);
}

std::optional<std::string> valueOfName(const std::string &stored)
{
    return stored.size() < kStampSize ? std::nullopt : std::optional(stored.substr(0, stored.size() - kStampSize));
}

NameService::NameService(std::shared_ptr<Store> store) : store_(std::move(store)), writer_(randomWriter())
{
    thread_ = std::thread([this] { run(); });
}

void NameService::stop()
{
    {
        const std::scoped_lock lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
    for (; !reads_.empty(); reads_.pop_front()) {
        reads_.front().callback(-ESHUTDOWN, nullptr, reads_.front().context);
    }
}

std::string NameService::stamped(std::string_view value)
{
    uint64_t stamp[2] = {writer_, 0};
    {
        const std::scoped_lock lock(mutex_);
        stamp[1] = ++writes_;
    }
    static_assert(sizeof stamp == kStampSize);
    return std::string(value).append(reinterpret_cast<const char *>(stamp), sizeof stamp);
}

int32_t NameService::create(const std::string &key, std::string_view value)
{
    return codeOf(createSettled(*store_, key, stamped(value)).result);
}

int32_t NameService::set(const std::string &key, std::string_view value, uint64_t version, ns_state_t &state)
{
    if (auto earlier = takeOpen(key, value)) {
        return finishEarlier(std::move(*earlier), version, state);
    }
    return finish({key, std::string(value), stamped(value), version}, state);
}

std::optional<NameService::OpenWrite> NameService::takeOpen(const std::string &key, std::string_view value)
{
    const std::scoped_lock lock(mutex_);
    const auto found =
        std::ranges::find_if(open_, [&](const OpenWrite &write) { return write.key == key && write.value == value; });
    if (found == open_.end()) {
        return std::nullopt;
    }
    OpenWrite taken = std::move(*found);
    open_.erase(found);
    return taken;
}

void NameService::keepOpen(OpenWrite write)
{
    const std::scoped_lock lock(mutex_);
    if (open_.size() == kMaxOpenWrites) {
        open_.pop_front();
    }
    open_.push_back(std::move(write));
}

int32_t NameService::finish(OpenWrite write, ns_state_t &state)
{
    const StoreWrite made = writeSettled(*store_, write.key, write.stored, write.version);
    if (made.result == StoreResult::done) {
        state = {made.revision, 0, made.version};
    } else if (made.result == StoreResult::unknown) {
        keepOpen(std::move(write));
    }
    return codeOf(made.result);
}

// What stands at the version that the earlier try was to make tells what became of it. When nothing does yet, only the
// same write once more can do no harm; and when that is refused, the earlier one may be the reason.
int32_t NameService::finishEarlier(OpenWrite write, uint64_t version, ns_state_t &state)
{
    const StoreRead found = store_->readBack(write.key, write.version + 1);
    if (found.result == StoreResult::done && found.item.value == write.stored) {
        state = {found.item.revision, 0, found.item.version};
        return 0;
    }
    if (found.result == StoreResult::done) {
        write.stored = stamped(write.value);
        write.version = version;
        return finish(std::move(write), state);
    }
    if (found.result == StoreResult::unknown || version != write.version) {
        keepOpen(std::move(write));
        return -ETIMEDOUT;
    }
    const OpenWrite again = write;
    const int32_t code = finish(std::move(write), state);
    if (code == -ESTALE || code == -ENOENT) {
        keepOpen(again);
    }
    return code;
}

int32_t NameService::read(const std::string &key, ns_get_cb callback, void *context)
{
    const std::scoped_lock lock(mutex_);
    if (stopping_) {
        return -ESHUTDOWN;
    }
    if (reads_.size() >= kMaxWaitingReads) {
        return -EBUSY;
    }
    reads_.push_back({key, callback, context});
    changed_.notify_all();
    return 0;
}

void NameService::run()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !reads_.empty(); });
        if (stopping_) {
            return;
        }
        const Read next = std::move(reads_.front());
        reads_.pop_front();
        lock.unlock();
        answer(next);
        lock.lock();
    }
}

NameService::Found NameService::find(const std::string &key) noexcept
{
    try {
        const StoreRead found = store_->read(key);
        auto value = valueOfName(found.item.value);
        if (found.result == StoreResult::done && value) {
            return {0, found.item.version, std::move(*value)};
        }
        return {found.result == StoreResult::done ? -EPROTO : codeOf(found.result), 0, {}};
    } catch (const std::exception &) {
        return {-ENOMEM, 0, {}};
    }
}

void NameService::answer(const Read &read)
{
    const Found found = find(read.key);
    if (found.code != 0) {
        read.callback(found.code, nullptr, read.context);
        return;
    }
    ns_info_t info{};
    info.version = static_cast<int64_t>(found.version);
    info.value = found.value.empty() ? nullptr : found.value.data();
    info.length = static_cast<uint32_t>(found.value.size());
    read.callback(0, &info, read.context);
}

void startNameService()
{
    auto service = std::make_shared<NameService>(clusterStore());
    const std::scoped_lock lock(nodeService().mutex);
    nodeService().service = std::move(service);
}

void stopNameService()
{
    std::shared_ptr<NameService> service;
    {
        const std::scoped_lock lock(nodeService().mutex);
        service.swap(nodeService().service);
    }
    if (service) {
        service->stop();
    }
}

} // namespace host

int32_t ns_create(uint32_t handle, const char *name, uint32_t /*zero*/, const void *value, uint32_t length)
{
    if (!host::isName(name) || !host::isValue(value, length)) {
        return -EINVAL;
    }
    return host::askService([&](host::NameService &service) {
        return service.create(host::keyOfName(handle, name), host::viewOf(value, length));
    });
}

int32_t ns_getAsyn(uint32_t handle, const char *name, ns_get_cb callback, void *context)
{
    if (!host::isName(name) || callback == nullptr) {
        return -EINVAL;
    }
    return host::askService(
        [&](host::NameService &service) { return service.read(host::keyOfName(handle, name), callback, context); });
}

int32_t ns_set(uint32_t handle, const char *name, const void *value, uint32_t length, uint64_t expected_version,
               ns_state_t *out_state)
{
    if (!host::isName(name) || !host::isValue(value, length) || out_state == nullptr) {
        return -EINVAL;
    }
    return host::askService([&](host::NameService &service) {
        return service.set(host::keyOfName(handle, name), host::viewOf(value, length), expected_version, *out_state);
    });
}
