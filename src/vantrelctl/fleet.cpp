#include "fleet.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "client/vantrel_thread_client.h"
#include "output.h"
#include "probe.h"
#include "targets.h"

namespace {
constexpr std::size_t fleet_threads = 16;
}

void for_each_host(const ctl_context& ctx,
                   const std::function<void(std::size_t, const std::string&, const std::string&)>& work)
{
    std::atomic<std::size_t> next{0};
    auto worker = [&]() {
        vantrel_client* client = vantrel_client_new(ctx.timeout_ms());
        vantrel_client_use(client);
        for (std::size_t i = next++; i < ctx.urls.size(); i = next++) {
            const std::string& url = ctx.urls[i];
            std::string unreachable = client ? probe_connect(url_authority(url), ctx.connect_ms())
                                             : "cannot set up an XML-RPC client";
            work(i, url, unreachable);
        }
        vantrel_client_use(nullptr);
        vantrel_client_free(client);
    };
    std::size_t count = std::min(fleet_threads, ctx.urls.size());
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < count; ++t) threads.emplace_back(worker);
    for (std::thread& thread : threads) thread.join();
}

std::string single_target(ctl_context& ctx)
{
    if (ctx.urls.size() != 1) {
        print_error("this command addresses one supervisor; give a single --url");
        ctx.fail(exit_usage);
        return "";
    }
    std::string unreachable = probe_connect(url_authority(ctx.urls[0]), ctx.connect_ms());
    if (!unreachable.empty()) {
        print_error(ctx.urls[0] + ": " + unreachable);
        ctx.fail(exit_failed);
        return "";
    }
    return ctx.urls[0];
}
