#pragma once
// Turns what an operator types (alias, index, @handle, glob, "all") into
// slots of one status listing. Ambiguity is an error that names the
// candidates, so a command never lands on an application it was not meant
// for.
#include <string>
#include <vector>

// One slot as the resolver sees it.
struct app_ref {
    int index = 0;
    std::string handle; // "ptr" of the listing
    std::string name;   // alias, or the type name when the alias is empty
    std::string type;
};

struct resolution {
    std::vector<int> indexes; // in listing order, no duplicates
    std::string error;        // set when resolution failed
    bool ok() const { return error.empty(); }
};

// Exactly one application.
resolution resolve_one(const std::vector<app_ref>& apps, const std::string& token);

// Every token may name several: "all", a glob. A plain name or index must
// still be unambiguous.
resolution resolve_many(const std::vector<app_ref>& apps, const std::vector<std::string>& tokens);

// "1F", "0x1f", "001f" and "1f" are the same handle.
std::string normalize_handle(const std::string& text);

// "3 @1f Mix (elem_mixer)": how a candidate is shown.
std::string describe(const app_ref& app);
