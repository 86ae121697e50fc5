// What a certificate may do on the bus's topics. Pure: names, a topic and what is wanted in, a verdict out.
//
// A node publishes under its own CN only, and to whom the rules say. It subscribes to, and is delivered, its own
// inboxes, its group's status and the DM-CLIENT's. A bridge speaks for a list of units, and for nobody else: at the
// broker that it comes to as a client with a certificate, and at the broker that opens it, where it stands for those at
// its far end.
#pragma once

#include "rules.h"

// How the local client id of a bridge that this broker opens begins. No certificate gives anybody such a name's rights.
constexpr std::string_view access_local_prefix = "bridge/";

enum class access_kind { read, write, subscribe };

// What a client wants.
struct access_wish {
	access_kind kind = access_kind::read;
	std::string_view topic;
	bool retained = false;
	std::string_view payload = {}; // of a write
	bool adorned = false;          // a write with more properties than its expiry
};

// Whose certificate it is.
struct access_node {
	std::string unit;  // its CN
	std::string group; // its first OU, or empty
	// No certificate is at hand because the node is away: messages for its session are kept on the strength of its
	// subscription, and are looked at again when it comes back with its certificate.
	bool away = false;
	// This broker's end of a bridge that it has opened itself: no certificate, its name is of the configuration.
	bool local = false;
	// Its certificate has not exactly one CN that can be a level of a topic: it may nothing.
	bool unfit = false;
};

struct access_policy {
	send_rules rules;
	bridge_map bridges; // of the broker's configuration, beside those of the rules
};

// The groups that bridges have named in the status of a unit behind them. A unit has one, and another after a new
// certificate; but the broker keeps a status for each name, so that there is an end to them.
using bridged_groups = std::map<std::string, std::set<std::string, std::less<>>, std::less<>>; // by unit
constexpr size_t bridged_groups_max = 4;                                                       // of a unit
constexpr size_t bridged_group_length_max = 128;                                               // bytes, as any name

// The levels of a topic behind the bus's prefix: <kind>/<to>/<from>. Views into the topic.
struct topic_levels {
	std::string_view kind;
	std::string_view to;
	std::string_view from;
};

// False for a topic that is none of the bus's form, whatever its levels hold.
bool access_split(std::string_view topic, topic_levels *parts);

// Of a topic of the bus's form.
bool access_is_status(std::string_view topic);

bool access_is_bridge(const access_policy &policy, const access_node &node);

// Is the unit one of those that this bridge is listed for?
bool access_speaks_for(const access_policy &policy, const access_node &node, std::string_view unit);

// Is it the client's own inbox, or a status that it is told of? Whoever has sent it.
bool access_is_for(const access_policy &policy, const access_node &node, const topic_levels &topic);

// Is it what presence writes into a status: "on", "off" or nothing, by itself? A status is kept, and goes to whole
// groups that no rule names, so that it carries nothing else.
bool access_is_presence(const access_wish &wish);

bool access_allowed(const access_policy &policy, const access_node &node, const access_wish &wish);

// A write that is allowed, and has come: false when it is a bridge's, of a status under one group name too many.
bool access_note_group(
		bridged_groups *groups, const access_policy &policy, const access_node &node, std::string_view topic);

// "<CN> <unit>,<unit>…" as the plugin's option has it; false when it is not of that form.
bool access_add_bridge(access_policy *policy, std::string_view text);
