// The small parts, each alone: URL, names, topics, ids, the ids already seen, peers, conditions and pauses.
#include "address.h"
#include "broker_url.h"
#include "conditions.h"
#include "message_id.h"
#include "presence.h"
#include "seen_ids.h"
#include "topic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(broker_url, takes_a_host_and_a_port)
{
	struct row {
		const char *text;
		const char *host;
		uint16_t port;
		bool numeric;
	};
	const row rows[] = {
			{"tcp://127.0.0.1:9133", "127.0.0.1", 9133, true},
			{"tcp://broker.example:1", "broker.example", 1, false},
			{"tcp://[::1]:65535", "::1", 65535, true},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.text);
		broker_url url;
		ASSERT_TRUE(broker_url_parse(row.text, &url));
		EXPECT_STREQ(url.host, row.host);
		EXPECT_EQ(url.port, row.port);
		EXPECT_EQ(broker_host_is_numeric(url.host), row.numeric);
	}
}

TEST(broker_url, refuses_anything_else_and_leaves_the_record)
{
	const std::string long_host = "tcp://" + std::string(254, 'x') + ":1";
	for (const std::string &text : {std::string(""), std::string("tcp://"), std::string("tcp://host"),
				 std::string("tcp://host:"), std::string("tcp://:1"), std::string("tcp://host:0"),
				 std::string("tcp://host:65536"), std::string("tcp://host:1x"), std::string("tcp://host:-1"),
				 std::string("tcp://ho st:1"), std::string("tcp://host:1/"), std::string("tcp://a/b:1"),
				 std::string("tcp://user@host:1"), std::string("tcp://::1:1"), std::string("tcp://[]:1"),
				 std::string("ssl://host:1"), std::string("TCP://host:1"), long_host}) {
		SCOPED_TRACE(text);
		broker_url url{"before", 7};
		EXPECT_FALSE(broker_url_parse(text, &url));
		EXPECT_STREQ(url.host, "before");
		EXPECT_EQ(url.port, 7);
	}
}

TEST(bus_name, is_usable_unless_it_could_change_a_topic)
{
	for (const char *name : {"a", "unit 7", "Gerät", "*", "$x", "DM-CLIENT"})
		EXPECT_TRUE(bus_name_usable(name)) << name;
	for (const char *name : {"", "a/b", "+", "#", "a\nb", "a\x7F", "\xFF\xFE"})
		EXPECT_FALSE(bus_name_usable(name)) << name;
	EXPECT_FALSE(bus_name_usable(std::string_view("a\0b", 3)));
	EXPECT_TRUE(bus_name_usable(std::string(128, 'x')));
	EXPECT_FALSE(bus_name_usable(std::string(129, 'x')));
}

TEST(address_list, appends_at_the_tail_and_copies_the_text)
{
	address_entry *list = nullptr;
	char name[] = "unit";
	ASSERT_EQ(tervbus_chain_address(&list, 2, name), 0);
	ASSERT_EQ(tervbus_chain_address(&list, 3, "group"), 0);
	ASSERT_EQ(tervbus_chain_address(&list, 1, reinterpret_cast<const void *>(7)), 0);
	ASSERT_EQ(tervbus_chain_address(&list, 1, nullptr), 0);
	name[0] = 'X';

	EXPECT_STREQ(list->value.text, "unit");
	EXPECT_EQ(list->type, 2u);
	EXPECT_STREQ(list->next->value.text, "group");
	EXPECT_EQ(list->next->next->value.number, 7u);
	EXPECT_EQ(list->next->next->next->value.number, 0u);
	EXPECT_EQ(list->next->next->next->next, nullptr);
	EXPECT_EQ(tervbus_free_address(list, 1), 0);
}

TEST(address_list, refuses_no_text_and_unknown_types_and_leaves_the_list)
{
	address_entry *list = nullptr;
	EXPECT_LT(tervbus_chain_address(&list, 2, nullptr), 0);
	EXPECT_LT(tervbus_chain_address(&list, 2, ""), 0);
	EXPECT_LT(tervbus_chain_address(&list, 3, nullptr), 0);
	EXPECT_LT(tervbus_chain_address(&list, 3, ""), 0);
	EXPECT_LT(tervbus_chain_address(&list, 0, "x"), 0);
	EXPECT_LT(tervbus_chain_address(&list, 4, "x"), 0);
	EXPECT_LT(tervbus_chain_address(nullptr, 2, "x"), 0);
	EXPECT_EQ(list, nullptr);
}

