/*
 * The node's admin door: HTTP with JSON on a Unix socket.
 */
#pragma once

#include "session.h"
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace ctl {

// One call per function: connects, asks, reads the whole answer. The text that comes back is the answer as it came and
// is JSON. Every other outcome is a Failure: no node, a time-out, a refusal, something that is not an answer.
class AdminClient {
public:
    explicit AdminClient(const Session &session);

    std::string get(const std::string &path) const;
    // Without a body when it is null.
    std::string post(const std::string &path, const nlohmann::json &body) const;
    std::string put(const std::string &path, const nlohmann::json &body) const;
    std::string remove(const std::string &path) const;
    std::string remove(const std::string &path, const nlohmann::json &body) const;

private:
    std::string call(const char *method, const std::string &path, const std::string &body) const;

    const Session &session_;
};

} // namespace ctl
