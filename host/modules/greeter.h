/*
 * What answers on the modules' listening sockets: each caller gets one line that names who answered, and is hung up on.
 */
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace host {

class Greeter {
public:
    // Throws std::system_error.
    Greeter();
    // Hangs up on the listening sockets too.
    ~Greeter();
    Greeter(const Greeter &) = delete;
    Greeter &operator=(const Greeter &) = delete;

    // Takes a listening, non-blocking socket over and says greeting to its callers. Returns its id, or 0 with errno
    // set and the socket closed.
    uint64_t add(int socket, const std::string &greeting);
    // Closes the socket. Does not wait for more than a caller being accepted.
    void remove(uint64_t id);

private:
    struct Listener {
        int socket;
        std::string greeting;
    };

    void run();
    void greet(uint64_t id);
    void pauseAfter(int error);

    int poll_;
    int wake_; // an event once the thread is to end
    std::mutex lock_;
    uint64_t lastId_ = 0;
    std::map<uint64_t, Listener> listeners_; // by id, so that a socket number used again is not mistaken
    bool refusing_ = false;                  // the last accept failed, and was logged; the thread's own
    std::thread thread_;
};

} // namespace host
