// SPDX-License-Identifier: Apache-2.0
#include "SR_DBusAdaptor.h"

#include "SR_DBusConnectionImpl.h"
#include "SR_DBusError.h"
#include "SR_DBusJoinedWatchesImpl.h"
#include "SR_DBusMessageImpl.h"
#include "SR_DBusPeerImpl.h"

namespace sentrel {

namespace {

const char kFailed[] = "org.freedesktop.DBus.Error.Failed";
const char kIntrospectable[] = "org.freedesktop.DBus.Introspectable";
const char kIntrospect[] = "Introspect";

const char kIntrospectionHead[] =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
    "<node>\n"
    "  <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
    "    <method name=\"Introspect\">\n"
    "      <arg name=\"data\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n"
    "  <interface name=\"org.freedesktop.DBus.Peer\">\n"
    "    <method name=\"Ping\"/>\n"
    "    <method name=\"GetMachineId\">\n"
    "      <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
    "    </method>\n"
    "  </interface>\n";

// libdbus ends the process over a name or a text that is not well-formed.
SR_DBusMessage ErrorReply(const SR_DBusCallMessage& call, const char* name, const char* text) {
    const bool goodName = name != nullptr && dbus_validate_error_name(name, nullptr) != 0;
    const bool goodText = text != nullptr && dbus_validate_utf8(text, nullptr) != 0;
    return SR_DBusErrorMessage(call, goodName ? name : kFailed,
                               goodText ? text : "the handler failed without a readable text");
}

}  // namespace

class SR_HIDDEN SR_DBusAdaptor::Impl {
public:
    // Runs in libdbus's frames: nothing may be thrown through it.
    static DBusHandlerResult MessageReceived(DBusConnection* /*connection*/, DBusMessage* message,
                                             void* data) noexcept {
        if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
            return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        }
        SR_DBusAdaptor& object = *static_cast<SR_DBusAdaptor*>(data);
        try {
            const SR_DBusCallMessage call(new SR_DBusMessage::Impl(message), true /* addRef */);
            const SR_DBusMessage reply = object.Answer(call);
            if (SR_DBusMessage::Impl::Of(reply) != message) {
                (void)object.Reply(call, reply);
            }
        } catch (...) {
            // Out of memory while making the reply. The call is not handed back for another try:
            // the handler has run. The caller's wait ends with its timeout.
        }
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    static SR_DBusMessage Answer(SR_DBusAdaptor& object, const SR_DBusCallMessage& call) {
        // A call that is kept for later would keep them open, until the process has no more.
        if (dbus_message_contains_unix_fds(SR_DBusMessage::Impl::Of(call)) != 0) {
            return SR_DBusErrorMessage(call, "org.freedesktop.DBus.Error.InvalidArgs",
                                       "descriptors are not accepted");
        }
        SR_DBusIAdaptor* adaptor = Find(object, call);
        if (adaptor != nullptr) {
            return adaptor->Dispatch(call);
        }
        const char* interfaceName = call.GetInterface();
        const std::string member(call.GetMember());
        if (SR_DBusPeer::IsFor(call)) {
            return SR_DBusPeer::Answer(call);
        }
        if (interfaceName != nullptr && std::string(interfaceName) != kIntrospectable) {
            return SR_DBusErrorMessage(call, "org.freedesktop.DBus.Error.UnknownInterface",
                                       interfaceName);
        }
        if (member != kIntrospect) {
            return SR_DBusErrorMessage(call, "org.freedesktop.DBus.Error.UnknownMethod", member);
        }
        SR_DBusReturnMessage reply(call);
        (void)reply.GetWriter().AppendString(Introspection(object));
        return reply;
    }

private:
    // By the call's interface; a call without one goes to the first in the table that has the
    // member.
    static SR_DBusIAdaptor* Find(const SR_DBusAdaptor& object, const SR_DBusCallMessage& call) {
        const char* interfaceName = call.GetInterface();
        if (interfaceName != nullptr) {
            // One by one: objects have a few, and the table would want a string for its key.
            for (const auto& entry : object.interfaces) {
                if (entry.first == interfaceName) {
                    return entry.second;
                }
            }
            return nullptr;
        }
        for (const auto& entry : object.interfaces) {
            if (entry.second->methods.count(call.GetMember()) != 0) {
                return entry.second;
            }
        }
        return nullptr;
    }

    static std::string Introspection(const SR_DBusAdaptor& object) {
        std::string text(kIntrospectionHead);
        for (const auto& entry : object.interfaces) {
            const char* part = entry.second->Introspect();
            if (part != nullptr) {
                text += part;
            }
        }
        text += "</node>\n";
        return text;
    }
};

SR_DBusReturnMessage::SR_DBusReturnMessage(const SR_DBusMessage& replyTo) {
    impl->handle = dbus_message_new_method_return(SR_DBusMessage::Impl::Of(replyTo));
}

SR_DBusAdaptor::SR_DBusAdaptor(SR_DBusConnection& connection, const std::string& path)
    : servedConnection(connection), servedPath(path) {
    DBusConnection* const handle = SR_DBusConnection::Impl::Of(servedConnection);
    DBusObjectPathVTable functions = {};
    functions.message_function = Impl::MessageReceived;
    SR_DBusError error;
    SR_DBusJoinedWatches::Install(handle, SR_DBusConnection::Impl::DispatcherOf(servedConnection));
    (void)dbus_connection_try_register_object_path(handle, servedPath.c_str(), &functions, this,
                                                   error.Get());
    if (error.IsSet()) {
        throw SR_DBusException(error);
    }
}

SR_DBusAdaptor::~SR_DBusAdaptor() {
    (void)dbus_connection_unregister_object_path(SR_DBusConnection::Impl::Of(servedConnection),
                                                 servedPath.c_str());
}

// A handler's exception becomes an error reply.
SR_DBusMessage SR_DBusAdaptor::Answer(const SR_DBusCallMessage& call) {
    try {
        return Impl::Answer(*this, call);
    } catch (const SR_DBusException& exception) {
        return ErrorReply(call, exception.name(), exception.what());
    } catch (const std::exception& exception) {
        return ErrorReply(call, kFailed, exception.what());
    } catch (...) {
        return ErrorReply(call, kFailed, nullptr);
    }
}

bool SR_DBusAdaptor::Reply(const SR_DBusMessage& call, const SR_DBusMessage& reply) {
    return !WantsReply(call) || servedConnection.Send(reply, nullptr);
}

bool SR_DBusAdaptor::WantsReply(const SR_DBusMessage& call) {
    return dbus_message_get_no_reply(SR_DBusMessage::Impl::Of(call)) == 0;
}

bool SR_DBusAdaptor::Connected() const {
    return dbus_connection_get_is_connected(SR_DBusConnection::Impl::Of(servedConnection)) != 0;
}

}  // namespace sentrel
