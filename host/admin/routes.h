/*
 * From a request to the call that answers it. Knows nothing of sockets.
 */
#pragma once

#include "admin/answer.h"

namespace host::admin {

// Of the call that the request names; what names none is answered at once.
Lane laneOf(const Request &request);

// Never throws: whatever goes wrong becomes an error answer. From any thread.
Answer answerRequest(const Request &request);

} // namespace host::admin
