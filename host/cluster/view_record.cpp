#include "cluster/view_record.h"

#include "platform/copy_text.h"

#include <algorithm>
#include <cstdint>
#include <nasctrl/version_ns.h>
#include <new>

namespace host {
namespace {

constexpr const char *kAlias = "distributed parallel clients";

} // namespace

ViewRecord::ViewRecord(const DpcView &view)
{
    const size_t size = view.clients.size() * sizeof(cm_ls_entry);
    if (size > UINT32_MAX) {
        throw std::bad_alloc();
    }
    if (size > 0) {
        record_.ls = static_cast<cm_ls_entry *>(NasCtrlViewMalloc(static_cast<uint32_t>(size)));
        if (record_.ls == nullptr) {
            throw std::bad_alloc();
        }
    }
    std::ranges::transform(view.clients, record_.ls, entryOf);
    record_.version = view.version;
    record_.lsNum = static_cast<uint32_t>(view.clients.size());
    copyText(record_.dsName, GetNasCtrlClusterDsName());
    copyText(record_.dsAlias, kAlias);
}

ViewRecord::~ViewRecord()
{
    NasCtrlViewFree(record_.ls);
}

} // namespace host
