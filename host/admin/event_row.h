/*
 * Events in an answer.
 */
#pragma once

#include "admin/calls.h"
#include "notify/told.h"

namespace host::admin {

Json eventRow(const Event &event);

// What a call led to: "told", the events with "after_us" since the call began, and "untold", what did not come in time.
Json tellingRows(const TellingOutcome &outcome);

} // namespace host::admin
