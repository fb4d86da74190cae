// SPDX-License-Identifier: Apache-2.0
// GLib: one g_main_context_iteration.
#include <glib-unix.h>

#include "loop.h"

const char loop_peer[] = "GLib";
const int loop_step_is_exact = 1;

static gboolean serve(gint descriptor, GIOCondition condition, gpointer data) {
    (void)condition;
    (void)data;
    loop_served(descriptor);
    return G_SOURCE_CONTINUE;
}

void loop_open(int count, const int* descriptors) {
    for (int i = 0; i < count; ++i) {
        g_unix_fd_add(descriptors[i], G_IO_IN, serve, NULL);
    }
}

void loop_step(void) {
    g_main_context_iteration(NULL, TRUE);
}
