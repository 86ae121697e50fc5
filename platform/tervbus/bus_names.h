// The names of a node on the bus and the rule that every name keeps. Names become topic levels, so one that could
// change a topic's meaning is refused wherever it comes from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr size_t name_max = 128; // bytes

// A name in a place of its own; empty: none.
struct bus_name {
	char text[name_max + 1] = "";
};

// The one unit that has a special address as well.
inline constexpr const char *dm_client_name = "DM-CLIENT";
inline constexpr uintptr_t dm_client_special = 0;

struct bus_names {
	bus_name unit;
	bus_name group; // empty: no group
};

// Is it a usable name: not empty, at most 128 bytes, UTF-8, without '/', '+', '#' and control characters?
bool bus_name_usable(std::string_view name);

// The name is usable.
bus_name bus_name_of(std::string_view name);

bool bus_name_is_dm_client(const char *unit);
