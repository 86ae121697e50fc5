// The table on the pure channel, row by row, and over a CAN server, all at once.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "play_row.h"
#include "support/can_server_thread.h"

namespace
{

class isotp_row : public testing::TestWithParam<size_t>
{
};

TEST_P(isotp_row, on_the_pure_channel)
{
	const row &one = conformance_rows()[GetParam()];
	const row_ids ids = ids_of_row(GetParam(), one.settings);
	const std::unique_ptr<row_bench> bench = new_pure_bench(ids, one.settings);

	EXPECT_EQ(play_row(one, ids, *bench, {}), "");
}

INSTANTIATE_TEST_SUITE_P(table, isotp_row, testing::Range(size_t{0}, conformance_rows().size()),
		[](const testing::TestParamInfo<size_t> &index) { return conformance_rows()[index.param].name; });

TEST(isotp_table, has_120_rows_that_every_player_plays_and_no_name_twice)
{
	std::set<std::string> names;
	size_t everywhere = 0;
	for (const row &one : conformance_rows()) {
		EXPECT_TRUE(names.insert(one.name).second) << one.name;
		everywhere += one.settings.scope == ROW_EVERYWHERE;
	}
	EXPECT_GE(everywhere, 120u);
}

// Rows are played side by side on one bus.
TEST(isotp_table, gives_no_two_rows_the_same_identifier)
{
	std::set<uint32_t> taken;
	for (size_t i = 0; i < conformance_rows().size(); i++) {
		const row_ids ids = ids_of_row(i, conformance_rows()[i].settings);
		for (const uint32_t id : {ids.our_id, ids.their_id, ids.stranger_id})
			EXPECT_TRUE(id == 0 || taken.insert(id).second) << conformance_rows()[i].name;
	}
}

TEST(isotp_table, over_a_can_server)
{
	std::vector<std::string> buses;
	for (int i = 0; i < 16; i++)
		buses.push_back("bus" + std::to_string(i));
	can_server_thread server(buses);
	setenv("QUILLET_CAN_SERVER", server.address().c_str(), 1);

	const std::vector<played_row> played = play_rows(conformance_rows(),
			{.interfaces = buses, .tolerance = {900 * ms, 900 * ms}, .jobs = 96, .is_exact = false});

	unsetenv("QUILLET_CAN_SERVER");
	EXPECT_GE(played.size(), 120u);
	for (const played_row &one : played)
		EXPECT_EQ(one.failure, "") << (one.played != nullptr ? one.played->name : "");
}

} // namespace
