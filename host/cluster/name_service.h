/*
 * The name service on the cluster store, behind the contract of nasctrl/host/name_service.h.
 *
 * A handle is the number of a namespace of its own: name N of handle H is the store's key "nasctrl/names/H/N". Nobody
 * has to open it, and handle 0 is the library's. The key holds the value and, behind it, 16 bytes that name the write,
 * so that a writer whose answer was lost knows its own value from an equal one of somebody else. The version of a name
 * is that of its key.
 *
 * A write whose fate the store does not tell is remembered. When the same value is to be written again, that is taken
 * for the next try: the service first finds out what became of the earlier one, so that a value stands in the history
 * once, however often its publication was tried.
 */
#pragma once

#include "cluster/store.h"
#include <condition_variable>
#include <deque>
#include <mutex>
#include <nasctrl/host/name_service.h>
#include <optional>
#include <string_view>
#include <thread>

namespace host {

constexpr int32_t kNameExists = 2; // of a creation
constexpr size_t kMaxNameLength = 255;
constexpr size_t kMaxNameValue = 1U << 20;

std::string keyOfName(uint32_t handle, std::string_view name);
// The value without the bytes that name the write; nothing when somebody else than a name service wrote the key.
std::optional<std::string> valueOfName(const std::string &stored);

// Any thread. Names are 1 to kMaxNameLength bytes, values up to kMaxNameValue. Error codes are negative errno values:
// -ENOENT there is no such name, -ESTALE the name has another version, -ETIMEDOUT the store does not tell, -EPROTO the
// key holds no name, -ENOMEM there is no memory for an answer, -EBUSY too many reads wait, -ESHUTDOWN the service
// stops.
class NameService {
public:
    explicit NameService(std::shared_ptr<Store> store);
    ~NameService() { stop(); }
    NameService(const NameService &) = delete;
    NameService &operator=(const NameService &) = delete;

    // Ends the reads that wait with -ESHUTDOWN, and refuses the next ones. Not from a callback.
    void stop();

    // 0, kNameExists, or an error code.
    int32_t create(const std::string &key, std::string_view value);
    // 0: callback will be called on the service's thread. Or an error code.
    int32_t read(const std::string &key, ns_get_cb callback, void *context);
    int32_t set(const std::string &key, std::string_view value, uint64_t version, ns_state_t &state);

private:
    struct Read {
        std::string key;
        ns_get_cb callback;
        void *context;
    };
    // A write that may have been made, or may yet be.
    struct OpenWrite {
        std::string key;
        std::string value; // without the stamp
        std::string stored;
        uint64_t version; // that it was to follow
    };
    struct Found {
        int32_t code;
        uint64_t version = 0;
        std::string value;
    };
    void run();
    Found find(const std::string &key) noexcept;
    void answer(const Read &read);
    std::string stamped(std::string_view value);
    std::optional<OpenWrite> takeOpen(const std::string &key, std::string_view value);
    void keepOpen(OpenWrite write);
    int32_t finish(OpenWrite write, ns_state_t &state);
    int32_t finishEarlier(OpenWrite write, uint64_t version, ns_state_t &state);

    const std::shared_ptr<Store> store_;
    const uint64_t writer_; // drawn at random: tells this service's writes from those of all others
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Read> reads_; // under mutex_, like the three that follow
    std::deque<OpenWrite> open_;
    uint64_t writes_ = 0;
    bool stopping_ = false;
    std::thread thread_; // the last member, because it uses the others
};

// The node's own, on the node's cluster store. Main thread only.
void startNameService();
void stopNameService();

} // namespace host
