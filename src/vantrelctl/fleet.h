#pragma once
// Asks several supervisors at once: a few worker threads, each with a
// private client of the library bounded by the request time-out, and a
// bounded connection attempt before each host.
#include <functional>
#include <string>

#include "context.h"

// Calls work(index, url) for every URL of ctx.urls, on at most
// `fleet_threads` threads. `work` is called with the connection attempt's
// error ("" when the host accepted a connection).
void for_each_host(const ctl_context& ctx,
                   const std::function<void(std::size_t index, const std::string& url,
                                            const std::string& unreachable)>& work);
