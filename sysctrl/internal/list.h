/*
 * Circular doubly linked lists over list_link. An empty head points at itself; an unlinked link does too.
 */
#ifndef NASCTRL_INTERNAL_LIST_H
#define NASCTRL_INTERNAL_LIST_H

#include <cstddef>
#include <nasctrl/base.h>

/* The record of a type that holds this link as a member. */
#define LIST_RECORD(link, type, member) nas::listRecord<type>((link), offsetof(type, member))

namespace nas {

template <typename Record>
Record *listRecord(void *link, size_t offset)
{
    return reinterpret_cast<Record *>(static_cast<char *>(link) - offset);
}

inline list_link *listNext(const list_link *link)
{
    return static_cast<list_link *>(link->next);
}
inline list_link *listPrev(const list_link *link)
{
    return static_cast<list_link *>(link->prev);
}

inline void listInit(list_link *link)
{
    link->next = link;
    link->prev = link;
}

inline bool listEmpty(const list_link *head)
{
    return head->next == head;
}

inline void listInsertBetween(list_link *link, list_link *before, list_link *after)
{
    link->prev = before;
    link->next = after;
    before->next = link;
    after->prev = link;
}

inline void listAddTail(list_link *head, list_link *link)
{
    listInsertBetween(link, listPrev(head), head);
}
inline void listAddFront(list_link *head, list_link *link)
{
    listInsertBetween(link, head, listNext(head));
}

inline void listUnlink(list_link *link)
{
    listPrev(link)->next = link->next;
    listNext(link)->prev = link->prev;
    listInit(link);
}

/* Takes the oldest link off the list; null when the list is empty. */
inline list_link *listTakeFront(list_link *head)
{
    if (listEmpty(head)) {
        return nullptr;
    }
    list_link *first = listNext(head);
    listUnlink(first);
    return first;
}

} // namespace nas

#endif
