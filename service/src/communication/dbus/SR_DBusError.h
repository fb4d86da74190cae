// SPDX-License-Identifier: Apache-2.0
// A bus error: an owning wrapper of libdbus's error record, and the one exception of the bus layer.
//
// An exception and its copies share one SR_DBusError, freed with the last of them; what() and
// name() stay valid that long. Tell kinds of errors apart by name(), never by the text.
#ifndef SENTREL_SR_DBUSERROR_H
#define SENTREL_SR_DBUSERROR_H

#include <dbus/dbus.h>

#include <boost/shared_ptr.hpp>
#include <exception>

#include "SR_Export.h"

namespace sentrel {

class SR_EXPORT SR_DBusError {
public:
    // libdbus's error record.
    typedef DBusError Internal;

    SR_DBusError() { dbus_error_init(&error); }
    ~SR_DBusError() { dbus_error_free(&error); }
    SR_DBusError(const SR_DBusError&) = delete;
    SR_DBusError& operator=(const SR_DBusError&) = delete;

    // For any libdbus function that takes an error; owned by this object.
    Internal* Get() { return &error; }
    const Internal* Get() const { return &error; }
    bool IsSet() const { return dbus_error_is_set(&error) != 0; }

private:
    // Nothing beside it: the object is the record.
    Internal error;
};

class SR_EXPORT SR_DBusException : public std::exception {
public:
    // The texts are not copied: pass literals.
    SR_DBusException(const char* name, const char* message);
    // Takes the content over and leaves `source` empty, although it is given as const: deliberate,
    // so that no text is copied (pinned by DBusErrorTest,
    // "AnExceptionEmptiesTheErrorItIsMadeFrom").
    explicit SR_DBusException(const SR_DBusError& source);
    ~SR_DBusException() noexcept override;

    // The message for people.
    const char* what() const noexcept override;
    // The error's name, such as "org.freedesktop.DBus.Error.ServiceUnknown".
    const char* name() const;

private:
    boost::shared_ptr<SR_DBusError> error;
};

}  // namespace sentrel

#endif
