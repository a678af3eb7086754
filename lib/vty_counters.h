// Counter displays on a vty. A counter has a display label and a name (its
// key in JSON replies and metrics); a display lines up all its labels to the
// widest one and shows each counter as "  <label> : <value>".
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

struct vty;

struct counter_name {
    std::string_view label;  // display
    std::string_view name;   // JSON and metrics
};

// The longest label among `names`, or `w` when that is longer.
constexpr std::size_t widest_label(std::span<const counter_name> names, std::size_t w = 0) {
    for (const auto &n : names) {
        w = std::max(w, n.label.size());
    }
    return w;
}

// Entry i's label and name; empty past the end.
constexpr std::string_view counter_label(std::span<const counter_name> names, std::size_t i) {
    return i < names.size() ? names[i].label : std::string_view{};
}
constexpr std::string_view counter_key(std::span<const counter_name> names, std::size_t i) {
    return i < names.size() ? names[i].name : std::string_view{};
}

// One display line: two spaces, `label` padded to `width`, " : ", `value`.
void vty_out_counter(vty *vty, int width, std::string_view label, std::uint64_t value);