TEST(address_list, frees_one_entry_or_all_and_takes_null)
{
	address_entry *list = nullptr;
	ASSERT_EQ(tervbus_chain_address(&list, 2, "first"), 0);
	ASSERT_EQ(tervbus_chain_address(&list, 2, "second"), 0);
	address_entry *second = list->next;
	EXPECT_EQ(tervbus_free_address(list, 0), 0);
	EXPECT_STREQ(second->value.text, "second");
	EXPECT_EQ(tervbus_free_address(second, 1), 0);
	EXPECT_EQ(tervbus_free_address(nullptr, 1), 0);
	EXPECT_EQ(tervbus_free_address(nullptr, 0), 0);
}

TEST(bus_topic, is_the_same_after_making_and_taking_apart)
{
	struct row {
		int type;
		const void *value;
		const char *topic;
		const char *to;
		uintptr_t special;
	};
	const row rows[] = {
			{2, "unit", "movra/v1/ua/unit/me", "unit", 0},
			{3, "group", "movra/v1/grp/group/me", "group", 0},
			{1, nullptr, "movra/v1/special/0/me", "0", 0},
			{1, reinterpret_cast<const void *>(12), "movra/v1/special/12/me", "12", 12},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.topic);
		address_entry *entry = nullptr;
		ASSERT_EQ(tervbus_chain_address(&entry, row.type, row.value), 0);
		const address_list owner(entry);
		ASSERT_STREQ(topic_of_address(entry, "me").text, row.topic);

		bus_topic topic;
		ASSERT_TRUE(topic_parse(row.topic, &topic));
		EXPECT_EQ(topic.kind, topic_kind::inbox);
		EXPECT_EQ(topic.type, static_cast<uint32_t>(row.type));
		EXPECT_STREQ(topic.to.text, row.to);
		EXPECT_STREQ(topic.from.text, "me");
		EXPECT_EQ(topic.special, row.special);
	}
}

TEST(bus_topic, of_a_status_has_an_empty_level_without_a_group)
{
	EXPECT_STREQ(topic_of_status({{"unit"}, {"group"}}).text, "movra/v1/status/group/unit");
	EXPECT_STREQ(topic_of_status({{"unit"}, {}}).text, "movra/v1/status//unit");
	bus_topic topic;
	ASSERT_TRUE(topic_parse("movra/v1/status//unit", &topic));
	EXPECT_EQ(topic.kind, topic_kind::status);
	EXPECT_STREQ(topic.to.text, "");
	EXPECT_STREQ(topic.from.text, "unit");
}

TEST(bus_topic, is_refused_when_it_is_none_of_the_bus)
{
	for (const char *text : {"", "movra/v1/", "movra/v1/ua", "movra/v1/ua/a", "movra/v1/ua/a/", "movra/v1/ua//b",
				 "movra/v1/ua/a/b/c", "movra/v1/other/a/b", "movra/v2/ua/a/b", "x/movra/v1/ua/a/b",
				 "movra/v1/special/x/b", "movra/v1/special/-1/b", "movra/v1/special/99999999999999999999/b",
				 "movra/v1/ua/+/b", "movra/v1/ua/a/#"}) {
		SCOPED_TRACE(text);
		bus_topic topic;
		EXPECT_FALSE(topic_parse(text, &topic));
	}
}

TEST(bus_topic, has_room_for_the_longest_names)
{
	const std::string name(name_max, 'x');
	address_entry *entry = nullptr;
	ASSERT_EQ(tervbus_chain_address(&entry, 2, name.c_str()), 0);
	const address_list owner(entry);
	EXPECT_EQ(topic_of_address(entry, name.c_str()).text, "movra/v1/ua/" + name + "/" + name);
	const bus_names names{bus_name_of(name), bus_name_of(name)};
	EXPECT_EQ(topic_of_status(names).text, "movra/v1/status/" + name + "/" + name);
	address_entry special{1, {.number = UINTPTR_MAX}, nullptr};
	EXPECT_EQ(topic_of_address(&special, name.c_str()).text,
			"movra/v1/special/" + std::to_string(UINTPTR_MAX) + "/" + name);
}

namespace
{

std::vector<std::string> filters_of(const bus_names &names)
{
	const topic_filters list = topic_subscriptions(names);
	std::vector<std::string> texts;
	for (size_t i = 0; i < list.count; i++)
		texts.push_back(list.filters[i].text);
	return texts;
}

} // namespace

