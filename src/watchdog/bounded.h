#pragma once
// Bounded text fields and lists: the capacities of the option format are enforced
// here, while storage grows only with what is actually stored.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "common/bounded_text.h"
#include "common/utf8_text.h"

constexpr std::size_t TEXT_FIELD_SIZE = 4096;                 // bytes incl. the terminating NUL
constexpr std::size_t TEXT_FIELD_MAX = TEXT_FIELD_SIZE - 1;   // characters

// A text field of at most TEXT_FIELD_MAX bytes; longer values are cut at a
// character boundary, and what is stored is always valid UTF-8 (see utf8_repair).
class bounded_str {
public:
    bounded_str() = default;
    bounded_str(std::string_view value) { set(value); }

    void set(std::string_view value)
    {
        text_.assign(value.substr(0, utf8_cut(value, TEXT_FIELD_MAX)));
        utf8_repair(text_);
    }
    void set(const char* value) { set(std::string_view(value ? value : "")); }
    // Appends as much as fits; returns false when something was cut.
    bool cat(std::string_view value)
    {
        std::size_t room = TEXT_FIELD_MAX - text_.size();
        std::size_t old_size = text_.size();
        text_.append(value.substr(0, utf8_cut(value, room)));
        utf8_repair(text_, old_size);
        return value.size() <= room;
    }
    void clear() { text_.clear(); }

    const char* c_str() const { return text_.c_str(); }
    const std::string& str() const { return text_; }
    bool empty() const { return text_.empty(); }
    std::size_t size() const { return text_.size(); }
    bool operator==(const bounded_str&) const = default;

private:
    std::string text_;
};

// Bounded copy and append, named as the rest of the system knows them.
inline void str_copy(bounded_str& dst, std::string_view src) { dst.set(src); }
inline bool str_cat(bounded_str& dst, std::string_view src) { return dst.cat(src); }
// The same for plain character buffers of `size` bytes: always terminated.
using bounded_text::str_copy;
using bounded_text::str_cat;

// A list of at most Capacity non-empty text fields, filled from the front. The
// first empty slot ends a list, so an empty value is never stored.
template <std::size_t Capacity>
class bounded_list {
public:
    static constexpr std::size_t capacity = Capacity;

    // Returns false (and stores nothing) when the list is full.
    bool append(std::string_view value)
    {
        if (value.empty()) return true;
        if (items_.size() >= Capacity) return false;
        items_.emplace_back(value);
        return true;
    }
    void clear() { items_.clear(); }
    std::size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    bool full() const { return items_.size() >= Capacity; }
    const bounded_str& operator[](std::size_t i) const { return items_[i]; }
    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }
    bool operator==(const bounded_list&) const = default;

private:
    std::vector<bounded_str> items_;
};
