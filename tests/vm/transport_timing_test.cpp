// The timers of the transport library on a real interface, to a millisecond and the 0.1 % that the kernel allows itself
// when it wakes a poll. Only on virtual time are they that exact whatever else the host does.
#include "vcan_bench.h"

namespace
{

// What the guest needs to wake a thread and read its clock.
constexpr double exact_ms = 1.0;
constexpr double poll_slack = 0.001;

class transport_timing : public vcan_bench
{
protected:
	void SetUp() override
	{
		vcan_bench::SetUp();
		open();
	}

	const raw_peer ecu{request_id};
};

void expect_about(double actual_ms, double expected_ms)
{
	EXPECT_GE(actual_ms, expected_ms);
	EXPECT_LT(actual_ms, expected_ms * (1 + poll_slack) + exact_ms);
}

}

TEST_F(transport_timing, waits_for_an_answer_as_long_as_it_is_told)
{
	for (int timeout_ms : {1000, 2000, 3000}) {
		SCOPED_TRACE(timeout_ms);
		bytes response;
		expect_about(ms_of([&] { EXPECT_LT(receive(&response, timeout_ms), 0); }), timeout_ms);
	}
}

// N_Bs, 1000 ms after the first frame.
TEST_F(transport_timing, gives_up_on_a_flow_control_after_a_second)
{
	expect_about(ms_of([&] { EXPECT_LT(send(pattern(20)), 0); }), 1000);
}

// N_Bs begins anew with each FC.WAIT.
TEST_F(transport_timing, gives_up_a_second_after_the_last_wait)
{
	std::thread waiting([this] {
		ecu.receive();
		std::this_thread::sleep_for(std::chrono::milliseconds(600));
		ecu.send({0x31, 0, 0});
	});
	expect_about(ms_of([&] { EXPECT_LT(send(pattern(20)), 0); }), 1600);
	waiting.join();
}

// N_Cr, 1000 ms after the flow control, though the caller would have waited longer for an answer to begin.
TEST_F(transport_timing, gives_up_on_a_consecutive_frame_after_a_second)
{
	ASSERT_EQ(send({0x22, 0xF1, 0x90}), 0);
	ecu.send({0x10, 20, 1, 2, 3, 4, 5, 6});
	bytes response;
	expect_about(ms_of([&] { EXPECT_LT(receive(&response, 3000), 0); }), 1000);
}

// A slow ECU is slower than the caller's time-out and still within N_Cr.
TEST_F(transport_timing, stays_with_a_slow_answer_that_has_begun)
{
	std::thread answering([this] {
		ecu.receive();
		ecu.send({0x10, 20, 0, 1, 2, 3, 4, 5});
		ecu.receive(); // the flow control
		for (uint8_t frame = 1; frame <= 2; ++frame) {
			std::this_thread::sleep_for(std::chrono::milliseconds(900));
			ecu.send({static_cast<uint8_t>(0x20 + frame), 6, 7, 8, 9, 10, 11, 12});
		}
	});
	ASSERT_EQ(send({0x22, 0xF1, 0x90}), 0);
	bytes response;
	expect_about(ms_of([&] { EXPECT_EQ(receive(&response, 1000), 0); }), 1800);
	EXPECT_EQ(response.size(), 20u);
	answering.join();
}

TEST_F(transport_timing, keeps_the_separation_time_of_the_ecu)
{
	const struct {
		uint8_t st_min;
		double gap_ms;
	} rows[] = {{0x01, 1}, {0x05, 5}, {0x14, 20}, {0x7F, 127}, {0xF1, 0.1}, {0xF9, 0.9}, {0x80, 127}};
	for (const auto &row : rows) {
		SCOPED_TRACE(static_cast<int>(row.st_min));
		std::vector<double> arrivals;
		std::thread receiving([&] {
			ecu.receive();
			ecu.send({0x30, 0, row.st_min});
			for (int frame = 0; frame < 5; ++frame)
				arrivals.push_back(ecu.receive().at_ms);
		});
		EXPECT_EQ(send(pattern(6 + 5 * 7)), 0);
		receiving.join();
		for (size_t index = 1; index < arrivals.size(); ++index)
			expect_about(arrivals[index] - arrivals[index - 1] + 0.05, row.gap_ms);
	}
}

TEST_F(transport_timing, waits_five_seconds_for_a_broadcast)
{
	const int port = open_can_port(our_interface, 0x18FEDA00);
	ASSERT_GT(port, 0);
	uint8_t data[8], length = 0;
	expect_about(ms_of([&] { EXPECT_LT(receive_can_frame(port, data, &length), 0); }), 5000);
	close(port);
}
