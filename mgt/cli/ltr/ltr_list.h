// Intrusive doubly linked lists: each member carries a forward link and a back link to
// whatever points at it, so appends and unlinks take constant time and a walk may
// delete the current member once it has read the successor.
#pragma once

template <class T> struct ltr_link {
    T *next;
    T **pprev; // the pointer that points at this member
};

// A list with a head and a tail link (the address of the last forward link).
template <class T> struct ltr_tlist {
    T *first;
    T **last; // &first when empty; null before init
};

template <class T> inline void ltr_tlist_init(ltr_tlist<T> &l)
{
    l.first = nullptr;
    l.last = &l.first;
}

template <class T> inline void ltr_tlist_append(ltr_tlist<T> &l, T *m, ltr_link<T> T::*lk)
{
    (m->*lk).next = nullptr;
    (m->*lk).pprev = l.last;
    *l.last = m;
    l.last = &(m->*lk).next;
}

template <class T> inline void ltr_tlist_unlink(ltr_tlist<T> &l, T *m, ltr_link<T> T::*lk)
{
    T *next = (m->*lk).next;
    if (next)
        (next->*lk).pprev = (m->*lk).pprev;
    else
        l.last = (m->*lk).pprev;
    *(m->*lk).pprev = next;
    (m->*lk).next = nullptr;
    (m->*lk).pprev = nullptr;
}

// Plain head-only list (hash chains, reading lists): insert at the front.
template <class T> inline void ltr_list_push_front(T **head, T *m, ltr_link<T> T::*lk)
{
    (m->*lk).next = *head;
    if (*head)
        ((*head)->*lk).pprev = &(m->*lk).next;
    (m->*lk).pprev = head;
    *head = m;
}

template <class T> inline void ltr_list_unlink(T *m, ltr_link<T> T::*lk)
{
    T *next = (m->*lk).next;
    if (next)
        (next->*lk).pprev = (m->*lk).pprev;
    *(m->*lk).pprev = next;
    (m->*lk).next = nullptr;
    (m->*lk).pprev = nullptr;
}
