// SPDX-License-Identifier: Apache-2.0
#include "FakeBus.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace test {

FakeBus bus;
int fakeDepth = 0;

void FakeBus::Reset() {
    failing.clear();
    failAt = 1;
    errorName = "org.x.Error.Injected";
    errorText = "injected";
    onCall = nullptr;
    reply = "0 0";
    makeReply = nullptr;
    requestNameAnswer = DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
    requestNameError = false;
    onNewError = nullptr;
    hasOwner = false;
    uniqueName = ":1.7";
    calls.clear();
    connections.clear();
    messages.clear();
    nulls.clear();
    sent.clear();
    lastTimeout = 0;
}

bool FakeBus::Balanced() const {
    bool balanced = messages.empty();
    for (const FakeConnection& connection : connections) {
        balanced = balanced && connection.references == 0 && connection.paths.empty() &&
                   connection.filters.empty();
    }
    return balanced;
}

}  // namespace test

namespace {

using test::bus;
using test::FakeConnection;
using test::fakeDepth;
using test::FakeFilter;
using test::FakeTimeout;
using test::FakeWatch;

struct Inside {
    Inside() { ++fakeDepth; }
    ~Inside() { --fakeDepth; }
};

// Around a call back into the library.
struct Outside {
    Outside() : depth(fakeDepth) { fakeDepth = 0; }
    ~Outside() { fakeDepth = depth; }
    int depth;
};

FakeConnection& Of(DBusConnection* connection) {
    FakeConnection& fake = *reinterpret_cast<FakeConnection*>(connection);
    if (fake.references <= 0) {
        std::fputs("a connection is used after its last reference was given back\n", stderr);
        std::abort();
    }
    return fake;
}

FakeWatch& Of(DBusWatch* watch) {
    return *reinterpret_cast<FakeWatch*>(watch);
}

FakeTimeout& Of(DBusTimeout* timeout) {
    return *reinterpret_cast<FakeTimeout*>(timeout);
}

// Notes the call; true when it is the one that fails.
bool Enter(const std::string& function, const std::string& argument = std::string()) {
    bus.calls.push_back(argument.empty() ? function : function + " " + argument);
    if (bus.onCall) {
        bus.onCall(function);
    }
    return function == bus.failing && --bus.failAt == 0;
}

bool Fails(const std::string& function, const std::string& argument, DBusError* error) {
    if (!Enter(function, argument)) {
        return false;
    }
    dbus_set_error(error, bus.errorName.c_str(), "%s", bus.errorText.c_str());
    return true;
}

// For the functions of messages, which are too many to note: only the failure is.
bool MessageCallFails(const char* function) {
    if (bus.failing != function || --bus.failAt != 0) {
        return false;
    }
    bus.calls.push_back(function);
    return true;
}

bool IsNull(const DBusMessage* message, const char* function) {
    if (message == nullptr) {
        bus.nulls.push_back(function);
    }
    return message == nullptr;
}

DBusMessage* Counted(DBusMessage* message) {
    if (message != nullptr) {
        ++bus.messages[message];
    }
    return message;
}

DBusMessage* MakeReply() {
    if (bus.makeReply) {
        return bus.makeReply();
    }
    DBusMessage* reply = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    const char* text = bus.reply.c_str();
    (void)dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return reply;
}

std::string Describe(DBusMessage* message) {
    const char* name = dbus_message_get_error_name(message);
    const char* text = "";
    (void)dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return std::to_string(dbus_message_get_type(message)) + " " +
           (name != nullptr ? std::string(name) + " " : std::string()) + text;
}

void FreeWatchData(FakeConnection& connection) {
    if (connection.freeWatchData != nullptr) {
        const Outside outside;
        connection.freeWatchData(connection.watchData);
        connection.freeWatchData = nullptr;
    }
}

// What closing does in libdbus: the watches and timeouts go, through the functions it was given.
void Disconnect(FakeConnection& connection) {
    connection.connected = false;
    for (FakeWatch& watch : connection.watches) {
        if (connection.removeWatch != nullptr) {
            const Outside outside;
            connection.removeWatch(watch.Get(), connection.watchData);
        }
    }
    for (FakeTimeout& timeout : connection.timeouts) {
        if (connection.removeTimeout != nullptr) {
            const Outside outside;
            connection.removeTimeout(timeout.Get(), connection.timeoutData);
        }
    }
    connection.watches.clear();
    connection.timeouts.clear();
}

void Drop(std::list<FakeFilter>& filters, std::list<FakeFilter>::iterator entry) {
    const FakeFilter filter = *entry;
    filters.erase(entry);
    if (filter.freeData != nullptr) {
        const Outside outside;
        filter.freeData(filter.data);
    }
}

}  // namespace

