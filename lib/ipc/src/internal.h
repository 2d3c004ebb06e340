// What the connection library's files share.
#pragma once

#include "ipc/ipcconn.h"

void ipcconn_log(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// The library's assertions are soft: the line is logged and the code goes on.
bool ipcconn_insist(bool ok, const char *expr, const char *file, const char *func, int line);
#define IPCCONN_INSIST(expr) ipcconn_insist(static_cast<bool>(expr), #expr, __FILE__, __func__, __LINE__)

extern "C" {
// Frees the record; the client must be dead.
void ipcconn_client_destroy(ipcconn_client *clnt);
// The read-ready work.
void ipcconn_client_dispatch(ipcconn_client *clnt);
}

// The event to the application, or, while it is inside a call of ours, the
// event's number (-201, -105, -106) returned instead.
int ipcconn_give_event(ipcconn_client *clnt, int event);
// Drops every queued message (external buffers go back to the application).
void ipcconn_client_queue_free(ipcconn_client *clnt);
