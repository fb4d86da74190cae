// SPDX-License-Identifier: Apache-2.0
// Inside the library: a question to the bus that nobody waits for, and how to read a dictionary
// that it answers with.
#ifndef SENTREL_SR_DBUSQUESTIONIMPL_H
#define SENTREL_SR_DBUSQUESTIONIMPL_H

#include <dbus/dbus.h>

#include <memory>
#include <string>

#include "SR_DBusConnection.h"
#include "SR_DBusMessage.h"

namespace sentrel {

class SR_HIDDEN SR_DBusQuestion {
public:
    SR_DBusQuestion() : serial(0) {}
    virtual ~SR_DBusQuestion() {}
    SR_DBusQuestion(const SR_DBusQuestion&) = delete;
    SR_DBusQuestion& operator=(const SR_DBusQuestion&) = delete;

    // A call of a member of the bus's with one bus name as its argument.
    static SR_DBusCallMessage Call(const char* interfaceName, const char* member,
                                   const std::string& busName);

    // Sends it and returns at once. The loop hands the bus's reply to Answered() later, once, and
    // deletes the question; the connection does, when no reply comes. False, and the question is
    // deleted, when out of memory or not connected.
    static bool Ask(SR_DBusConnection& connection, const SR_DBusCallMessage& call,
                    std::unique_ptr<SR_DBusQuestion> question);

protected:
    // `reply` is a method return or an error. What it throws is dropped.
    virtual void Answered(DBusMessage* reply) = 0;

private:
    static DBusHandlerResult Filter(DBusConnection* connection, DBusMessage* message,
                                    void* data) noexcept;
    static void Forget(void* data);

    dbus_uint32_t serial;
};

// A walk over a reply's one argument, a dictionary of variants by name.
class SR_HIDDEN SR_DBusDictionary {
public:
    explicit SR_DBusDictionary(DBusMessage* reply);

    // Whether the reply holds a dictionary.
    bool IsThere() const { return there; }
    // The next entry: its name, and a position on its value. False behind the last.
    bool Next(const char*& key, DBusMessageIter& value);

    // Reads a value of one type; false when it is of another.
    template <typename T>
    static bool Read(DBusMessageIter& value, int type, T& result) {
        if (dbus_message_iter_get_arg_type(&value) != type) {
            return false;
        }
        dbus_message_iter_get_basic(&value, &result);
        return true;
    }

    // Reads an array of a fixed-size type in place; false when it is something else.
    template <typename T>
    static bool ReadArray(DBusMessageIter& value, int type, const T*& items, int& count) {
        if (dbus_message_iter_get_arg_type(&value) != DBUS_TYPE_ARRAY ||
            dbus_message_iter_get_element_type(&value) != type) {
            return false;
        }
        DBusMessageIter array;
        dbus_message_iter_recurse(&value, &array);
        dbus_message_iter_get_fixed_array(&array, &items, &count);
        return true;
    }

private:
    bool there;
    DBusMessageIter entries;
};

}  // namespace sentrel

#endif
