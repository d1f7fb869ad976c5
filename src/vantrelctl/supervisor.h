#pragma once
// One supervisor as the commands see it: its URL, a fresh status listing,
// name resolution against it, and commands sent by handle.
#include <string>
#include <vector>

#include "client/vantrel_watchdog.h"
#include "resolve.h"

// Owns one status listing of the client library.
struct status_listing {
    vantrel_wd_listing raw{};
    status_listing() = default;
    ~status_listing() { vantrel_watchdog_listing_free(&raw); }
    status_listing(const status_listing&) = delete;
    status_listing& operator=(const status_listing&) = delete;
};

// The name an operator knows an application by: its alias, else its type.
std::string display_name(const vantrel_wd_app& app);

std::vector<app_ref> app_refs(const vantrel_wd_listing& listing);

// What a negative "ret" or result means, in words.
std::string ret_text(int ret);

class supervisor {
public:
    explicit supervisor(std::string url) : url_(std::move(url)) {}

    const std::string& url() const { return url_; }

    // Reads the status listing; false with `error` set when that fails.
    bool refresh(std::string& error);
    const vantrel_wd_listing& listing() const { return status_.raw; }

    // The entry with this handle in the last listing, or null.
    const vantrel_wd_app* find(const std::string& handle) const;

    // Resolves against a fresh listing; the handles of the result, which
    // every change uses. false with `error` set.
    bool resolve(const std::vector<std::string>& tokens, bool many, std::vector<std::string>& handles,
                 std::string& error);

    // A SetField command addressed by handle (index -1), so that a reorder
    // by someone else cannot redirect it.
    int set_field(const std::string& handle, const char* field, const char* value = "") const;

private:
    std::string url_;
    status_listing status_;
};
