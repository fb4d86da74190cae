/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The agent of the tests, on plain libdbus. Options, each with a value:
 *
 *   --address A     the bus (needed)
 *   --ready FD      "ready" is written there when the name is owned
 *   --name N        the name to own, org.sentrel.sr_agent by default
 *   --reply KIND    string (default): --text; none: no argument; int: --text as a number; two:
 *                   --text and a second string; error: --error with --text; huge: --text, a blank
 *                   and a megabyte of 'x'; never: no answer; exit: the process ends; close: the
 *                   connection ends; echo: "0 N" with the first number in the argument text
 *   --text T        "0 0" by default
 *   --error NAME    the error's name
 *   --hold N        answers nothing until N calls have come, then all of them
 *   --delay MS      answers that much later
 *
 * For each method call one line goes to the standard output: "call" and its header fields, then
 * after " | " each argument.
 */
#include <dbus/dbus.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

enum { MEGABYTE = 1024 * 1024, MOST_HELD = 1024 };

static const char* address;
static const char* name = "org.sentrel.sr_agent";
static const char* kind = "string";
static const char* text = "0 0";
static const char* error_name = "org.sentrel.Error.Test";
static int ready = -1;
static int hold = 1;
static int delay;

static DBusMessage* held[MOST_HELD];
static int held_count;

static void fail(const char* what) {
    fprintf(stderr, "scripted agent: %s\n", what);
    exit(1);
}

static void read_options(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const char* option = argv[i];
        const char* value = argv[i + 1];
        if (strcmp(option, "--address") == 0) {
            address = value;
        } else if (strcmp(option, "--ready") == 0) {
            ready = atoi(value);
        } else if (strcmp(option, "--name") == 0) {
            name = value;
        } else if (strcmp(option, "--reply") == 0) {
            kind = value;
        } else if (strcmp(option, "--text") == 0) {
            text = value;
        } else if (strcmp(option, "--error") == 0) {
            error_name = value;
        } else if (strcmp(option, "--hold") == 0) {
            hold = atoi(value);
        } else if (strcmp(option, "--delay") == 0) {
            delay = atoi(value);
        } else {
            fail(option);
        }
    }
    if (address == NULL || argc % 2 == 0 || hold > MOST_HELD) {
        fail("wrong options");
    }
}

