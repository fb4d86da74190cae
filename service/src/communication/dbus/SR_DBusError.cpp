// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusError.h"

#include <boost/make_shared.hpp>

namespace sentrel {

SR_DBusException::SR_DBusException(const char* name, const char* message)
    : error(boost::make_shared<SR_DBusError>()) {
    dbus_set_error_const(error->Get(), name, message);
}

SR_DBusException::SR_DBusException(const SR_DBusError& source)
    : error(boost::make_shared<SR_DBusError>()) {
    dbus_move_error(const_cast<SR_DBusError&>(source).Get(), error->Get());
}

SR_DBusException::~SR_DBusException() noexcept {}

const char* SR_DBusException::what() const noexcept {
    return error->Get()->message;
}

const char* SR_DBusException::name() const {
    return error->Get()->name;
}

}  // namespace sentrel
