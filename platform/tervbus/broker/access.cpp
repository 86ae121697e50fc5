#include "access.h"

namespace
{

constexpr std::string_view prefix = "movra/v1/";
constexpr std::string_view status_prefix = "movra/v1/status/";
constexpr std::string_view dm_client = "DM-CLIENT";
constexpr std::string_view dm_client_number = "0";

bool take_level(std::string_view *text, std::string_view *level)
{
	const size_t slash = text->find('/');
	if (slash == std::string_view::npos)
		return false;
	*level = text->substr(0, slash);
	text->remove_prefix(slash + 1);
	return true;
}

bool holds_wildcard(std::string_view level)
{
	return level.find_first_of("+#") != std::string_view::npos;
}

// The destination in the rules' terms; false for an address that nobody has.
bool destination_of(const topic_levels &topic, std::string *destination, bool *to_group)
{
	*to_group = topic.kind == "grp";
	*destination = topic.to;
	if (topic.kind == "special")
		*destination = dm_client;
	return topic.kind != "special" || topic.to == dm_client_number;
}

bool is_inbox(const topic_levels &topic)
{
	return topic.kind == "ua" || topic.kind == "grp" || topic.kind == "special";
}

// A kept message would reach its address with every new connection, so inboxes keep none.
bool send_allowed(const access_policy &policy, const std::string &unit, const std::string &group,
		const topic_levels &topic, bool retained)
{
	std::string destination;
	bool to_group = false;
	if (retained || topic.from != unit || topic.to.empty() || !destination_of(topic, &destination, &to_group))
		return false;
	return rules_allow(policy.rules, unit, group, destination, to_group);
}

bool own_inbox(const access_node &node, const topic_levels &topic)
{
	if (topic.kind == "ua")
		return topic.to == node.unit;
	if (topic.kind == "special")
		return topic.to == dm_client_number && node.unit == dm_client;
	return topic.kind == "grp" && (node.away || (!node.group.empty() && topic.to == node.group));
}

bool group_status(const access_node &node, const topic_levels &topic)
{
	return node.away || (!node.group.empty() && topic.to == node.group);
}

bool node_may_write(
		const access_policy &policy, const access_node &node, const topic_levels &topic, const access_wish &wish)
{
	if (node.away)
		return false;
	if (topic.kind == "status")
		return topic.to == node.group && topic.from == node.unit && access_is_presence(wish);
	return is_inbox(topic) && send_allowed(policy, node.unit, node.group, topic, wish.retained);
}

bool node_may_read(const access_node &node, const topic_levels &topic)
{
	if (topic.kind == "status")
		return topic.from == dm_client || group_status(node, topic);
	return own_inbox(node, topic);
}

bool node_may_subscribe(const access_node &node, const topic_levels &filter)
{
	if (node.away)
		return false;
	if (filter.kind == "status" && filter.to == "+")
		return filter.from == dm_client;
	if (holds_wildcard(filter.to) || filter.from != "+")
		return false;
	return filter.kind == "status" ? group_status(node, filter) : own_inbox(node, filter);
}

bool lists(const bridge_map &bridges, const std::string &name, std::string_view unit)
{
	const auto bridge = bridges.find(name);
	return bridge != bridges.end() && bridge->second.contains(std::string(unit));
}

// The group of a bridge's certificate stands for that of its units.
bool bridge_may_write(
		const access_policy &policy, const access_node &node, const topic_levels &topic, const access_wish &wish)
{
	if (node.away || !access_speaks_for(policy, node, topic.from))
		return false;
	if (topic.kind == "status")
		return access_is_presence(wish);
	return is_inbox(topic) && send_allowed(policy, std::string(topic.from), node.group, topic, wish.retained);
}

bool bridge_may_read(const access_policy &policy, const access_node &node, const topic_levels &topic)
{
	if (topic.kind == "status")
		return access_speaks_for(policy, node, topic.from);
	if (topic.kind == "special")
		return topic.to == dm_client_number && access_speaks_for(policy, node, dm_client);
	return topic.kind == "ua" && access_speaks_for(policy, node, topic.to);
}

// A message that has waited for its node is not delivered once its sender may send it no more.
bool still_allowed(const access_policy &policy, const topic_levels &topic)
{
	std::string destination;
	bool to_group = false;
	return !is_inbox(topic) ||
			(destination_of(topic, &destination, &to_group) &&
					rules_may_come(policy.rules, std::string(topic.from), destination, to_group));
}

bool node_allowed(
		const access_policy &policy, const access_node &node, const topic_levels &topic, const access_wish &wish)
{
	if (wish.kind == access_kind::write)
		return node_may_write(policy, node, topic, wish);
	return node_may_subscribe(node, topic);
}

// Wildcards in a bridge's filter stand where its units do not: the sender of an inbox, the group of a status.
bool bridge_allowed(
		const access_policy &policy, const access_node &node, const topic_levels &topic, const access_wish &wish)
{
	if (wish.kind == access_kind::write)
		return bridge_may_write(policy, node, topic, wish);
	return !node.away && bridge_may_read(policy, node, topic);
}

// A local bridge has no rights but a bridge's, and nobody else has its name.
bool well_named(const access_policy &policy, const access_node &node)
{
	const bool local_name = std::string_view(node.unit).substr(0, access_local_prefix.size()) == access_local_prefix;
	return !node.unit.empty() && !node.unfit && local_name == node.local &&
			(!node.local || access_is_bridge(policy, node));
}

} // namespace

