// What a DISCONNECT from the broker is told as. A program of its own: libmosquitto 2.0.11 unlocks a mutex that it does
// not hold when it takes such a packet, which ThreadSanitizer reports, so that build leaves this one out.
#include "bus_fixture.h"

#include "support/test_scripted_broker.h"

using bus_disconnect = bus_test;

TEST_F(bus_disconnect, is_told_as_aborted_unless_the_broker_itself_goes_away)
{
	struct row {
		const char *name;
		uint8_t reason;
		int condition;
	};
	const row rows[] = {
			{"session taken over", 0x8E, TERVBUS_CONDITION_CONNECTION_ABORTED},
			{"administrative action", 0x98, TERVBUS_CONDITION_CONNECTION_ABORTED},
			{"not authorised", 0x87, TERVBUS_CONDITION_CONNECTION_ABORTED},
			{"shutting down", 0x8B, TERVBUS_CONDITION_CONNECTION_BROKE},
			{"busy", 0x89, TERVBUS_CONDITION_CONNECTION_BROKE},
			{"keep-alive", 0x8D, TERVBUS_CONDITION_CONNECTION_BROKE},
			{"no reason", 0x00, TERVBUS_CONDITION_CONNECTION_BROKE},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.name);
		test_scripted_broker broker(cast().ca, {.disconnect_reason = row.reason});
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(broker.url()), 0);
		ASSERT_TRUE(node.wait([](const node_record &record) { return record.conditions.size() >= 3; }));
		const std::vector<int> told = node.record().conditions;
		EXPECT_THAT(std::vector<int>(told.begin(), told.begin() + 3), testing::ElementsAre(7, 0, row.condition));
		ASSERT_TRUE(node.stop_and_wait());
	}
}
