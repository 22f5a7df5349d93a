#include "cluster/view_changes.h"

#include "cluster/view_record.h"

#include <memory>

namespace host {
namespace {

// Entries are large, so they live on the heap, one after the other as the library wants them.
using Entries = std::vector<cm_ls_entry>;

void append(Entries &entries, const DpcClient &client, int32_t runState)
{
    DpcClient shown = client;
    shown.runState = runState;
    entries.push_back(entryOf(shown));
}

void tellFaults(const Entries &entries)
{
    if (!entries.empty()) {
        NasCtrlHandleDpcStateFault(entries.data(), static_cast<int32_t>(entries.size()));
    }
}

void tellRecoveries(const Entries &entries)
{
    if (!entries.empty()) {
        NasCtrlHandleDpcStateRecover(entries.data(), static_cast<int32_t>(entries.size()));
    }
}

DpcView goneFrom(const DpcView &was, const DpcView &now)
{
    DpcView gone;
    gone.version = was.version;
    for (const DpcClient &client : was.clients) {
        if (now.find(client.lsId) == nullptr) {
            gone.clients.push_back(client);
        }
    }
    return gone;
}

// Whether the process that a client was has come to an end: it failed, or it left and another joined.
bool wasLost(const DpcClient &before, const DpcClient &client)
{
    const bool otherProcess = before.runState == kRunning && before.session != client.session;
    return before.faults != client.faults || otherProcess;
}

// The client as it was lost: the process that ended is the old one unless the client is faulty still.
DpcClient lostForm(const DpcClient *before, const DpcClient &client)
{
    DpcClient lost = client;
    if (before != nullptr && client.runState == kRunning) {
        lost.session = before->session;
    }
    if (lost.faultReason == kNoFault) {
        lost.faultReason = kHeartBreak;
    }
    return lost;
}

} // namespace

void tellFirstView(const DpcView &now)
{
    Entries faulty;
    for (const DpcClient &client : now.clients) {
        if (client.runState == kFaulty) {
            append(faulty, client, kFaulty);
        }
    }
    tellFaults(faulty);
}

void tellChange(const DpcView &was, const DpcView &now)
{
    for (const DpcClient &client : now.clients) {
        const DpcClient *before = was.find(client.lsId);
        if (before != nullptr && (before->runState != client.runState || before->session != client.session)) {
            const auto oldEntry = std::make_unique<cm_ls_entry>(entryOf(*before));
            const auto newEntry = std::make_unique<cm_ls_entry>(entryOf(client));
            NasCtrlHandleDpcState(oldEntry.get(), newEntry.get());
        }
    }
    // The library looks for each old client in the whole new view; the few that are gone need not be looked for.
    const DpcView gone = goneFrom(was, now);
    if (!gone.clients.empty()) {
        const ViewRecord previous(gone);
        const ViewRecord none{DpcView{}};
        ScaleDownNotifyDlgAndFmm(&previous.get(), &none.get());
    }
}

void tellMissedChanges(const DpcView &was, const DpcView &now)
{
    Entries failed;
    Entries returned;
    for (const DpcClient &client : now.clients) {
        const DpcClient *before = was.find(client.lsId);
        const bool failedUnseen = before != nullptr ? wasLost(*before, client) : client.runState == kFaulty;
        if (failedUnseen) {
            append(failed, lostForm(before, client), kFaulty);
        }
        const bool wasFaulty = failedUnseen || (before != nullptr && before->runState == kFaulty);
        if (client.runState == kRunning && wasFaulty) {
            append(returned, client, kRunning);
        }
    }
    tellFaults(failed);
    tellRecoveries(returned);
    Entries gone;
    for (const DpcClient &client : goneFrom(was, now).clients) {
        append(gone, client, client.runState);
    }
    if (!gone.empty()) {
        NasCtrlHandleDpcStateShrink(gone.data(), static_cast<int32_t>(gone.size()));
    }
}

} // namespace host