bool access_split(std::string_view topic, topic_levels *parts)
{
	if (topic.substr(0, prefix.size()) != prefix)
		return false;
	topic.remove_prefix(prefix.size());
	if (!take_level(&topic, &parts->kind) || !take_level(&topic, &parts->to))
		return false;
	parts->from = topic;
	return topic.find('/') == std::string_view::npos;
}

bool access_is_status(std::string_view topic)
{
	return topic.substr(0, status_prefix.size()) == status_prefix;
}

bool access_is_bridge(const access_policy &policy, const access_node &node)
{
	return policy.bridges.contains(node.unit) || policy.rules.bridges.contains(node.unit);
}

bool access_speaks_for(const access_policy &policy, const access_node &node, std::string_view unit)
{
	return lists(policy.bridges, node.unit, unit) || lists(policy.rules.bridges, node.unit, unit);
}

bool access_is_for(const access_policy &policy, const access_node &node, const topic_levels &topic)
{
	return access_is_bridge(policy, node) ? bridge_may_read(policy, node, topic) : node_may_read(node, topic);
}

bool access_is_presence(const access_wish &wish)
{
	return !wish.adorned && (wish.payload.empty() || wish.payload == "on" || wish.payload == "off");
}

bool access_allowed(const access_policy &policy, const access_node &node, const access_wish &wish)
{
	topic_levels parts;
	if (!well_named(policy, node) || !access_split(wish.topic, &parts))
		return false;
	if (wish.kind == access_kind::subscribe && wish.topic.find('#') != std::string_view::npos)
		return false;

	if (wish.kind == access_kind::read)
		return access_is_for(policy, node, parts) && still_allowed(policy, parts);
	if (access_is_bridge(policy, node))
		return bridge_allowed(policy, node, parts, wish);
	return node_allowed(policy, node, parts, wish);
}

bool access_note_group(
		bridged_groups *groups, const access_policy &policy, const access_node &node, std::string_view topic)
{
	topic_levels parts;
	if (!access_is_status(topic) || !access_is_bridge(policy, node) || !access_split(topic, &parts))
		return true;
	auto known = groups->find(parts.from);
	if (known == groups->end())
		known = groups->try_emplace(std::string(parts.from)).first;
	if (known->second.contains(parts.to))
		return true;
	if (known->second.size() >= bridged_groups_max || parts.to.size() > bridged_group_length_max)
		return false;
	known->second.emplace(parts.to);
	return true;
}

bool access_add_bridge(access_policy *policy, std::string_view text)
{
	const size_t blank = text.find(' ');
	if (blank == std::string_view::npos || text.find(' ', blank + 1) != std::string_view::npos)
		return false;
	return rules_add_bridge(&policy->bridges, std::string(text.substr(0, blank)), text.substr(blank + 1));
}
