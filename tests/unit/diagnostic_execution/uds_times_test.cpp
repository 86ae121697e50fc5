// When a command was sent and answered, and what is printed of it on the way.
#include "job_fixture.h"
#include "movra_fleet/diagnostic_execution/uds_exchange.h"
#include "wall_clock.h"

namespace
{

constexpr time_t first_of_may = 1714557600;     // 2024-05-01, 10:00:00 UTC
constexpr time_t leap_day_of_2040 = 2214129600; // 12:00:00 UTC; a signed number of 32 bits ends in January 2038

class uds_times : public job_fixture
{
protected:
	// Every send takes a second, every receive a minute.
	uds_times()
	{
		ecu.on_call = [this](const fake_uds_call &call) {
			if (call.function == "send_diag_command")
				clock.advance(1);
			if (call.function == "recv_diag_command")
				clock.advance(60);
		};
	}
	void run()
	{
		EXPECT_EQ(run_uds_commands(agent.ctx, job), 0);
	}

	wall_clock clock{first_of_may, "EAST-05:30"}; // five and a half hours ahead of UTC
};

}

TEST_F(uds_times, are_the_local_time_before_the_request_and_after_its_answer)
{
	ecu.answers({{0x50, 0x03}, {0x62, 0x01}});
	add_test_command(job, {0x10, 0x03});
	add_test_command(job, {0x22});

	run();

	std::vector<outcome> all = outcomes();
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].requested_time, "2024-05-01T15:30:00Z");
	EXPECT_EQ(all[0].responded_time, "2024-05-01T15:31:01Z");
	EXPECT_EQ(all[1].requested_time, "2024-05-01T15:31:01Z");
	EXPECT_EQ(all[1].responded_time, "2024-05-01T15:32:02Z");
}

TEST_F(uds_times, are_those_of_the_last_answer)
{
	ecu.answers({{0x7F, 0x31, 0x78}, {0x7F, 0x31, 0x78}, {0x71, 0x01}});
	add_test_command(job, {0x31, 0x01});

	run();

	EXPECT_EQ(only_outcome().requested_time, "2024-05-01T15:30:00Z");
	EXPECT_EQ(only_outcome().responded_time, "2024-05-01T15:33:01Z");
}

TEST_F(uds_times, are_kept_when_a_later_receive_fails)
{
	ecu.answers({{0x7F, 0x31, 0x78}});
	add_test_command(job, {0x31, 0x01});

	run();

	EXPECT_EQ(only_outcome().responded_time, "2024-05-01T15:31:01Z");
}

TEST_F(uds_times, follow_the_vehicle_into_another_time_zone)
{
	ecu.answers({{0x50, 0x03}, fake_answer({0x62, 0x01}, 0, 0, [this] { clock.travel("WEST+02:00"); })});
	add_test_command(job, {0x10, 0x03});
	add_test_command(job, {0x22});

	run();

	std::vector<outcome> all = outcomes();
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[1].requested_time, "2024-05-01T15:31:01Z");
	EXPECT_EQ(all[1].responded_time, "2024-05-01T08:02:02Z");
}

TEST_F(uds_times, begin_with_the_dump_of_each_request)
{
	ecu.answers({{0x50, 0x03}, {0x62, 0x01}});
	add_test_command(job, {0x10, 0x03});
	add_test_command(job, {0x22, 0xF1});
	texts printed;
	ecu.on_call = [&](const fake_uds_call &call) {
		if (call.function != "send_diag_command")
			return;
		printed.push_back(output.text());
		output.clear();
	};
	output.clear();

	run();

	ASSERT_EQ(printed.size(), 2u);
	EXPECT_THAT(printed[0], testing::EndsWith("UDS Data:  (2 bytes): 10 03\n"));
	EXPECT_THAT(printed[1], testing::EndsWith("UDS Data:  (2 bytes): 22 f1\n"));
}

TEST_F(uds_times, are_right_after_32_bits_of_seconds_have_run_out)
{
	clock.advance(leap_day_of_2040 - first_of_may);
	ecu.answers({{0x50, 0x03}});
	add_test_command(job, {0x10, 0x03});

	run();

	EXPECT_EQ(only_outcome().requested_time, "2040-02-29T17:30:00Z");
	EXPECT_EQ(only_outcome().responded_time, "2040-02-29T17:31:01Z");
}
