#include "unit/movrabus/bus_fixture.h"

#include <thread>

#include "support/fail_nth.h"

using testing::IsEmpty;
using strings = std::vector<std::string>;

namespace
{

class bus_callbacks : public bus_test
{
protected:
	void start_quietly()
	{
		start();
		log.clear();
	}
	void send(const char *text)
	{
		EXPECT_EQ(mobus_send_message(connection, text, TERVBUS_ADDRESS_UNIT, "PEER"), 0);
	}
	void fail_deliveries(int count)
	{
		fake_bus::set_delivery(fake_bus::delivery::before_return, 0);
		for (int i = 0; i < count; i++)
			send("{}");
	}
};

}

TEST_F(bus_callbacks, log_each_connection_condition)
{
	struct {
		int condition;
		const char *level;
		const char *text;
	} rows[] = {
			{0, "INFO", "Movra Bus connection: running"},
			{7, "INFO", "Movra Bus connection: start"},
			{1, "ERR", "Movra Bus error: resolution failed"},
			{2, "ERR", "Movra Bus error: connection failed"},
			{3, "ERR", "Movra Bus error: registration failed"},
			{4, "ERR", "Movra Bus error: connection broke"},
			{5, "ERR", "Movra Bus error: connection aborted"},
			{6, "ERR", "Movra Bus error: client stopped"},
			{8, "ERR", "Movra Bus error: condition=8"},
			{-1, "ERR", "Movra Bus error: condition=-1"},
	};
	start();
	for (const auto &row : rows) {
		SCOPED_TRACE(row.condition);
		log.clear();
		fake_bus::status(row.condition);
		EXPECT_EQ(log.messages(), (strings{row.text}));
		EXPECT_TRUE(log.has_line(row.level, "movrabus", row.text));
	}
	EXPECT_EQ(mobus_get_state(connection), 0);
}

TEST_F(bus_callbacks, log_the_library_debug_text_at_dbg)
{
	start_quietly();
	fake_bus::debug("hidden");
	verbosity_scope more(LOG_DBG);
	fake_bus::debug("attempt 2");

	EXPECT_EQ(log.messages(), (strings{"attempt 2"}));
	EXPECT_TRUE(log.has_line("DBG", "movrabus", "attempt 2"));
}

TEST_F(bus_callbacks, log_an_acknowledgement_at_d2bg)
{
	start_quietly();
	fake_bus::set_next_id(0x12);
	send("{}");
	EXPECT_FALSE(log.has_line("D2BG", "movrabus", "BUS ACK 00012 {}"));
	verbosity_scope more(LOG_D2BG);
	send("{\"b\":2}");

	EXPECT_TRUE(log.has_line("D2BG", "movrabus", "BUS ACK 00013 {\"b\":2}"));
}

TEST_F(bus_callbacks, log_a_failed_delivery_at_warn_and_free_the_message)
{
	start_quietly();
	fake_bus::set_next_id(0xFFFFF);
	fail_deliveries(1);

	EXPECT_EQ(log.messages("WARN"), (strings{"BUS ERR fffff {}"}));
	EXPECT_EQ(fake_bus::calls().back(), "tervbus_free_address 1");
}

TEST_F(bus_callbacks, log_only_the_first_four_failures_of_a_run)
{
	start_quietly();
	fail_deliveries(5);
	EXPECT_EQ(log.messages("WARN").size(), 4u);

	fail_deliveries(3);
	EXPECT_EQ(log.messages("WARN").size(), 4u);
}

TEST_F(bus_callbacks, log_failures_again_after_an_acknowledgement)
{
	start_quietly();
	fail_deliveries(6);
	fake_bus::set_delivery(fake_bus::delivery::before_return, 1);
	send("{}");
	fail_deliveries(5);

	EXPECT_EQ(log.messages("WARN").size(), 8u);
}

