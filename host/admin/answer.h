/*
 * What the HTTP server and the calls of the admin door share: a request, its answer, and the way a call refuses.
 */
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace host::admin {

struct Request {
    std::string method;
    std::string target;
    std::string body;
};

struct Answer {
    unsigned status;
    std::string body;
    std::string allow = {}; // the methods of the path, for a 405
    std::string type = "application/json";
};

// How a call is run, beside the others.
enum class Lane : uint8_t {
    read,     // at once: it never waits
    question, // waits for an answer from outside the node; a few run at once
    follow,   // waits for something to happen; some more run at once, and beyond these it is refused
    service,  // a word with the storage-side service itself, short and whatever the questions wait for; one at a time
    change,   // changes something; one at a time, in the order of arrival
};

constexpr unsigned kOk = 200;
constexpr unsigned kBadRequest = 400;
constexpr unsigned kForbidden = 403;
constexpr unsigned kNotFound = 404;
constexpr unsigned kMethodNotAllowed = 405;
constexpr unsigned kConflict = 409;
constexpr unsigned kInternalError = 500;
constexpr unsigned kBusy = 503;

// Thrown by a call that cannot be done: the HTTP status, and one line that says why.
class CallError : public std::runtime_error {
public:
    CallError(unsigned status, const std::string &line) : std::runtime_error(line), status_(status) {}
    unsigned status() const { return status_; }

private:
    unsigned status_;
};

// The answer {"error": line}.
Answer errorAnswer(unsigned status, const std::string &line);

} // namespace host::admin
