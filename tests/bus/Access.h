// SPDX-License-Identifier: Apache-2.0
// Private members that tests look at or set: an explicit instantiation may name them, and hands
// the pointer to member to a function that anybody may call.
#ifndef SENTREL_TESTS_ACCESS_H
#define SENTREL_TESTS_ACCESS_H

#include <list>

#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusProxy.h"

namespace test {

template <typename Tag, typename Tag::Type member>
struct Opened {
    friend typename Tag::Type MemberOf(Tag) { return member; }
};

struct ConnectionTimeout {
    typedef int sentrel::SR_DBusConnection::*Type;
    friend Type MemberOf(ConnectionTimeout);
};
template struct Opened<ConnectionTimeout, &sentrel::SR_DBusConnection::timeout>;

struct ProxyTimeout {
    typedef int sentrel::SR_DBusProxy::*Type;
    friend Type MemberOf(ProxyTimeout);
};
template struct Opened<ProxyTimeout, &sentrel::SR_DBusProxy::timeout>;

struct DispatcherQueue {
    typedef std::list<sentrel::SR_DBusConnection::Impl*> sentrel::SR_DBusDispatcher::*Type;
    friend Type MemberOf(DispatcherQueue);
};
template struct Opened<DispatcherQueue, &sentrel::SR_DBusDispatcher::pending>;

inline int& TimeoutOf(sentrel::SR_DBusConnection& connection) {
    return connection.*MemberOf(ConnectionTimeout());
}

inline int& TimeoutOf(sentrel::SR_DBusProxy& proxy) {
    return proxy.*MemberOf(ProxyTimeout());
}

// Only while nobody else queues.
inline std::list<sentrel::SR_DBusConnection::Impl*>& QueueOf(
    sentrel::SR_DBusDispatcher& dispatcher) {
    return dispatcher.*MemberOf(DispatcherQueue());
}

}  // namespace test

#endif