TEST_F(bus_callbacks, take_a_delivery_without_a_message_as_nothing)
{
	start_quietly();
	for (int i = 0; i < 4; i++)
		fake_bus::deliver_null(0);
	EXPECT_THAT(log.messages(), IsEmpty());

	fail_deliveries(1); // and it did not count

	EXPECT_EQ(log.messages("WARN").size(), 1u);
}

TEST_F(bus_callbacks, note_a_peer_that_came)
{
	start_quietly();
	fake_bus::presence({fake_bus::unit("PEER")}, {});

	EXPECT_EQ(log.messages("INFO"), (strings{"Connected: <UA: PEER> ", "Movra Bus state: 0x02"}));
	EXPECT_EQ(mobus_get_state(connection), MOBUS_STATE_CONNECTED);
}

TEST_F(bus_callbacks, note_peers_in_list_order_those_that_came_first)
{
	start_quietly();
	fake_bus::presence(
			{fake_bus::special(0), fake_bus::group("G"), {8, "x"}}, {fake_bus::unit("GONE"), fake_bus::special(4)});

	EXPECT_EQ(log.messages("INFO"),
			(strings{"Connected: <DM-CLIENT>", "Connected: <GRP: G>", "Connected: <UNKNOWN TYPE 8>",
					"Disconnected: <UA: GONE> ", "Disconnected: <UNKNOWN SPECIAL 4>", "Movra Bus state: 0x06"}));
}

TEST_F(bus_callbacks, keep_the_connected_bit_when_the_dm_client_has_gone)
{
	start_quietly();
	fake_bus::presence({fake_bus::special(0)}, {});
	EXPECT_EQ(mobus_get_state(connection), MOBUS_STATE_CONNECTED | MOBUS_STATE_DM_CLIENT);

	fake_bus::presence({}, {fake_bus::special(0)});

	EXPECT_EQ(mobus_get_state(connection), MOBUS_STATE_CONNECTED);
	EXPECT_EQ(log.messages("INFO").back(), "Movra Bus state: 0x02");
}

TEST_F(bus_callbacks, leave_the_dm_client_bit_alone_for_other_special_addresses)
{
	start_quietly();
	fake_bus::presence({fake_bus::special(1)}, {});
	EXPECT_EQ(mobus_get_state(connection), MOBUS_STATE_CONNECTED);
	fake_bus::presence({fake_bus::special(0)}, {fake_bus::special(1)});

	EXPECT_EQ(mobus_get_state(connection), MOBUS_STATE_CONNECTED | MOBUS_STATE_DM_CLIENT);
}

TEST_F(bus_callbacks, change_nothing_for_an_entry_that_cannot_be_shown)
{
	start_quietly();
	{
		fail_nth failure("vasprintf", 1);
		fake_bus::presence({fake_bus::special(0)}, {});
	}
	EXPECT_EQ(mobus_get_state(connection), 0);
	EXPECT_EQ(log.messages("INFO"), (strings{"Movra Bus state: 0x00"}));

	fake_bus::presence({fake_bus::special(0)}, {});
	fail_nth failure("vasprintf", 1);
	fake_bus::presence({}, {fake_bus::special(0)});

	EXPECT_EQ(mobus_get_state(connection), MOBUS_STATE_CONNECTED | MOBUS_STATE_DM_CLIENT);
}

TEST_F(bus_callbacks, log_the_state_for_two_empty_lists)
{
	start_quietly();
	fake_bus::presence({}, {});

	EXPECT_EQ(log.messages(), (strings{"Movra Bus state: 0x00"}));
}

