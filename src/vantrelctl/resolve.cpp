#include "resolve.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>

namespace {

bool is_glob(const std::string& token)
{
    return token.find_first_of("*?[") != std::string::npos;
}

bool is_index(const std::string& token)
{
    return !token.empty() && token.size() < 8 &&
           std::all_of(token.begin(), token.end(), [](unsigned char c) { return isdigit(c); });
}

// Every slot the token can mean, without judging ambiguity.
std::vector<int> candidates(const std::vector<app_ref>& apps, const std::string& token)
{
    std::vector<int> found;
    auto add = [&](const app_ref& app) {
        if (std::find(found.begin(), found.end(), app.index) == found.end())
            found.push_back(app.index);
    };
    if (token.size() > 1 && token[0] == '@') {
        std::string wanted = normalize_handle(token.substr(1));
        for (const app_ref& app : apps)
            if (normalize_handle(app.handle) == wanted) add(app);
        return found;
    }
    if (is_glob(token)) {
        for (const app_ref& app : apps)
            if (fnmatch(token.c_str(), app.name.c_str(), 0) == 0) add(app);
        return found;
    }
    if (is_index(token)) {
        int index = std::stoi(token);
        for (const app_ref& app : apps)
            if (app.index == index) add(app);
    }
    for (const app_ref& app : apps)
        if (app.name == token) add(app);
    // A type name stands for its applications only when no name matches.
    if (found.empty())
        for (const app_ref& app : apps)
            if (app.type == token) add(app);
    return found;
}

const app_ref* by_index(const std::vector<app_ref>& apps, int index)
{
    for (const app_ref& app : apps)
        if (app.index == index) return &app;
    return nullptr;
}

std::string ambiguous(const std::vector<app_ref>& apps, const std::string& token,
                      const std::vector<int>& found)
{
    std::string text = "'" + token + "' is ambiguous; candidates:";
    for (int index : found) text += "\n  " + describe(*by_index(apps, index));
    return text + "\nname one by index or @handle";
}

std::string not_found(const std::string& token)
{
    if (token.size() > 1 && token[0] == '@') return "no application with handle " + token;
    if (is_glob(token)) return "no application matches '" + token + "'";
    return "no application '" + token + "'";
}

}  // namespace

std::string normalize_handle(const std::string& text)
{
    std::string digits = text;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'))
        digits.erase(0, 2);
    for (char& c : digits) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    std::size_t first = digits.find_first_not_of('0');
    return first == std::string::npos ? "0" : digits.substr(first);
}

std::string describe(const app_ref& app)
{
    return std::to_string(app.index) + " @" + app.handle + " " + app.name + " (" + app.type + ")";
}

resolution resolve_one(const std::vector<app_ref>& apps, const std::string& token)
{
    resolution result;
    std::vector<int> found = candidates(apps, token);
    if (found.empty()) result.error = not_found(token);
    else if (found.size() > 1) result.error = ambiguous(apps, token, found);
    else result.indexes = found;
    return result;
}

resolution resolve_many(const std::vector<app_ref>& apps, const std::vector<std::string>& tokens)
{
    resolution result;
    auto add = [&](int index) {
        if (std::find(result.indexes.begin(), result.indexes.end(), index) == result.indexes.end())
            result.indexes.push_back(index);
    };
    for (const std::string& token : tokens) {
        std::vector<int> found;
        if (token == "all") {
            for (const app_ref& app : apps) found.push_back(app.index);
        } else if (is_glob(token)) {
            found = candidates(apps, token);
            if (found.empty()) result.error = not_found(token);
        } else {
            resolution one = resolve_one(apps, token);
            if (!one.ok()) result.error = one.error;
            found = one.indexes;
        }
        if (!result.ok()) {
            result.indexes.clear();
            return result;
        }
        for (int index : found) add(index);
    }
    std::sort(result.indexes.begin(), result.indexes.end());
    return result;
}
