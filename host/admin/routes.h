/*
 * From a request to the call that answers it. Knows nothing of sockets.
 */
#pragma once

#include "admin/answer.h"

namespace host::admin {

// True when the request names a call that changes something. Such calls may take long.
bool changesSomething(const Request &request);

// Never throws: whatever goes wrong becomes an error answer. From any thread.
Answer answerRequest(const Request &request);

} // namespace host::admin