// libdbus's own function of that name. Its calls of its own functions come by here, too: they are
// passed on unseen.
#define REAL(function) reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))
#define PASS_ON_OWN_CALLS(function, ...)    \
    if (fakeDepth > 0) {                    \
        return REAL(function)(__VA_ARGS__); \
    }                                       \
    const Inside inside

extern "C" {

// ---- the bus

DBusConnection* dbus_bus_get_private(DBusBusType type, DBusError* error) {
    const Inside inside;
    if (Fails("dbus_bus_get_private", std::to_string(type), error)) {
        return nullptr;
    }
    bus.connections.emplace_back();
    FakeConnection& connection = bus.connections.back();
    for (const unsigned flags : {DBUS_WATCH_READABLE, DBUS_WATCH_WRITABLE}) {
        connection.watches.emplace_back();
        connection.watches.back().fd = 1000;
        connection.watches.back().flags = flags;
    }
    connection.watches.back().enabled = false;
    connection.timeouts.emplace_back();
    connection.timeouts.back().interval = 25000;
    connection.timeouts.back().enabled = false;
    return connection.Get();
}

const char* dbus_bus_get_unique_name(DBusConnection* connection) {
    (void)Of(connection);
    return bus.uniqueName;
}

void dbus_bus_add_match(DBusConnection* connection, const char* rule, DBusError* error) {
    const Inside inside;
    (void)Of(connection);
    (void)Fails("dbus_bus_add_match", rule, error);
}

void dbus_bus_remove_match(DBusConnection* connection, const char* rule, DBusError* error) {
    const Inside inside;
    (void)Of(connection);
    (void)Fails("dbus_bus_remove_match", rule, error);
}

int dbus_bus_request_name(DBusConnection* connection, const char* name, unsigned flags,
                          DBusError* error) {
    const Inside inside;
    (void)Of(connection);
    if (Fails("dbus_bus_request_name", name + std::string(" ") + std::to_string(flags), error)) {
        return -1;
    }
    if (bus.requestNameError) {
        dbus_set_error(error, bus.errorName.c_str(), "%s", bus.errorText.c_str());
    }
    return bus.requestNameAnswer;
}

int dbus_bus_release_name(DBusConnection* connection, const char* name, DBusError* error) {
    const Inside inside;
    (void)Of(connection);
    if (Fails("dbus_bus_release_name", name, error)) {
        return -1;
    }
    return DBUS_RELEASE_NAME_REPLY_RELEASED;
}

dbus_bool_t dbus_bus_name_has_owner(DBusConnection* connection, const char* name,
                                    DBusError* error) {
    const Inside inside;
    (void)Of(connection);
    if (Fails("dbus_bus_name_has_owner", name, error)) {
        return FALSE;
    }
    return bus.hasOwner;
}

// ---- connections

DBusConnection* dbus_connection_ref(DBusConnection* connection) {
    ++Of(connection).references;
    return connection;
}

void dbus_connection_unref(DBusConnection* connection) {
    FakeConnection& fake = Of(connection);
    if (--fake.references == 0) {
        while (!fake.filters.empty()) {
            Drop(fake.filters, fake.filters.begin());
        }
        FreeWatchData(fake);
    }
}

dbus_bool_t dbus_connection_get_is_connected(DBusConnection* connection) {
    return Of(connection).connected;
}

void dbus_connection_close(DBusConnection* connection) {
    const Inside inside;
    (void)Enter("dbus_connection_close");
    Disconnect(Of(connection));
}

void dbus_connection_set_exit_on_disconnect(DBusConnection* connection, dbus_bool_t on) {
    Of(connection).exitOnDisconnect = on != 0;
}

void dbus_connection_set_dispatch_status_function(DBusConnection* connection,
                                                  DBusDispatchStatusFunction function, void* data,
                                                  DBusFreeFunction /*freeData*/) {
    Of(connection).statusFunction = function;
    Of(connection).statusData = data;
}

// As libdbus does it: the new functions get every watch before the old ones lose it.
dbus_bool_t dbus_connection_set_watch_functions(DBusConnection* connection,
                                                DBusAddWatchFunction add,
                                                DBusRemoveWatchFunction remove,
                                                DBusWatchToggledFunction toggled, void* data,
                                                DBusFreeFunction freeData) {
    const Inside inside;
    FakeConnection& fake = Of(connection);
    if (Enter("dbus_connection_set_watch_functions")) {
        return FALSE;
    }
    for (FakeWatch& watch : fake.watches) {
        const Outside outside;
        if (add != nullptr && !add(watch.Get(), data)) {
            for (FakeWatch& added : fake.watches) {
                if (&added == &watch) {
                    return FALSE;
                }
                remove(added.Get(), data);
            }
        }
    }
    for (FakeWatch& watch : fake.watches) {
        const Outside outside;
        if (fake.removeWatch != nullptr) {
            fake.removeWatch(watch.Get(), fake.watchData);
        }
    }
    FreeWatchData(fake);
    fake.removeWatch = remove;
    fake.toggleWatch = toggled;
    fake.watchData = data;
    fake.freeWatchData = freeData;
    return TRUE;
}

dbus_bool_t dbus_connection_set_timeout_functions(DBusConnection* connection,
                                                  DBusAddTimeoutFunction add,
                                                  DBusRemoveTimeoutFunction remove,
                                                  DBusTimeoutToggledFunction toggled, void* data,
                                                  DBusFreeFunction /*freeData*/) {
    const Inside inside;
    FakeConnection& fake = Of(connection);
    if (Enter("dbus_connection_set_timeout_functions")) {
        return FALSE;
    }
    for (FakeTimeout& timeout : fake.timeouts) {
        const Outside outside;
        (void)add(timeout.Get(), data);
    }
    fake.removeTimeout = remove;
    fake.toggleTimeout = toggled;
    fake.timeoutData = data;
    return TRUE;
}

DBusDispatchStatus dbus_connection_dispatch(DBusConnection* connection) {
    FakeConnection& fake = Of(connection);
    ++fake.dispatched;
    return fake.dispatch ? fake.dispatch() : DBUS_DISPATCH_COMPLETE;
}

dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message,
                                 dbus_uint32_t* serial) {
    const Inside inside;
    (void)Of(connection);
    if (IsNull(message, "dbus_connection_send") || Enter("dbus_connection_send")) {
        return FALSE;
    }
    bus.sent.push_back(Describe(message));
    if (serial != nullptr) {
        *serial = 4711;
    }
    return TRUE;
}

