#include "unit/movrabus/bus_fixture.h"

#include <thread>

#include "support/fail_nth.h"

using testing::ElementsAre;
using testing::IsEmpty;
using strings = std::vector<std::string>;

namespace
{

class bus_sending : public bus_test
{
protected:
	// The library calls of the test itself, without those of the start.
	strings calls_since_start() const
	{
		strings all = fake_bus::calls();
		auto start_end = std::find(all.begin(), all.end(), std::string("tervbus_init_client ") + url);
		return strings(start_end + 1, all.end());
	}
};

}

TEST_F(bus_sending, sends_a_copy_of_the_text_as_json_with_its_zero_byte)
{
	start();
	fake_bus::set_next_id(0xAB);

	EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, "PEER"), 0);

	fake_bus::sent_message sent = fake_bus::last_sent();
	EXPECT_EQ(sent.bytes, std::string("{}\0", 3));
	EXPECT_EQ(sent.length, 3u);
	EXPECT_EQ(sent.content_type, "application/json");
	EXPECT_THAT(sent.destination, ElementsAre(fake_bus::unit("PEER")));
	EXPECT_EQ(sent.flags, 0);
	EXPECT_EQ(log.messages("INFO").back(), "mobus_send_message status=0, target=PEER, id=000ab, msg={}");
	EXPECT_THAT(log.messages("ERR"), IsEmpty());
}

TEST_F(bus_sending, makes_the_library_calls_in_order)
{
	start();
	fake_bus::set_delivery(fake_bus::delivery::on_demand);

	EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, "PEER"), 0);

	EXPECT_EQ(calls_since_start(), (strings{"tervbus_chain_address 2 PEER", "tervbus_send_message 0"}));
}

TEST_F(bus_sending, keeps_the_record_until_the_delivery_and_frees_it_there)
{
	start();
	fake_bus::set_delivery(fake_bus::delivery::on_demand);
	EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, "PEER"), 0);
	EXPECT_EQ(fake_bus::count_calls("tervbus_free_address"), 2u); // the identity's two

	fake_bus::deliver(0, 1);

	EXPECT_EQ(fake_bus::count_calls("tervbus_free_address"), 3u);
	EXPECT_EQ(fake_bus::calls().back(), "tervbus_free_address 1");
}

TEST_F(bus_sending, logs_from_a_record_that_was_delivered_before_the_send_returned)
{
	start();

	EXPECT_EQ(mobus_send_message(connection, "{\"a\":1}", TERVBUS_ADDRESS_UNIT, "PEER"), 0);

	EXPECT_EQ(log.messages("INFO").back(), "mobus_send_message status=0, target=PEER, id=00001, msg={\"a\":1}");
	EXPECT_EQ(calls_since_start(),
			(strings{"tervbus_chain_address 2 PEER", "tervbus_send_message 0", "tervbus_free_address 1"}));
}

TEST_F(bus_sending, survives_deliveries_from_another_thread_at_any_moment)
{
	start();
	fake_bus::set_delivery(fake_bus::delivery::on_demand);
	constexpr size_t count = 200;
	std::thread library([] {
		for (size_t i = 0; i < count; i++) {
			ASSERT_TRUE(fake_bus::wait_for_sent(i + 1));
			fake_bus::deliver(i, 1);
		}
	});

	for (size_t i = 0; i < count; i++)
		EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, "PEER"), 0);
	library.join();

	EXPECT_EQ(fake_bus::count_calls("tervbus_free_address"), 2 + count);
}

TEST_F(bus_sending, fails_without_a_connection)
{
	EXPECT_EQ(mobus_send_message(nullptr, "{}", TERVBUS_ADDRESS_UNIT, "PEER"), -1);

	EXPECT_EQ(log.messages("ERR"), (strings{"Movra Bus connection is NULL"}));
	EXPECT_THAT(fake_bus::calls(), IsEmpty());
}

