#include "refusals.h"

#include <algorithm>

namespace
{

constexpr size_t topic_shown_max = 160; // bytes; a topic may be 64 KiB long

struct refusal {
	const access_policy &policy;
	const access_node &node;
	const access_wish &wish;
	topic_levels levels;
	bool is_topic;
};

bool writes(const refusal &refused)
{
	return refused.wish.kind == access_kind::write;
}

bool is_bridge(const refusal &refused)
{
	return access_is_bridge(refused.policy, refused.node);
}

bool without_a_name(const refusal &refused)
{
	return refused.node.unit.empty() || refused.node.unfit;
}

bool while_away(const refusal &refused)
{
	return refused.node.away && refused.wish.kind != access_kind::read;
}

// What a '$' begins is the broker's own affair: its statistics, subscriptions that several clients share.
bool of_the_broker(const refusal &refused)
{
	return refused.wish.topic.substr(0, 1) == "$";
}

bool off_the_bus(const refusal &refused)
{
	constexpr std::string_view inboxes[] = {"ua", "grp", "special"};
	const bool status = refused.levels.kind == "status";
	const bool inbox = std::find(std::begin(inboxes), std::end(inboxes), refused.levels.kind) != std::end(inboxes);
	return !refused.is_topic || (!status && (!inbox || refused.levels.to.empty()));
}

bool beyond_the_bridge(const refusal &refused)
{
	if (!is_bridge(refused) || !refused.is_topic)
		return false;
	const bool named_by_sender = writes(refused) || refused.levels.kind == "status";
	return !access_speaks_for(refused.policy, refused.node, named_by_sender ? refused.levels.from : refused.levels.to);
}

bool under_a_foreign_name(const refusal &refused)
{
	return writes(refused) && !is_bridge(refused) && refused.levels.from != refused.node.unit;
}

bool foreign_status(const refusal &refused)
{
	return writes(refused) && refused.levels.kind == "status" && !is_bridge(refused) &&
			refused.levels.to != refused.node.group;
}

bool no_presence(const refusal &refused)
{
	return writes(refused) && refused.levels.kind == "status";
}

bool to_be_kept(const refusal &refused)
{
	return writes(refused) && refused.wish.retained;
}

bool with_wildcards(const refusal &refused)
{
	return refused.wish.kind == access_kind::subscribe &&
			(refused.wish.topic.find('#') != std::string_view::npos ||
					refused.levels.to.find('+') != std::string_view::npos);
}

bool not_to_read(const refusal &refused)
{
	return !writes(refused) &&
			(refused.wish.kind != access_kind::read || !access_is_for(refused.policy, refused.node, refused.levels));
}

struct cause_row {
	bool (*holds)(const refusal &);
	const char *text;
};

// The first that holds is told.
constexpr cause_row cause_table[] = {
		{without_a_name, "its certificate has not exactly one CN that can be a name"},
		{of_the_broker, "the bus has no topics that begin with '$' and no shared subscriptions"},
		{beyond_the_bridge, "the bridge does not speak for that unit"},
		{with_wildcards, "a wildcard stands for other nodes' addresses"},
		{off_the_bus, "that is no topic of the bus"},
		{under_a_foreign_name, "the sender in the topic is another node"},
		{while_away, "it is away, and its certificate is not at hand"},
		{foreign_status, "that is the status of another group"},
		{no_presence, "a status says on, off or nothing, and has no properties but its expiry"},
		{to_be_kept, "an inbox keeps no retained messages"},
		{not_to_read, "that is neither its own inbox nor a status of its group"},
};
static_assert(std::size(cause_table) == 11);

constexpr const char *no_rule = "no rule allows it";

struct action_row {
	access_kind kind;
	const char *text;
};

constexpr action_row action_table[] = {
		{access_kind::read, "be delivered"},
		{access_kind::write, "publish to"},
		{access_kind::subscribe, "subscribe to"},
};
static_assert(std::size(action_table) == 3);

const char *action_text(access_kind kind)
{
	for (const action_row &row : action_table)
		if (row.kind == kind)
			return row.text;
	return "use";
}

// A client chooses its topics; a line of the log stays one line.
std::string shown(std::string_view text)
{
	std::string printable(text.substr(0, topic_shown_max));
	for (char &character : printable)
		if (static_cast<unsigned char>(character) < 0x20 || character == 0x7F)
			character = '?';
	return text.size() > topic_shown_max ? printable + "..." : printable;
}

bool make_room(refusal_log *log, int64_t now_s)
{
	if (log->notes.size() < refusal_notes_max)
		return true;
	std::erase_if(log->notes, [now_s](const auto &note) { return note.second.said_s + refusal_pause_s <= now_s; });
	return log->notes.size() < refusal_notes_max;
}

// Is a line due? Then *before has how many refusals went without one.
bool note_refusal(refusal_log *log, const std::string &unit, const char *cause, int64_t now_s, unsigned *before)
{
	auto known = log->notes.find({unit, cause});
	if (known == log->notes.end()) {
		if (!make_room(log, now_s))
			return false;
		known = log->notes.emplace(std::pair(unit, cause), refusal_note{}).first;
	} else if (now_s < known->second.said_s + refusal_pause_s) {
		known->second.unsaid++;
		return false;
	}
	*before = known->second.unsaid;
	known->second = {now_s, 0};
	return true;
}

} // namespace

const char *refusal_cause(const access_policy &policy, const access_node &node, const access_wish &wish)
{
	refusal refused{policy, node, wish, {}, false};
	refused.is_topic = access_split(wish.topic, &refused.levels);
	for (const cause_row &row : cause_table)
		if (row.holds(refused))
			return row.text;
	return no_rule;
}

std::string refusal_line(
		refusal_log *log, const std::string &unit, const access_wish &wish, const char *cause, int64_t now_s)
{
	unsigned before = 0;
	if (!note_refusal(log, unit, cause, now_s, &before))
		return {};
	std::string line =
			"quillet: " + shown(unit) + " may not " + action_text(wish.kind) + " " + shown(wish.topic) + ": " + cause;
	if (before > 0)
		line += " (" + std::to_string(before) + " more like it since the last such line)";
	return line;
}