DBusMessage* dbus_connection_send_with_reply_and_block(DBusConnection* connection,
                                                       DBusMessage* message, int timeout,
                                                       DBusError* error) {
    const Inside inside;
    (void)Of(connection);
    bus.lastTimeout = timeout;
    if (Fails("dbus_connection_send_with_reply_and_block", std::string(), error)) {
        return nullptr;
    }
    if (IsNull(message, "dbus_connection_send_with_reply_and_block")) {
        // libdbus refuses such a call without an error; here it is one, so that the call ends.
        dbus_set_error(error, "org.x.Error.NullMessage", "%s", "a null message");
        return nullptr;
    }
    return Counted(MakeReply());
}

dbus_bool_t dbus_connection_try_register_object_path(DBusConnection* connection, const char* path,
                                                     const DBusObjectPathVTable* functions,
                                                     void* data, DBusError* error) {
    const Inside inside;
    FakeConnection& fake = Of(connection);
    if (Fails("dbus_connection_try_register_object_path", path, error)) {
        return FALSE;
    }
    fake.paths[path] = std::make_pair(*functions, data);
    return TRUE;
}

dbus_bool_t dbus_connection_unregister_object_path(DBusConnection* connection, const char* path) {
    const Inside inside;
    (void)Enter("dbus_connection_unregister_object_path", path);
    return Of(connection).paths.erase(path) != 0;
}

dbus_bool_t dbus_connection_add_filter(DBusConnection* connection,
                                       DBusHandleMessageFunction function, void* data,
                                       DBusFreeFunction freeData) {
    const Inside inside;
    FakeConnection& fake = Of(connection);
    if (Enter("dbus_connection_add_filter")) {
        return FALSE;
    }
    fake.filters.push_back(FakeFilter{function, data, freeData});
    return TRUE;
}

void dbus_connection_remove_filter(DBusConnection* connection, DBusHandleMessageFunction function,
                                   void* data) {
    const Inside inside;
    std::list<FakeFilter>& filters = Of(connection).filters;
    (void)Enter("dbus_connection_remove_filter");
    for (auto entry = filters.begin(); entry != filters.end(); ++entry) {
        if (entry->function == function && entry->data == data) {
            Drop(filters, entry);
            return;
        }
    }
    std::fputs("a filter is removed that was never added\n", stderr);
    std::abort();
}

// ---- watches and timeouts

void dbus_watch_set_data(DBusWatch* watch, void* data, DBusFreeFunction /*freeData*/) {
    Of(watch).data = data;
}

void* dbus_watch_get_data(DBusWatch* watch) {
    return Of(watch).data;
}

int dbus_watch_get_unix_fd(DBusWatch* watch) {
    return Of(watch).fd;
}

unsigned dbus_watch_get_flags(DBusWatch* watch) {
    return Of(watch).flags;
}

dbus_bool_t dbus_watch_get_enabled(DBusWatch* watch) {
    return Of(watch).enabled;
}

