// SPDX-License-Identifier: Apache-2.0
// The interface halves of D-Bus objects. An object on the serving side is one class that derives
// from an SR_DBusIAdaptor for each of its interfaces; on the calling side, from an SR_DBusIProxy
// for each. All interfaces of one object share a table through a virtual base, in which each enters
// itself when it is constructed.
//
// Ownership: the tables point at base-class parts of the object and own nothing. No interface
// leaves its table, so a table must not be consulted while the object is being destroyed.
// Threads: none of these locks; an object is used by one thread at a time.
#ifndef SENTREL_SR_DBUSINTERFACE_H
#define SENTREL_SR_DBUSINTERFACE_H

#include <boost/make_shared.hpp>
#include <map>
#include <string>

#include "SR_Callback.h"
#include "SR_DBusMessage.h"
#include "SR_Export.h"

namespace sentrel {

class SR_DBusIAdaptor;
class SR_DBusIProxy;

// What has a D-Bus interface name.
class SR_EXPORT SR_DBusI {
public:
    // `name` is the interface's.
    explicit SR_DBusI(const std::string& name);
    virtual ~SR_DBusI();

    // The interface's name.
    const std::string& GetName() const { return interfaceName; }

private:
    std::string interfaceName;
};

class SR_EXPORT SR_DBusBaseAdaptor {
public:
    SR_DBusBaseAdaptor();
    virtual ~SR_DBusBaseAdaptor();
    SR_DBusBaseAdaptor(const SR_DBusBaseAdaptor&) = delete;
    SR_DBusBaseAdaptor& operator=(const SR_DBusBaseAdaptor&) = delete;

protected:
    std::map<std::string, SR_DBusIAdaptor*> interfaces;  // by interface name; not owned
};

// One served interface: a table of methods by member name.
class SR_EXPORT SR_DBusIAdaptor : public SR_DBusI, public virtual SR_DBusBaseAdaptor {
public:
    // Of two adaptors of one object with the same name, the later one is in the table.
    explicit SR_DBusIAdaptor(const std::string& name);
    ~SR_DBusIAdaptor() override;

    // The D-Bus introspection text of this interface, one <interface> element; null for none. The
    // text must live as long as the object.
    virtual const char* Introspect() const;

    // Answers a call by its member alone, whatever its interface, and sends nothing. What the
    // handler returns or throws is passed on; an unknown member becomes an error reply. Throws
    // std::logic_error for a call without a member.
    SR_DBusMessage Dispatch(const SR_DBusCallMessage& call);

protected:
    // Enters a handler; one that is there already is replaced. Not while calls are dispatched.
    void AddMethod(const std::string& member,
                   const Slot<SR_DBusMessage, const SR_DBusCallMessage&>& handler);

    // The same for a method of `object`, which is not owned: AddMethod("Name", this, &Me::Name).
    template <typename Object, typename Class>
    void AddMethod(const std::string& member, Object* object,
                   SR_DBusMessage (Class::*method)(const SR_DBusCallMessage&)) {
        typedef Callback<Class, SR_DBusMessage, const SR_DBusCallMessage&> Method;
        AddMethod(member, Slot<SR_DBusMessage, const SR_DBusCallMessage&>(
                              boost::make_shared<Method>(object, method)));
    }

    // The handlers by member.
    std::map<std::string, Slot<SR_DBusMessage, const SR_DBusCallMessage&> > methods;

private:
    friend class SR_DBusAdaptor;
};

class SR_EXPORT SR_DBusBaseProxy {
public:
    SR_DBusBaseProxy();
    virtual ~SR_DBusBaseProxy();
    SR_DBusBaseProxy(const SR_DBusBaseProxy&) = delete;
    SR_DBusBaseProxy& operator=(const SR_DBusBaseProxy&) = delete;

    // Fills in what the header of the call lacks, sends it and blocks for the reply.
    virtual SR_DBusMessage InvokeImpl(SR_DBusCallMessage& call) = 0;

protected:
    std::map<std::string, SR_DBusIProxy*> interfaces;  // by interface name; not owned
};

// One interface of a remote object. The object half, SR_DBusProxy, is the last base of the class
// that is made of these.
class SR_EXPORT SR_DBusIProxy : public SR_DBusI, public virtual SR_DBusBaseProxy {
public:
    // Of two proxies of one object with the same name, the later one is in the table.
    explicit SR_DBusIProxy(const std::string& name);
    ~SR_DBusIProxy() override;

    // Sends the call and returns the reply. A call without an interface gets this one's, and path
    // and destination are filled in likewise: deliberate, into the caller's message, although it
    // is given as const (pinned by ProxyTest, "InvokeFillsInTheCallersMessage"). Its member must
    // be set. Blocks; throws SR_DBusException.
    SR_DBusMessage Invoke(const SR_DBusCallMessage& call);
};

}  // namespace sentrel

#endif
