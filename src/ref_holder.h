// Ownership in types, for the library's own code.
//
// The starting-count rule: a reference-counted object of the library
// (ref_count_t, the message queues, thread_wrapper_t) is born with a count
// of 0 and belongs to nobody until a holder takes it; ref_holder_t<T>(p)
// takes the first reference. adopt() is for a pointer whose reference was
// counted already (handed over by a list, or a sync_msg_t born with the
// queue's reference): it takes that reference over without incrementing.
// A message (msg_it) has one owner at a time; msg_holder_t releases it on
// every path unless the message was handed over.
#ifndef SSB_REF_HOLDER_H
#define SSB_REF_HOLDER_H

#include <utility>

#include "msg.h"
#include "util_def.h"

namespace ssb {

template <class T>
class ref_holder_t {
public:
    ref_holder_t() : m_p(nullptr) {}
    explicit ref_holder_t(T* p) : m_p(p) {
        if (m_p)
            m_p->increment();
    }
    static ref_holder_t adopt(T* p) {
        ref_holder_t h;
        h.m_p = p;
        return h;
    }
    ref_holder_t(const ref_holder_t& other) : ref_holder_t(other.m_p) {}
    ref_holder_t(ref_holder_t&& other) noexcept : m_p(other.m_p) { other.m_p = nullptr; }
    ref_holder_t& operator=(ref_holder_t other) noexcept {
        std::swap(m_p, other.m_p);
        return *this;
    }
    ~ref_holder_t() { reset(); }

    T* get() const { return m_p; }
    T* operator->() const { return m_p; }
    explicit operator bool() const { return m_p != nullptr; }
    void reset() {
        T* p = m_p;
        m_p = nullptr;
        if (p)
            p->decrement();
    }
    // Hands the reference to the caller, who must drop it.
    T* detach() {
        T* p = m_p;
        m_p = nullptr;
        return p;
    }

private:
    T* m_p;
};

// Sole owner of a message until it is handed over.
class msg_holder_t {
public:
    msg_holder_t() : m_msg(nullptr) {}
    explicit msg_holder_t(msg_it* msg) : m_msg(msg) {}
    msg_holder_t(const msg_holder_t&) = delete;
    msg_holder_t& operator=(const msg_holder_t&) = delete;
    ~msg_holder_t() {
        if (m_msg)
            m_msg->release();
    }

    msg_it* get() const { return m_msg; }
    explicit operator bool() const { return m_msg != nullptr; }
    // Releases the message held, if any, and holds `msg`.
    void reset(msg_it* msg = nullptr) {
        msg_it* old = m_msg;
        m_msg = msg;
        if (old)
            old->release();
    }
    // Gives the message up to the caller.
    msg_it* take() {
        msg_it* msg = m_msg;
        m_msg = nullptr;
        return msg;
    }
    // After a post or send with result `rv`: the queue owns the message
    // when it took it (0, or 16 for a send whose wait timed out and which
    // still runs later); otherwise it stays here and is released with the
    // holder. Returns rv.
    int handed_over(int rv) {
        if (rv == RESULT_SUCCESS || rv == RESULT_BUSY)
            m_msg = nullptr;
        return rv;
    }

private:
    msg_it* m_msg;
};

}  // namespace ssb

#endif