dbus_bool_t dbus_watch_handle(DBusWatch* watch, unsigned conditions) {
    FakeWatch& fake = Of(watch);
    fake.handled.push_back(conditions);
    const bool answer = fake.answer;
    const std::function<void()> handler = fake.onHandle;  // it may replace itself
    if (handler) {
        handler();
    }
    return answer;
}

void dbus_timeout_set_data(DBusTimeout* timeout, void* data, DBusFreeFunction /*freeData*/) {
    Of(timeout).data = data;
}

void* dbus_timeout_get_data(DBusTimeout* timeout) {
    return Of(timeout).data;
}

int dbus_timeout_get_interval(DBusTimeout* timeout) {
    return Of(timeout).interval;
}

dbus_bool_t dbus_timeout_get_enabled(DBusTimeout* timeout) {
    return Of(timeout).enabled;
}

dbus_bool_t dbus_timeout_handle(DBusTimeout* timeout) {
    FakeTimeout& fake = Of(timeout);
    ++fake.handled;
    const bool answer = fake.answer;
    const std::function<void()> handler = fake.onHandle;  // it may replace itself
    if (handler) {
        handler();
    }
    return answer;
}

// ---- messages

DBusMessage* dbus_message_new(int type) {
    PASS_ON_OWN_CALLS(dbus_message_new, type);
    return MessageCallFails("dbus_message_new") ? nullptr : Counted(REAL(dbus_message_new)(type));
}

DBusMessage* dbus_message_new_error(DBusMessage* replyTo, const char* name, const char* text) {
    PASS_ON_OWN_CALLS(dbus_message_new_error, replyTo, name, text);
    if (IsNull(replyTo, "dbus_message_new_error") || MessageCallFails("dbus_message_new_error")) {
        return nullptr;
    }
    if (bus.onNewError) {
        bus.onNewError();
    }
    return Counted(REAL(dbus_message_new_error)(replyTo, name, text));
}

DBusMessage* dbus_message_new_method_return(DBusMessage* call) {
    PASS_ON_OWN_CALLS(dbus_message_new_method_return, call);
    if (IsNull(call, "dbus_message_new_method_return") ||
        MessageCallFails("dbus_message_new_method_return")) {
        return nullptr;
    }
    return Counted(REAL(dbus_message_new_method_return)(call));
}

DBusMessage* dbus_message_ref(DBusMessage* message) {
    PASS_ON_OWN_CALLS(dbus_message_ref, message);
    if (IsNull(message, "dbus_message_ref")) {
        return nullptr;
    }
    return Counted(REAL(dbus_message_ref)(message));
}

void dbus_message_unref(DBusMessage* message) {
    PASS_ON_OWN_CALLS(dbus_message_unref, message);
    if (IsNull(message, "dbus_message_unref")) {
        return;
    }
    if (bus.messages.count(message) == 0) {
        std::fputs("a message reference is given back that the library does not hold\n", stderr);
        std::abort();
    }
    if (--bus.messages[message] == 0) {
        bus.messages.erase(message);
    }
    REAL(dbus_message_unref)(message);
}

#define FAKE_SETTER(function)                                            \
    dbus_bool_t function(DBusMessage* message, const char* text) {       \
        PASS_ON_OWN_CALLS(function, message, text);                      \
        return IsNull(message, #function) || MessageCallFails(#function) \
                   ? FALSE                                               \
                   : REAL(function)(message, text);                      \
    }
#define FAKE_GETTER(function)                                                  \
    const char* function(DBusMessage* message) {                               \
        PASS_ON_OWN_CALLS(function, message);                                  \
        return IsNull(message, #function) ? nullptr : REAL(function)(message); \
    }

FAKE_SETTER(dbus_message_set_path)
FAKE_SETTER(dbus_message_set_member)
FAKE_SETTER(dbus_message_set_interface)
FAKE_SETTER(dbus_message_set_destination)
FAKE_GETTER(dbus_message_get_path)
FAKE_GETTER(dbus_message_get_member)
FAKE_GETTER(dbus_message_get_interface)
FAKE_GETTER(dbus_message_get_destination)

void dbus_message_iter_init_append(DBusMessage* message, DBusMessageIter* iterator) {
    PASS_ON_OWN_CALLS(dbus_message_iter_init_append, message, iterator);
    if (!IsNull(message, "dbus_message_iter_init_append")) {
        REAL(dbus_message_iter_init_append)(message, iterator);
    }
}

dbus_bool_t dbus_message_iter_append_basic(DBusMessageIter* iterator, int type, const void* value) {
    PASS_ON_OWN_CALLS(dbus_message_iter_append_basic, iterator, type, value);
    // An iterator on a null message has been given to nobody.
    if (iterator->dummy1 == nullptr || MessageCallFails("dbus_message_iter_append_basic")) {
        return FALSE;
    }
    return REAL(dbus_message_iter_append_basic)(iterator, type, value);
}

}  // extern "C"
