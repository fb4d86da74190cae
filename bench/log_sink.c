// SPDX-License-Identifier: Apache-2.0
// Listens where syslog(3) sends (the path is the one argument) and drops what comes, so that the
// sender's costs are those of a machine with a log. Prints "ready"; ends with its standard input.
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "measure.h"

int main(int argc, char** argv) {
    struct sockaddr_un address = {AF_UNIX, ""};
    char line[4096];
    const int sink = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (argc != 2 || strlen(argv[1]) >= sizeof(address.sun_path)) {
        measure_fail("log_sink PATH");
    }
    strcpy(address.sun_path, argv[1]);
    if (sink < 0 || bind(sink, (const struct sockaddr*)&address, sizeof(address)) != 0) {
        measure_fail("the log's socket cannot be bound");
    }
    puts("ready");
    fflush(stdout);
    struct pollfd slots[] = {{sink, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    while (poll(slots, 2, -1) >= 0 && slots[1].revents == 0) {
        while (recv(sink, line, sizeof(line), MSG_DONTWAIT) >= 0) {
        }
    }
    unlink(argv[1]);
    return 0;
}
