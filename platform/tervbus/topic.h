// The topics of the bus:
//   movra/v1/ua/<destination>/<sender>        a unit's inbox
//   movra/v1/grp/<group>/<sender>             a group's
//   movra/v1/special/<number>/<sender>        a special address's
//   movra/v1/status/<group>/<unit>            a node's status, retained; the group's level is empty without one
#pragma once

#include "tervbus.h"

#include "bus_names.h"

inline constexpr size_t topic_max = 17 + 2 * name_max + 1; // bytes: the longest prefix and two names

struct topic_text {
	char text[topic_max + 1] = "";
};

// What a node listens to.
struct topic_filters {
	topic_text filters[5];
	size_t count = 0;
};

enum class topic_kind { inbox, status };

// A topic of the bus taken apart: what a node is called in it.
struct bus_topic {
	topic_kind kind = topic_kind::inbox;
	uint32_t type = 0;     // inbox: type of the address written to
	bus_name to;           // inbox: unit, group or number; status: the group, perhaps empty
	bus_name from;         // inbox: the sender; status: the unit
	uintptr_t special = 0; // inbox of a special address: its number
};

// The topic that reaches the address from this sender. The entry is usable (address_usable).
topic_text topic_of_address(const address_entry *entry, const char *sender);

topic_text topic_of_status(const bus_names &names);

// The node's own inboxes, its group's status and the DM-CLIENT's, never a whole fleet's.
topic_filters topic_subscriptions(const bus_names &names);

// False, with *parsed unchanged, when the text is no topic of the bus or a name in it is not usable.
bool topic_parse(std::string_view text, bus_topic *parsed);

// Is it an inbox of this node?
bool topic_is_own_inbox(const bus_topic &topic, const bus_names &names);
