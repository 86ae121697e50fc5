// Who may send to whom: the rules file of the broker plugin. One rule per line; '#' starts a comment line.
//
//   allow <sender> <destination>
//   role <role> <unit>
//   bridge <name> <unit>,<unit>...
//
// The sender is a node's CN to the letter, or @ and an OU: every node with that OU, or + and a role. The destination is
// a glob on the CN of the unit written to (the DM-CLIENT's special address counts as its CN), or @ and a glob on the
// group written to, or + and a role. A name with blanks stands in double quotes. What no rule allows is refused.
//
// A role is given to a unit, by its CN to the letter, with a line for each, before or behind those that use it: two
// rules and a line for each node say what would else be two rules for each pair. A role that nobody has is nobody.
//
// A bridge is named by the CN of its certificate, or, on the broker that opens it, by its local client id; it speaks
// for these units. The same can be said in the broker's configuration, but here it counts without a restart.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// Whom somebody may send to, units or groups.
struct reachable {
	std::unordered_set<std::string> names;
	std::vector<std::string> globs;
};

struct sender_rules {
	reachable units;
	reachable groups;
	std::set<std::string> roles; // the units that have one of these
};

using bridge_map = std::map<std::string, std::set<std::string>>; // a bridge's name: the units behind it

// By sender, because each publish of a fleet is looked up here: its cost grows with the globs of one sender and the
// roles of one unit, not with the fleet. A CN, an OU and a role may be spelled alike and are no less three senders.
struct send_rules {
	std::unordered_map<std::string, sender_rules> units;
	std::unordered_map<std::string, sender_rules> groups;
	std::unordered_map<std::string, sender_rules> roles;
	std::unordered_map<std::string, std::set<std::string>> roles_of; // by unit
	bridge_map bridges;
};

// "<unit>,<unit>..." onto the bridge's units; false, with nothing changed, when it is not of that form.
bool rules_add_bridge(bridge_map *bridges, const std::string &name, std::string_view units);

// False, with *rules unchanged and the reason in *why, when a line is no rule: a half-understood file is no rule at
// all.
bool rules_parse(std::string_view text, send_rules *rules, std::string *why);

// The same from a file of at most rules_file_max bytes, which must belong to root or to this process's user and be
// writable by its owner only.
bool rules_load(const char *path, send_rules *rules, std::string *why);

// May a message of this sender be there? Its OU is not known here, so a rule of any OU will do.
bool rules_may_come(const send_rules &rules, const std::string &unit, const std::string &destination, bool to_group);

// May the sender (its CN and its OU, empty for none) send to this unit, or with to_group to this group?
bool rules_allow(const send_rules &rules, const std::string &unit, const std::string &group,
		const std::string &destination, bool to_group);
