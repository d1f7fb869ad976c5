// tail [-f] [-c BYTES] APP [stdout|stderr]: the captured output by stream
// position; following marks what the supervisor's ring dropped unread.
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "commands.h"
#include "output.h"
#include "supervisor.h"

namespace {

// Far beyond any stream: the supervisor lowers it to the tail, so the answer
// carries head and tail without bytes.
constexpr int64_t beyond_tail = int64_t{1} << 62;
// Reads of one round; a producer faster than this is followed with losses
// rather than without end.
constexpr int reads_per_round = 256;

struct tail_options {
    std::string app;
    std::string stream = "stdout";
    bool follow = false;
    int64_t bytes = 4096;
    double interval = 0.2;
};

struct output_guard {
    vantrel_wd_output raw{};
    ~output_guard() { vantrel_watchdog_output_free(&raw); }
};

enum class read_end { caught_up, more, gone };

// One piece from `off`; writes it out, marks a gap, advances `off`.
read_end read_piece(const std::string& url, const std::string& handle, int file_no, int64_t& off,
                    int64_t until, std::string& error)
{
    output_guard piece;
    int ret = vantrel_watchdog_get_std_buf(url.c_str(), -1, handle.c_str(), off, file_no, &piece.raw);
    if (ret < 0) {
        error = ret_text(ret);
        return read_end::gone;
    }
    int64_t start = piece.raw.off - piece.raw.size;
    if (start > off) {
        fflush(stdout);
        printf("\n[vantrelctl: %lld bytes lost: the output ring moved past them]\n",
               static_cast<long long>(start - off));
    }
    if (piece.raw.size) fwrite(piece.raw.data, 1, piece.raw.size, stdout);
    bool moved = piece.raw.off != off || piece.raw.size > 0;
    off = piece.raw.off;
    if (!moved || off >= until || off >= piece.raw.tail) return read_end::caught_up;
    return read_end::more;
}

void run(ctl_context& ctx, const tail_options& opts)
{
    std::string url = single_target(ctx);
    if (url.empty()) return;
    int file_no = opts.stream == "stderr" ? 2 : 1;
    supervisor sup(url);
    std::vector<std::string> handles;
    std::string error;
    if (!sup.resolve({opts.app}, false, handles, error)) {
        print_error(error);
        return ctx.fail(exit_failed);
    }
    const std::string& handle = handles[0];
    // Where the stream stands now; asking for more than is held is no loss.
    output_guard now;
    int ret = vantrel_watchdog_get_std_buf(url.c_str(), -1, handle.c_str(), beyond_tail, file_no,
                                           &now.raw);
    if (ret < 0) {
        print_error(opts.app + ": " + ret_text(ret), ret == VANTREL_EFAULT);
        return ctx.fail(exit_failed);
    }
    int64_t end = now.raw.tail;
    int64_t off = std::max(now.raw.head, end - opts.bytes);
    auto pause = std::chrono::milliseconds(static_cast<int64_t>(opts.interval * 1000));
    for (;;) {
        read_end how = read_end::more;
        for (int i = 0; i < reads_per_round && how == read_end::more; ++i)
            how = read_piece(url, handle, file_no, off, opts.follow ? beyond_tail : end, error);
        fflush(stdout);
        if (how == read_end::gone) {
            print_error(opts.app + ": " + error, true);
            return ctx.fail(exit_failed);
        }
        if (!opts.follow) return;
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace

void add_tail_command(CLI::App& app, ctl_context& ctx)
{
    auto opts = std::make_shared<tail_options>();
    CLI::App* cmd = app.add_subcommand("tail", "Show an application's captured output");
    cmd->add_option("APP", opts->app, "alias, index, @handle or glob naming one application")->required();
    cmd->add_option("STREAM", opts->stream, "stdout (default) or stderr")
        ->check(CLI::IsMember({"stdout", "stderr"}));
    cmd->add_flag("-f,--follow", opts->follow, "keep printing new output (Ctrl-C ends)");
    cmd->add_option("-c,--bytes", opts->bytes, "start this many bytes before the end (default 4096)")
        ->check(CLI::Range(int64_t{0}, beyond_tail));
    cmd->add_option("--interval", opts->interval, "seconds between polls when following (default 0.2)")
        ->check(CLI::Range(0.01, 60.0));
    cmd->callback([&ctx, opts]() { run(ctx, *opts); });
}
