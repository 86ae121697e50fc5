// What the broker's log says about refusals: one line with the cause. A client that goes on being refused for the same
// cause is told again once a minute, with the number of refusals in between, so that nobody fills the disk with them.
// Pure: no clock, no log.
#pragma once

#include "access.h"

#include <cstdint>

constexpr int64_t refusal_pause_s = 60;
// Clients and causes held apart. Those beyond go without a line until others have been quiet for the pause.
constexpr size_t refusal_notes_max = 256;

struct refusal_note {
	int64_t said_s = 0;
	unsigned unsaid = 0; // refusals since then
};

struct refusal_log {
	std::map<std::pair<std::string, const char *>, refusal_note> notes; // by CN and cause
};

// The far end of a bridge speaks as a node of this side: what no list allows.
constexpr const char *refusal_as_local = "the sender in the topic is a node of this side";

// A bridge names groups without an end.
constexpr const char *refusal_many_groups =
		"a bridge may name 4 groups for a unit, of 128 bytes at most, until the broker is started anew";
static_assert(bridged_groups_max == 4 && bridged_group_length_max == 128);

// Why access_allowed said no. A text of static duration.
const char *refusal_cause(const access_policy &policy, const access_node &node, const access_wish &wish);

// The line for a cause of static duration, or an empty text when there is to be none now.
std::string refusal_line(
		refusal_log *log, const std::string &unit, const access_wish &wish, const char *cause, int64_t now_s);