TEST_F(bus_sending, fails_without_a_message)
{
	start();

	EXPECT_EQ(mobus_send_message(connection, nullptr, TERVBUS_ADDRESS_UNIT, "PEER"), -1);

	EXPECT_EQ(log.messages("ERR"), (strings{"message is NULL"}));
	EXPECT_THAT(calls_since_start(), IsEmpty());
}

TEST_F(bus_sending, gives_back_the_code_of_a_refused_address_and_frees_everything)
{
	start();
	fake_bus::script("tervbus_chain_address", -5);

	EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, "PEER"), -5);

	EXPECT_EQ(log.messages("ERR"), (strings{"Failed to get address for PEER"}));
	EXPECT_EQ(calls_since_start(), (strings{"tervbus_chain_address 2 PEER", "tervbus_free_address 1"}));
	EXPECT_THAT(fake_bus::sent(), IsEmpty());
}

TEST_F(bus_sending, leaves_a_missing_target_to_the_library)
{
	start();

	EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, nullptr), -1);

	EXPECT_EQ(log.messages("ERR"), (strings{"Failed to get address for (null)"}));
}

TEST_F(bus_sending, passes_the_address_type_on)
{
	start();

	EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_GROUP, "FLEET"), 0);

	EXPECT_THAT(fake_bus::last_sent().destination, ElementsAre(fake_bus::group("FLEET")));
}

TEST_F(bus_sending, gives_back_the_code_of_a_refused_send_and_frees_everything)
{
	start();
	fake_bus::script("tervbus_send_message", -9);

	EXPECT_EQ(mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, "PEER"), -9);

	EXPECT_EQ(log.messages("INFO").back(), "mobus_send_message status=-9, target=PEER, id=00000, msg={}");
	EXPECT_EQ(log.messages("ERR"), (strings{"Failed to send message over Movra Bus"}));
	EXPECT_EQ(calls_since_start(),
			(strings{"tervbus_chain_address 2 PEER", "tervbus_send_message 0", "tervbus_free_address 1"}));
}

TEST_F(bus_sending, survives_every_failing_allocation)
{
	start();
	for (unsigned nth = 1;; ++nth) {
		SCOPED_TRACE(nth);
		log.clear();
		fail_nth failure("calloc", nth);
		int result = mobus_send_message(connection, "{}", TERVBUS_ADDRESS_UNIT, "PEER");
		if (!failure.fired()) {
			EXPECT_EQ(nth, 3u); // the record and the text
			break;
		}
		EXPECT_EQ(result, -1);
		EXPECT_EQ(log.messages("ERR").back(), "memory allocation failed");
		EXPECT_THAT(log.messages("ERR").front(), testing::StartsWith("Failed to malloc "));
		EXPECT_THAT(calls_since_start(), IsEmpty());
	}
}

TEST(bus_address, is_shown_by_its_type)
{
	struct {
		fake_bus::address address;
		const char *text;
	} rows[] = {
			{fake_bus::unit("VIN1"), "<UA: VIN1> "},
			{fake_bus::group("FLEET"), "<GRP: FLEET>"},
			{fake_bus::special(0), "<DM-CLIENT>"},
			{fake_bus::special(3), "<UNKNOWN SPECIAL 3>"},
			{{4, "x"}, "<UNKNOWN TYPE 4>"},
			{{0, "x"}, "<UNKNOWN TYPE 0>"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		address_entry *entry = fake_bus::make_list({row.address});
		char *text = mobus_address_to_string(entry);
		EXPECT_STREQ(text, row.text);
		free(text);
		fake_bus::free_list(entry);
	}
}

TEST(bus_address, has_no_text_when_memory_is_short_or_there_is_none)
{
	address_entry *entry = fake_bus::make_list({fake_bus::unit("VIN1")});
	fail_nth failure("vasprintf", 1);

	EXPECT_EQ(mobus_address_to_string(entry), nullptr);
	EXPECT_EQ(mobus_address_to_string(nullptr), nullptr);
	fake_bus::free_list(entry);
}