TEST(bus_topic, subscriptions_are_the_own_inboxes_and_two_kinds_of_status)
{
	EXPECT_THAT(filters_of({{"unit"}, {"group"}}),
			UnorderedElementsAre("movra/v1/ua/unit/+", "movra/v1/grp/group/+", "movra/v1/status/group/+",
					"movra/v1/status/+/DM-CLIENT"));
	EXPECT_THAT(filters_of({{"unit"}, {}}), UnorderedElementsAre("movra/v1/ua/unit/+", "movra/v1/status/+/DM-CLIENT"));
	EXPECT_THAT(filters_of({{"DM-CLIENT"}, {}}),
			UnorderedElementsAre("movra/v1/ua/DM-CLIENT/+", "movra/v1/special/0/+", "movra/v1/status/+/DM-CLIENT"));
}

TEST(bus_topic, is_an_own_inbox_by_unit_group_or_special_address)
{
	const bus_names names{{"unit"}, {"group"}};
	const auto own = [](const char *text, const bus_names &of) {
		bus_topic topic;
		return topic_parse(text, &topic) && topic_is_own_inbox(topic, of);
	};
	EXPECT_TRUE(own("movra/v1/ua/unit/x", names));
	EXPECT_TRUE(own("movra/v1/grp/group/x", names));
	EXPECT_TRUE(own("movra/v1/special/0/x", {{"DM-CLIENT"}, {}}));
	EXPECT_FALSE(own("movra/v1/ua/other/x", names));
	EXPECT_FALSE(own("movra/v1/grp/other/x", names));
	EXPECT_FALSE(own("movra/v1/special/0/x", names));
	EXPECT_FALSE(own("movra/v1/special/1/x", {{"DM-CLIENT"}, {}}));
	EXPECT_FALSE(own("movra/v1/status/group/unit", names));
}

TEST(short_id, has_twenty_bits_and_skips_zero)
{
	EXPECT_EQ(short_id_next(0), 1u);
	EXPECT_EQ(short_id_next(0xFFFFE), 0xFFFFFu);
	EXPECT_EQ(short_id_next(0xFFFFF), 1u);
}

TEST(message_id, is_the_same_after_writing_and_reading)
{
	message_id id;
	message_id read{};
	ASSERT_TRUE(message_id_new(&id));
	const std::string text = message_id_text(id).text;
	EXPECT_EQ(text.size(), 32u);
	ASSERT_TRUE(message_id_parse(text, &read));
	EXPECT_EQ(read, id);
	ASSERT_TRUE(message_id_parse("0123456789abcdef0123456789abcdef", &read));
	EXPECT_EQ(read[0], 0x01);
	EXPECT_EQ(read[15], 0xEF);
}

TEST(message_id, is_refused_unless_it_is_32_lower_case_hex_digits)
{
	const std::string good(32, 'a');
	message_id id{};
	for (const std::string &text : {std::string(), good + "a", good.substr(1), "A" + good.substr(1),
				 "g" + good.substr(1), " " + good.substr(1)})
		EXPECT_FALSE(message_id_parse(text, &id)) << text;
}

namespace
{

message_id numbered(uint32_t number)
{
	message_id id{};
	for (size_t i = 0; i < 4; i++)
		id[i] = static_cast<uint8_t>(number >> (8 * i));
	return id;
}

} // namespace

class seen_ids_of_senders : public testing::Test
{
protected:
	void TearDown() override
	{
		seen_ids_clear(&seen);
	}

	seen_verdict note(const std::string &sender, uint32_t number, int64_t now_ms = 0)
	{
		return seen_ids_note(&seen, sender.c_str(), numbered(number), now_ms);
	}

	seen_ids seen;
};

TEST_F(seen_ids_of_senders, know_an_id_again_from_the_same_sender_only)
{
	EXPECT_EQ(note("a", 1, 0), seen_verdict::fresh);
	EXPECT_EQ(note("a", 1, 1), seen_verdict::known);
	EXPECT_EQ(note("b", 1, 2), seen_verdict::fresh);
	EXPECT_EQ(note("a", 2, 3), seen_verdict::fresh);
}

TEST_F(seen_ids_of_senders, keep_ids_apart_that_begin_alike)
{
	EXPECT_EQ(note("a", 0x00001234), seen_verdict::fresh);
	EXPECT_EQ(note("a", 0x00011234), seen_verdict::fresh);
	EXPECT_EQ(note("a", 0x00001234), seen_verdict::known);
	EXPECT_EQ(note("a", 0x00011234), seen_verdict::known);
}

