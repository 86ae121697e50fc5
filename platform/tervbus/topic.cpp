#include "topic.h"

#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace
{

constexpr std::string_view prefix = "movra/v1/";

struct level_row {
	const char *level;
	topic_kind kind;
	uint32_t type;
};

constexpr level_row level_table[] = {
		{"ua", topic_kind::inbox, TERVBUS_ADDRESS_UNIT},
		{"grp", topic_kind::inbox, TERVBUS_ADDRESS_GROUP},
		{"special", topic_kind::inbox, TERVBUS_ADDRESS_SPECIAL},
		{"status", topic_kind::status, 0},
};
static_assert(std::size(level_table) == 4);

topic_text join(const char *level, const char *to, const char *from)
{
	topic_text topic; // names keep their limit, so that it fits
	(void)snprintf(topic.text, sizeof(topic.text), "movra/v1/%s/%s/%s", level, to, from);
	return topic;
}

const level_row *row_of(std::string_view level)
{
	for (const level_row &row : level_table)
		if (level == row.level)
			return &row;
	return nullptr;
}

const level_row *row_of(uint32_t type)
{
	for (const level_row &row : level_table)
		if (row.type == type)
			return &row;
	return nullptr;
}

// The three levels behind the prefix; false for any other number of them.
bool split(std::string_view text, std::array<std::string_view, 3> *levels)
{
	if (text.substr(0, prefix.size()) != prefix)
		return false;
	text.remove_prefix(prefix.size());

	for (size_t i = 0; i < 2; i++) {
		const size_t slash = text.find('/');
		if (slash == std::string_view::npos)
			return false;
		(*levels)[i] = text.substr(0, slash);
		text.remove_prefix(slash + 1);
	}
	(*levels)[2] = text;
	return text.find('/') == std::string_view::npos;
}

bool parse_number(std::string_view text, uintptr_t *number)
{
	const char *end = text.data() + text.size();
	const auto [stop, error] = std::from_chars(text.data(), end, *number);
	return error == std::errc() && stop == end;
}

} // namespace

topic_text topic_of_address(const address_entry *entry, const char *sender)
{
	const char *level = row_of(entry->type)->level;
	if (entry->type != TERVBUS_ADDRESS_SPECIAL)
		return join(level, entry->value.text, sender);
	char number[24];
	(void)snprintf(number, sizeof(number), "%" PRIuPTR, entry->value.number); // 20 digits at most
	return join(level, number, sender);
}

topic_text topic_of_status(const bus_names &names)
{
	return join("status", names.group.text, names.unit.text);
}

topic_filters topic_subscriptions(const bus_names &names)
{
	topic_filters list;
	list.filters[list.count++] = join("ua", names.unit.text, "+");
	list.filters[list.count++] = join("status", "+", dm_client_name);
	if (*names.group.text != '\0') {
		list.filters[list.count++] = join("grp", names.group.text, "+");
		list.filters[list.count++] = join("status", names.group.text, "+");
	}
	if (bus_name_is_dm_client(names.unit.text))
		list.filters[list.count++] = join("special", "0", "+");
	return list;
}

bool topic_parse(std::string_view text, bus_topic *parsed)
{
	std::array<std::string_view, 3> levels;
	if (!split(text, &levels))
		return false;

	const level_row *row = row_of(levels[0]);
	if (row == nullptr || !bus_name_usable(levels[2]))
		return false;

	const bool level_may_be_empty = row->kind == topic_kind::status;
	if (!bus_name_usable(levels[1]) && !(level_may_be_empty && levels[1].empty()))
		return false;

	uintptr_t special = 0;
	if (row->type == TERVBUS_ADDRESS_SPECIAL && !parse_number(levels[1], &special))
		return false;

	*parsed = {row->kind, row->type, bus_name_of(levels[1]), bus_name_of(levels[2]), special};
	return true;
}

bool topic_is_own_inbox(const bus_topic &topic, const bus_names &names)
{
	if (topic.kind != topic_kind::inbox)
		return false;
	if (topic.type == TERVBUS_ADDRESS_UNIT)
		return strcmp(topic.to.text, names.unit.text) == 0;
	if (topic.type == TERVBUS_ADDRESS_GROUP)
		return *names.group.text != '\0' && strcmp(topic.to.text, names.group.text) == 0;
	return bus_name_is_dm_client(names.unit.text) && topic.special == dm_client_special;
}
