#include "supervisor.h"

#include <cstring>

std::string display_name(const vantrel_wd_app& app)
{
    return app.alias[0] ? app.alias : app.app_name;
}

std::vector<app_ref> app_refs(const vantrel_wd_listing& listing)
{
    std::vector<app_ref> refs;
    for (int i = 0; i < listing.count; ++i) {
        const vantrel_wd_app& app = listing.apps[i];
        refs.push_back({i, app.ptr, display_name(app), app.app_name});
    }
    return refs;
}

std::string ret_text(int ret)
{
    switch (ret) {
    case VANTREL_ERANGE: return "the application no longer exists (removed by someone else?)";
    case VANTREL_ENOMEM: return "refused: the supervisor already holds 1024 applications";
    case VANTREL_ENOENT: return "refused: unknown type or command";
    case VANTREL_EFAULT: return "the call failed or the answer was malformed";
    default: return "refused with code " + std::to_string(ret);
    }
}

bool supervisor::refresh(std::string& error)
{
    vantrel_watchdog_listing_free(&status_.raw);
    int count = vantrel_watchdog_get_status(url_.c_str(), &status_.raw);
    if (count >= 0) return true;
    error = url_ + ": cannot read the status: " + ret_text(count);
    return false;
}

const vantrel_wd_app* supervisor::find(const std::string& handle) const
{
    for (int i = 0; i < status_.raw.count; ++i)
        if (handle == status_.raw.apps[i].ptr) return &status_.raw.apps[i];
    return nullptr;
}

bool supervisor::resolve(const std::vector<std::string>& tokens, bool many,
                         std::vector<std::string>& handles, std::string& error)
{
    if (!refresh(error)) return false;
    std::vector<app_ref> refs = app_refs(status_.raw);
    resolution found;
    if (many) found = resolve_many(refs, tokens);
    else if (tokens.size() == 1) found = resolve_one(refs, tokens[0]);
    else found.error = "name exactly one application";
    if (!found.ok()) {
        error = found.error;
        return false;
    }
    for (int index : found.indexes) handles.push_back(status_.raw.apps[index].ptr);
    return true;
}

int supervisor::set_field(const std::string& handle, const char* field, const char* value) const
{
    return vantrel_watchdog_set_field(url_.c_str(), -1, handle.c_str(), field, value);
}