static DBusConnection* connect_and_own(void) {
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* connection = dbus_connection_open_private(address, &error);
    if (connection == NULL || !dbus_bus_register(connection, &error)) {
        fail(error.message);
    }
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    if (dbus_bus_request_name(connection, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        fail("the name is taken");
    }
    return connection;
}

static void print_field(const char* field, const char* value) {
    printf(" %s=%s", field, value != NULL ? value : "(null)");
}

/* A long text is told in short, so that the line fits into a pipe that nobody reads yet. */
static void print_text(const char* value) {
    const size_t length = strlen(value);
    const char first[2] = {value[0], '\0'};
    if (length <= 1024) {
        printf(" | %s", value);
    } else if (strspn(value, first) == length) {
        printf(" | %lu times %s", (unsigned long)length, first);
    } else {
        printf(" | %lu bytes", (unsigned long)length);
    }
}

static void report(DBusMessage* call) {
    DBusMessageIter argument;
    printf("call");
    print_field("sender", dbus_message_get_sender(call));
    print_field("destination", dbus_message_get_destination(call));
    print_field("path", dbus_message_get_path(call));
    print_field("interface", dbus_message_get_interface(call));
    print_field("member", dbus_message_get_member(call));
    print_field("signature", dbus_message_get_signature(call));
    printf(" reply=%d start=%d descriptors=%d", dbus_message_get_no_reply(call) ? 0 : 1,
           dbus_message_get_auto_start(call) ? 1 : 0, dbus_message_contains_unix_fds(call) ? 1 : 0);
    if (dbus_message_iter_init(call, &argument)) {
        do {
            if (dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_STRING) {
                const char* value = NULL;
                dbus_message_iter_get_basic(&argument, &value);
                print_text(value);
            } else if (dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_INT32) {
                dbus_int32_t value = 0;
                dbus_message_iter_get_basic(&argument, &value);
                printf(" | %d", value);
            } else {
                printf(" | ?");
            }
        } while (dbus_message_iter_next(&argument));
    }
    printf("\n");
    fflush(stdout);
}

static void append(DBusMessage* reply, const char* value) {
    if (!dbus_message_append_args(reply, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID)) {
        fail("out of memory");
    }
}

/* The answer derived from the call's second argument. */
static void append_echo(DBusMessage* call, DBusMessage* reply) {
    const char* agent = NULL;
    const char* arguments = "";
    char answer[64];
    if (!dbus_message_get_args(call, NULL, DBUS_TYPE_STRING, &agent, DBUS_TYPE_STRING, &arguments,
                               DBUS_TYPE_INVALID)) {
        fail("the call has other arguments");
    }
    arguments += strcspn(arguments, "0123456789");
    snprintf(answer, sizeof(answer), "0 %ld", strtol(arguments, NULL, 10));
    append(reply, answer);
}

static void append_huge(DBusMessage* reply) {
    const size_t length = strlen(text);
    char* value = malloc(length + MEGABYTE + 2);
    if (value == NULL) {
        fail("out of memory");
    }
    memcpy(value, text, length);
    value[length] = ' ';
    memset(value + length + 1, 'x', MEGABYTE);
    value[length + 1 + MEGABYTE] = '\0';
    append(reply, value);
    free(value);
}

static void answer(DBusConnection* connection, DBusMessage* call) {
    DBusMessage* reply = strcmp(kind, "error") == 0 ? dbus_message_new_error(call, error_name, text)
                                                    : dbus_message_new_method_return(call);
    if (reply == NULL) {
        fail("out of memory");
    }
    if (strcmp(kind, "string") == 0) {
        append(reply, text);
    } else if (strcmp(kind, "two") == 0) {
        append(reply, text);
        append(reply, "a second argument");
    } else if (strcmp(kind, "int") == 0) {
        const dbus_int32_t number = atoi(text);
        dbus_message_append_args(reply, DBUS_TYPE_INT32, &number, DBUS_TYPE_INVALID);
    } else if (strcmp(kind, "huge") == 0) {
        append_huge(reply);
    } else if (strcmp(kind, "echo") == 0) {
        append_echo(call, reply);
    } else if (strcmp(kind, "none") != 0 && strcmp(kind, "error") != 0) {
        fail("unknown kind of reply");
    }
    if (delay > 0) {
        poll(NULL, 0, delay);
    }
    if (!dbus_message_get_no_reply(call)) {
        dbus_connection_send(connection, reply, NULL);
    }
    dbus_message_unref(reply);
}

static void receive(DBusConnection* connection, DBusMessage* call) {
    report(call);
    if (strcmp(kind, "exit") == 0) {
        _exit(0);
    }
    if (strcmp(kind, "close") == 0) {
        dbus_connection_close(connection);
        return;
    }
    if (strcmp(kind, "never") == 0) {
        return;
    }
    held[held_count++] = dbus_message_ref(call);
    if (held_count < hold) {
        return;
    }
    for (int i = 0; i < held_count; ++i) {
        answer(connection, held[i]);
        dbus_message_unref(held[i]);
    }
    held_count = 0;
    hold = 1;
}

/* Whether the process is to stay although its connection has ended. */
static int lingers(void) {
    return strcmp(kind, "close") == 0;
}

int main(int argc, char** argv) {
    DBusConnection* connection;
    read_options(argc, argv);
    connection = connect_and_own();
    if (ready >= 0 && write(ready, "ready\n", 6) != 6) {
        fail("nobody waits for it");
    }
    /* The first call may have been read together with the answer about the name. */
    do {
        DBusMessage* message;
        while ((message = dbus_connection_pop_message(connection)) != NULL) {
            if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                receive(connection, message);
            }
            dbus_message_unref(message);
        }
    } while (dbus_connection_read_write(connection, -1));
    if (lingers()) {
        pause();
    }
    dbus_connection_unref(connection);
    return 0;
}
