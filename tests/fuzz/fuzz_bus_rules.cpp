// A rules file, a bridge's option, a node's names and a topic through the broker plugin's verdict. A file has to say
// what its lines say one by one (with the roles), and what holds whatever the rules say is asked again here, in other
// words.
#include "access.h"

#include "fuzz/fuzz_input.h"

#include <algorithm>

namespace
{

struct question {
	access_node node;
	access_kind kind = access_kind::read;
	std::string topic;
	bool retained = false;
	std::string payload;
	bool adorned = false;
};

bool starts_with(const std::string &text, const std::string &start)
{
	return text.compare(0, start.size(), start) == 0;
}

std::string last_level(const std::string &topic)
{
	return topic.substr(topic.rfind('/') + 1);
}

// The level that says whom a topic is for.
std::string addressee(const std::string &topic)
{
	const std::string front = topic.substr(0, topic.rfind('/'));
	return starts_with(topic, "movra/v1/special/") ? "DM-CLIENT" : last_level(front);
}

std::string_view take_line(std::string_view *text)
{
	const size_t end = std::min(text->find('\n'), text->size());
	const std::string_view line = text->substr(0, end);
	text->remove_prefix(std::min(end + 1, text->size()));
	return line;
}

// The lines that give a role to somebody: they count for all others.
std::string role_lines(std::string_view text)
{
	std::string roles;
	while (!text.empty()) {
		const std::string_view line = take_line(&text);
		send_rules one;
		std::string why;
		if (rules_parse(line, &one, &why) && !one.roles_of.empty())
			roles.append(line).append("\n");
	}
	return roles;
}

// What a file's lines say, each taken as a file of its own with the roles.
struct line_verdict {
	bool all_understood = true;
	bool one_allows = false;
};

line_verdict ask_lines(std::string_view text, const access_node &node, const std::string &to, bool to_group)
{
	const std::string roles = role_lines(text);
	line_verdict verdict;
	while (!text.empty()) {
		send_rules one;
		std::string why;
		if (!rules_parse(roles + std::string(take_line(&text)), &one, &why))
			verdict.all_understood = false;
		else if (rules_allow(one, node.unit, node.group, to, to_group))
			verdict.one_allows = true;
	}
	return verdict;
}

// All of a file is taken or nothing of it.
void take_rules(const std::string &text, const access_node &node, const std::string &to, send_rules *rules)
{
	std::string why;
	require(rules_parse("allow old old", rules, &why) && why.empty());
	const bool understood = rules_parse(text, rules, &why);
	require(understood == why.empty());
	for (const bool to_group : {false, true}) {
		const line_verdict lines = ask_lines(text, node, to, to_group);
		require(understood == lines.all_understood);
		if (understood)
			require(rules_allow(*rules, node.unit, node.group, to, to_group) == lines.one_allows);
	}
	if (!understood)
		require(rules_allow(*rules, "old", "", "old", false));
}

void require_presence(const question &asked)
{
	require(asked.payload.size() <= 3 && !asked.adorned);
	require(asked.payload.empty() || asked.payload == "on" || asked.payload == "off");
}

void require_own_sender(const question &asked, const send_rules &rules)
{
	const access_node &node = asked.node;
	require(last_level(asked.topic) == node.unit);
	if (starts_with(asked.topic, "movra/v1/status/")) {
		require_presence(asked);
		return;
	}
	const bool to_group = starts_with(asked.topic, "movra/v1/grp/");
	require(!asked.retained && rules_allow(rules, node.unit, node.group, addressee(asked.topic), to_group));
}

void require_own_inbox(const question &asked)
{
	const access_node &node = asked.node;
	const std::string &topic = asked.topic;
	const bool for_group = node.away || !node.group.empty();
	if (starts_with(topic, "movra/v1/ua/"))
		require(starts_with(topic, "movra/v1/ua/" + node.unit + "/"));
	else if (starts_with(topic, "movra/v1/special/"))
		require(node.unit == "DM-CLIENT" && starts_with(topic, "movra/v1/special/0/"));
	else if (starts_with(topic, "movra/v1/grp/"))
		require(for_group && (node.away || starts_with(topic, "movra/v1/grp/" + node.group + "/")));
	else
		require(starts_with(topic, "movra/v1/status/") && (for_group || last_level(topic) == "DM-CLIENT"));
}

void require_permitted(const question &asked, const send_rules &rules)
{
	require(!asked.node.unit.empty());
	if (asked.kind == access_kind::write)
		require_own_sender(asked, rules);
	else
		require_own_inbox(asked);
	if (asked.kind == access_kind::subscribe)
		require(asked.topic.find('#') == std::string::npos && !asked.node.away);
}

std::string take_topic(fuzz_input *input, const access_node &node)
{
	const uint8_t kind = take_byte(input);
	const std::string to = take_text(input);
	const std::string from = (kind & 16) != 0 ? node.unit : take_text(input);
	constexpr const char *roots[] = {"movra/v1/ua/", "movra/v1/grp/", "movra/v1/special/", "movra/v1/status/"};
	if ((kind & 8) != 0)
		return to;
	return roots[kind % 4] + ((kind & 4) != 0 ? node.unit : to) + "/" + from;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	constexpr access_kind kinds[] = {access_kind::read, access_kind::write, access_kind::subscribe};
	fuzz_input input{data, size};
	question asked;
	const uint8_t flags = take_byte(&input);
	asked.kind = kinds[flags % std::size(kinds)];
	asked.retained = (flags & 16) != 0;
	asked.node.away = (flags & 32) != 0;
	asked.node.unit = (flags & 64) != 0 ? "DM-CLIENT" : take_text(&input);
	asked.node.group = take_text(&input);
	asked.topic = take_topic(&input, asked.node);
	const std::string to = take_text(&input);
	asked.payload = to;
	asked.adorned = (flags & 128) != 0;
	const std::string bridge = take_text(&input);
	const std::string rules(reinterpret_cast<const char *>(input.at), input.left);

	access_policy policy;
	take_rules(rules, asked.node, to, &policy.rules);
	const bool bridged = access_add_bridge(&policy, bridge) || rules.find("bridge") != std::string::npos;
	const bool allowed =
			access_allowed(policy, asked.node, {asked.kind, asked.topic, asked.retained, asked.payload, asked.adorned});
	require(!allowed || starts_with(asked.topic, "movra/v1/"));
	if (allowed && !bridged) // a bridge speaks for others
		require_permitted(asked, policy.rules);
	return 0;
}