TEST_F(bus_callbacks, hand_an_incoming_message_to_the_agent)
{
	start_quietly();
	fake_bus::on_own_thread([] { fake_bus::message("{\"q\":1}", {fake_bus::unit("ASKER")}); });

	ASSERT_EQ(received.size(), 1u);
	EXPECT_EQ(received[0].text, "{\"q\":1}");
	EXPECT_EQ(received[0].length, 8u);
	EXPECT_EQ(received[0].first_source, "ASKER");
	EXPECT_EQ(received[0].context, &context);
	EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(bus_callbacks, hand_an_empty_message_on_with_length_0)
{
	start_quietly();
	fake_bus::message("", {});

	ASSERT_EQ(received.size(), 1u);
	EXPECT_EQ(received[0].length, 0u);
}

TEST_F(bus_callbacks, drop_incoming_messages_when_nobody_takes_them)
{
	connection = mobus_init(nullptr, files.node().c_str(), url, nullptr, nullptr, nullptr);
	ASSERT_NE(connection, nullptr);

	fake_bus::message("{}", {fake_bus::unit("ASKER")});

	EXPECT_THAT(received, IsEmpty());
}

TEST_F(bus_callbacks, report_a_missing_message_record)
{
	start_quietly();
	fake_bus::raw_message(nullptr);

	EXPECT_EQ(log.messages("ERR"), (strings{"msg is NULL"}));
	EXPECT_THAT(received, IsEmpty());
}

TEST_F(bus_callbacks, report_a_missing_client)
{
	start_quietly();
	tervbus_message message = {};
	fake_bus::client()->on_message(nullptr, &message);

	EXPECT_EQ(log.messages("ERR"), (strings{"client is NULL"}));
	EXPECT_THAT(received, IsEmpty());
}

TEST_F(bus_callbacks, do_nothing_without_a_client)
{
	start_quietly();
	tervbus_message message = {};
	fake_bus::client()->on_delivered(nullptr, &message, nullptr, 0);
	fake_bus::client()->on_presence(nullptr, nullptr, nullptr);
	fake_bus::client()->on_release(nullptr);

	EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(bus_callbacks, have_no_effect_before_the_client_has_started_but_for_status_and_debug)
{
	fake_bus::on_call("tervbus_init_client", [this] {
		log.clear();
		tervbus_client *early = fake_bus::client();
		tervbus_message message = {};
		message.data = const_cast<char *>("{}");
		message.length = 3;
		early->on_message(early, &message);
		early->on_delivered(early, &message, nullptr, 0);
		early->on_release(early);
		fake_bus::presence({fake_bus::special(0)}, {});
		EXPECT_THAT(log.messages(), IsEmpty());
		EXPECT_THAT(received, IsEmpty());
		fake_bus::status(2);
		EXPECT_EQ(log.messages(), (strings{"Movra Bus error: connection failed"}));
	});

	start();

	EXPECT_EQ(mobus_get_state(connection), 0);
}

TEST_F(bus_callbacks, log_a_missing_message_also_before_the_client_has_started)
{
	fake_bus::on_call("tervbus_init_client", [this] {
		log.clear();
		fake_bus::raw_message(nullptr);
		EXPECT_EQ(log.messages("ERR"), (strings{"msg is NULL"}));
	});

	start();
}

TEST_F(bus_callbacks, come_from_a_thread_while_the_state_is_asked_for)
{
	start_quietly();
	constexpr int rounds = 500;
	std::thread library([] {
		for (int i = 0; i < rounds; i++) {
			fake_bus::presence({}, {fake_bus::special(0)});
			fake_bus::presence({fake_bus::special(0)}, {});
		}
	});
	for (int i = 0; i < rounds; i++)
		EXPECT_EQ(mobus_get_state(connection) & ~(MOBUS_STATE_CONNECTED | MOBUS_STATE_DM_CLIENT), 0);
	library.join();

	EXPECT_EQ(mobus_get_state(connection), MOBUS_STATE_CONNECTED | MOBUS_STATE_DM_CLIENT);
}

TEST_F(bus_callbacks, tell_what_was_not_delivered_at_the_stop_and_free_it)
{
	start_quietly();
	fake_bus::set_delivery(fake_bus::delivery::on_demand);
	send("{\"last\":1}");

	stop();

	EXPECT_EQ(log.messages("WARN"), (strings{"BUS ERR 00001 {\"last\":1}"}));
}