TEST_F(seen_ids_of_senders, know_the_last_4096_ids_of_each)
{
	for (uint32_t i = 0; i < 4096; i++)
		ASSERT_EQ(note("a", i), seen_verdict::fresh);
	EXPECT_EQ(note("a", 0), seen_verdict::known);
	EXPECT_EQ(note("a", 4096), seen_verdict::fresh);
	EXPECT_EQ(note("a", 1), seen_verdict::known);
	EXPECT_EQ(note("a", 0), seen_verdict::fresh) << "the oldest is forgotten";
	EXPECT_EQ(seen.senders[0]->count, 4096u);
}

TEST_F(seen_ids_of_senders, forget_silent_ones_when_many_are_known)
{
	for (uint32_t i = 0; i < 64; i++)
		ASSERT_EQ(note("sender " + std::to_string(i), 1), seen_verdict::fresh);
	ASSERT_EQ(note("one more", 1, seen_ids_silence_ms), seen_verdict::fresh);
	EXPECT_EQ(seen.count, 65u) << "nobody has been silent for too long";
	ASSERT_EQ(note("another", 1, seen_ids_silence_ms + 1), seen_verdict::fresh);
	EXPECT_EQ(seen.count, 2u);
	EXPECT_EQ(note("one more", 1, seen_ids_silence_ms + 2), seen_verdict::known);
}

TEST_F(seen_ids_of_senders, forget_the_longest_silent_one_when_memory_is_meant_for_no_more)
{
	for (uint32_t i = 0; i < seen_ids_senders_max; i++)
		ASSERT_EQ(note("sender " + std::to_string(i), 1, i), seen_verdict::fresh);
	ASSERT_EQ(note("sender 0", 1, 1000), seen_verdict::known);
	ASSERT_EQ(note("one more", 1, 1001), seen_verdict::fresh);
	EXPECT_EQ(seen.count, seen_ids_senders_max);
	EXPECT_EQ(note("sender 0", 1, 1002), seen_verdict::known);
	EXPECT_EQ(note("sender 2", 1, 1002), seen_verdict::known);
	EXPECT_EQ(note("sender 1", 1, 1003), seen_verdict::fresh) << "it was silent the longest";
}

class presence_of_peers : public testing::Test
{
protected:
	presence_of_peers()
	{
		table.own_unit = "me";
	}

	void TearDown() override
	{
		presence_clear(&table);
		EXPECT_EQ(table.count, 0u);
	}

	// "+name", "-name" or "".
	std::string note(const std::string &unit, const char *status, int64_t now_ms = 0, uint32_t left_s = 180)
	{
		return note_in("group", unit, status, now_ms, left_s);
	}

	std::string note_in(const std::string &group, const std::string &unit, const char *status, int64_t now_ms = 0,
			uint32_t left_s = 180)
	{
		const presence_change change =
				presence_note(&table, bus_name_of(unit), bus_name_of(group), status, left_s, now_ms);
		const scoped<presence_peer, presence_peer_free> gone(change.disconnected);
		if (change.connected != nullptr)
			return std::string("+") + change.connected->unit.text;
		return gone ? std::string("-") + gone->unit.text : "";
	}

	std::vector<std::string> expire(int64_t now_ms)
	{
		std::vector<std::string> units;
		fifo<presence_peer> gone = presence_expire(&table, now_ms);
		while (presence_peer *peer = fifo_pop(&gone)) {
			units.push_back(peer->unit.text);
			presence_peer_free(peer);
		}
		return units;
	}

	presence_table table;
};

TEST_F(presence_of_peers, is_told_once_for_each_change)
{
	EXPECT_EQ(note("a", "on", 0), "+a");
	EXPECT_EQ(note("a", "on", 1), "");
	EXPECT_EQ(note("a", "off", 2), "-a");
	EXPECT_EQ(note("a", "off", 3), "");
	EXPECT_EQ(note("a", "on", 4), "+a");
	EXPECT_EQ(note("a", "", 5), "-a") << "taken back";
}

TEST_F(presence_of_peers, is_not_of_the_node_itself_and_not_in_other_texts)
{
	EXPECT_EQ(note("me", "on"), "");
	EXPECT_EQ(note("me", "off"), "");
	EXPECT_EQ(note("a", "On"), "");
	EXPECT_EQ(note("a", "on "), "");
	EXPECT_EQ(table.count, 0u);
}

