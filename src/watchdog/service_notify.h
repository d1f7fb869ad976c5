#pragma once
// Tells the service manager how the supervisor is doing. Each call is one
// datagram to the socket named by NOTIFY_SOCKET, and nothing at all when the
// supervisor was not started with one.

// Start-up is over: the control server takes requests.
void service_notify_ready();
// Shutdown has begun: children are being stopped.
void service_notify_stopping();
// The supervision loop made a pass. Forwarded as a watchdog keep-alive at
// most every half of the interval the manager asked for (WATCHDOG_USEC), so
// that it may be called on every pass.
void service_notify_alive();
