/*
 * The IP manager's own view of its list and of the words that its threads share without a lock.
 */
#ifndef NASCTRL_INTERNAL_IP_LIST_H
#define NASCTRL_INTERNAL_IP_LIST_H

#include <nasctrl/ip_manager.h>

#include "internal/list.h"
#include "internal/log.h"
#include "internal/words.h"

namespace nas {

/* An address field of a record or an event, as text: one without a NUL is cut to the field's width. */
using IpText = CutText<NAS_IP_TEXT_SIZE>;

/* Makes the monitor's next sleep the short one. */
inline void requestRetry()
{
    writeWord(g_needRetry, uint8_t{1});
}

/*
 * The records of the IP list, first to last, for a range-based loop whose body may unlink and free the record that it
 * is at. g_ipListMutex is held for the whole loop.
 */
class IpRecords {
public:
    class Iterator {
    public:
        explicit Iterator(list_link *link) : link_(link), next_(listNext(link)) {}
        NasIpListNode &operator*() const { return *LIST_RECORD(link_, NasIpListNode, link); }
        Iterator &operator++() { return *this = Iterator(next_); }
        bool operator!=(const Iterator &other) const { return link_ != other.link_; }

    private:
        list_link *link_;
        list_link *next_;
    };
    /* NOLINTNEXTLINE(readability-convert-member-functions-to-static): the names that a range-based loop asks for */
    Iterator begin() const { return Iterator(listNext(&g_iplistHead)); }
    Iterator end() const { return Iterator(&g_iplistHead); }
};

/* Makes both event queues empty and opens them to the producers. */
void openIpEventQueues();

} // namespace nas

#endif
