#pragma once
// The control port's own accept loop. A connection costs a thread only once its
// first request bytes have arrived: until then it waits in one poll with every
// other new connection, and the oldest of those is dropped when too many wait.
// So idle or half-open sockets cannot take the places real clients need.
#include <vector>

#include "netmask.h"

// Connections whose request is being read or answered, one thread each.
constexpr int CTL_CONN_ACTIVE_MAX = 256;
// Accepted connections that have not sent a byte yet.
constexpr int CTL_CONN_WAITING_MAX = 256;
// How long a new connection may stay silent before it is closed.
constexpr int CTL_FIRST_BYTE_MS = 5000;
// How long a request may take to arrive whole once its first bytes are in.
constexpr int CTL_READ_TIMEOUT_S = 5;
// How long an answer may wait for a client that does not read it.
constexpr int CTL_SEND_TIMEOUT_S = 10;
constexpr int CTL_LISTEN_BACKLOG = 128;

// Serves one connected socket on the calling thread; the listener closes it.
using ctl_conn_handler = void (*)(int fd, void* arg);

struct ctl_listener;

// Listens on `addr` (IPv4 or IPv6 text; empty for every IPv4 interface) and
// `port`, taking connections only from `allow` (everyone when empty).
// 0, or a negated errno value (-EINVAL for an address that does not parse).
int ctl_listener_open(ctl_listener** out, const char* addr, int port, const std::vector<netmask>& allow,
                      ctl_conn_handler handler, void* arg);
// Accepts and dispatches until ctl_listener_stop; then closes the listening
// socket (new clients are refused), drops connections that sent nothing and
// ends the reading side of those being served.
void ctl_listener_run(ctl_listener* listener);
// Called on a connection's thread once its request has been read whole: from
// then on it is not cut off for taking longer than CTL_READ_TIMEOUT_S.
void ctl_listener_request_read();
// Any thread: makes ctl_listener_run return promptly.
void ctl_listener_stop(ctl_listener* listener);
// Waits for the connections still being served (cutting them off after a
// second) and frees everything.
void ctl_listener_close(ctl_listener* listener);
