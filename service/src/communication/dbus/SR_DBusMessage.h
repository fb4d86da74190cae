// SPDX-License-Identifier: Apache-2.0
// D-Bus messages and their arguments; of argument types, strings and 32-bit integers.
//
// Ownership: one live object, one reference on the libdbus message. Copies share the message.
// Texts returned belong to the message and live as long as it does.
// Threads: copies may be destroyed on different threads; a message or an iterator is used by one
// thread at a time.
// Texts given to a message must be valid UTF-8 and names must be well-formed: libdbus checks them
// and by default ends the process. A text ends at its first NUL.
#ifndef SENTREL_SR_DBUSMESSAGE_H
#define SENTREL_SR_DBUSMESSAGE_H

#include <dbus/dbus.h>

#include <boost/shared_ptr.hpp>
#include <string>

#include "SR_Export.h"

namespace sentrel {

class SR_DBusMessageIter;

class SR_EXPORT SR_DBusMessage {
public:
    class SR_HIDDEN Impl;

    // Takes ownership of `impl`. With `addRef` a reference of its own is taken on the message in
    // it; without, the reference that the caller holds is adopted.
    SR_DBusMessage(Impl* impl, bool addRef);

    // One live object, one reference.
    SR_DBusMessage(const SR_DBusMessage& other);
    SR_DBusMessage& operator=(const SR_DBusMessage&) = delete;
    ~SR_DBusMessage();

    // An iterator on the first argument. The message must outlive it.
    SR_DBusMessageIter GetReader() const;
    // An iterator that appends. The message must outlive it.
    SR_DBusMessageIter GetWriter();

    // Whether it is this signal of this interface.
    bool IsSignal(const std::string& interfaceName, const std::string& member) const;
    // False when out of memory, as for every setter here.
    bool SetDestination(const std::string& destination);
    // Null when the field is not set, as for every getter of a header field.
    const char* GetDestination() const;
    const char* GetSender() const;
    // libdbus's message type: 1 method call, 2 method return, 3 error, 4 signal.
    int GetType() const;

protected:
    // No libdbus message yet: the derived constructor stores one.
    SR_DBusMessage();

    // Shared by copies.
    boost::shared_ptr<Impl> impl;
};

// A method call.
class SR_EXPORT SR_DBusCallMessage : public SR_DBusMessage {
public:
    // No header field is set.
    SR_DBusCallMessage();
    // As the base's; the message in `impl` must be a method call.
    SR_DBusCallMessage(Impl* impl, bool addRef);

    // False when out of memory.
    bool SetPath(const std::string& path);
    bool SetMember(const std::string& member);
    bool SetInterface(const std::string& interfaceName);
    // Null when the field is not set.
    const char* GetPath() const;
    const char* GetMember() const;
    const char* GetInterface() const;
};

// An error reply to a received call, addressed to its sender.
class SR_EXPORT SR_DBusErrorMessage : public SR_DBusMessage {
public:
    // `name` is the error's, `message` a sentence for people.
    SR_DBusErrorMessage(const SR_DBusMessage& replyTo, const std::string& name,
                        const std::string& message);
};

// A position among a message's arguments. Copies are independent positions in the same message.
class SR_EXPORT SR_DBusMessageIter {
public:
    // libdbus's iterator.
    typedef DBusMessageIter Internal;

    // Not ready for use: get one from GetReader() or GetWriter().
    explicit SR_DBusMessageIter(SR_DBusMessage& message);

    // Moves on to the next argument; stays behind the last one.
    SR_DBusMessageIter& operator++();

    // Appends in the order of the calls; false when out of memory.
    bool AppendString(const std::string& value);
    bool AppendInt32(int value);

    // libdbus's type code: 's', 'i' ...; 0 behind the last argument.
    int GetArgType();
    // The argument here; does not move on. Throws SR_DBusException with the name
    // "org.freedesktop.DBus.Error.InvalidArgs" when it is of another type or missing.
    const char* GetString();
    int GetInt32();

private:
    friend class SR_DBusMessage;

    // First: the object itself is what libdbus walks with.
    Internal iterator;
    [[maybe_unused]] SR_DBusMessage& message;
};

}  // namespace sentrel

#endif