TEST_F(presence_of_peers, ends_when_it_is_not_refreshed_in_time)
{
	EXPECT_EQ(presence_deadline(&table), INT64_MAX);
	note("a", "on", 0);
	note("b", "on", 0);
	note("b", "on", 60'000);
	EXPECT_EQ(presence_deadline(&table), 180'000);
	EXPECT_THAT(expire(179'999), IsEmpty());
	EXPECT_THAT(expire(180'000), ElementsAre("a"));
	EXPECT_EQ(presence_deadline(&table), 240'000);
	EXPECT_THAT(expire(240'000), ElementsAre("b"));
	EXPECT_EQ(presence_deadline(&table), INT64_MAX);
}

TEST_F(presence_of_peers, counts_the_time_that_a_status_has_already_been_kept)
{
	note("a", "on", 0, 30);
	note("b", "on", 0, UINT32_MAX); // another broker's, without an end
	EXPECT_THAT(expire(30'000), ElementsAre("a"));
	EXPECT_THAT(expire(180'000), ElementsAre("b"));
}

// What a unit has said last before its certificate got another group stays where it was.
TEST_F(presence_of_peers, does_not_end_with_what_was_left_behind_in_another_group)
{
	EXPECT_EQ(note_in("new", "a", "on"), "+a");
	EXPECT_EQ(note_in("old", "a", "off"), "");
	EXPECT_EQ(note_in("old", "a", ""), "");
	EXPECT_EQ(note_in("", "a", "off"), "");
	EXPECT_EQ(note_in("new", "a", "off"), "-a");
}

TEST_F(presence_of_peers, goes_over_to_another_group_without_a_word)
{
	EXPECT_EQ(note_in("old", "a", "on", 0), "+a");
	EXPECT_EQ(note_in("new", "a", "on", 1000), "");
	EXPECT_EQ(note_in("old", "a", "off", 2000), "");
	EXPECT_THAT(expire(180'000), IsEmpty());
	EXPECT_EQ(note_in("new", "a", "off", 180'500), "-a");
}

TEST_F(presence_of_peers, stays_with_the_newer_of_two_groups_whichever_comes_first)
{
	EXPECT_EQ(note_in("new", "a", "on", 0, 170), "+a");
	EXPECT_EQ(note_in("old", "a", "on", 0, 20), "") << "kept, and not run out yet";
	EXPECT_THAT(expire(20'000), IsEmpty());
	EXPECT_EQ(note_in("old", "a", "off", 20'000), "");
	EXPECT_EQ(note_in("new", "a", "off", 20'000), "-a");
}

TEST_F(presence_of_peers, is_known_of_a_limited_number)
{
	for (size_t i = 0; i < presence_peers_max; i++)
		note(std::to_string(i), "on");
	EXPECT_EQ(note("one more", "on"), "");
	EXPECT_EQ(note("7", "off"), "-7");
	EXPECT_EQ(note("one more", "on"), "+one more");
	EXPECT_EQ(expire(180'000).size(), presence_peers_max);
}

TEST(condition_filter, lets_a_condition_through_that_differs_from_the_last_one)
{
	condition_filter filter;
	EXPECT_TRUE(condition_changes(&filter, 7));
	EXPECT_TRUE(condition_changes(&filter, 2));
	EXPECT_FALSE(condition_changes(&filter, 2));
	EXPECT_TRUE(condition_changes(&filter, 0));
	EXPECT_TRUE(condition_changes(&filter, 2));
}

TEST(backoff, doubles_from_250_ms_to_30_s_within_half_and_all_of_the_step)
{
	backoff wait;
	for (const int64_t step : {250, 500, 1000, 2000, 4000, 8000, 16000, 30000, 30000}) {
		backoff low = wait;
		backoff high = wait;
		EXPECT_EQ(backoff_take(&low, 0), step / 2);
		EXPECT_EQ(backoff_take(&high, static_cast<uint32_t>(step / 2)), step);
		EXPECT_LE(backoff_take(&wait, UINT32_MAX), step);
	}
}

TEST(backoff, starts_anew_only_after_a_connection_that_held)
{
	backoff wait;
	for (int i = 0; i < 10; i++)
		backoff_take(&wait, 0);
	backoff_note_run(&wait, backoff_stable_ms - 1, false);
	EXPECT_EQ(backoff_take(&wait, 0), 15'000);
	backoff_note_run(&wait, backoff_stable_ms, false);
	EXPECT_EQ(backoff_take(&wait, 0), 125);
}

TEST(backoff, is_long_after_being_thrown_out)
{
	backoff wait;
	backoff_note_run(&wait, backoff_stable_ms, true);
	EXPECT_EQ(backoff_take(&wait, 0), 4000);
}
