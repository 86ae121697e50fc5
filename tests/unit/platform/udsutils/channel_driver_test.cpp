#include "channel_driver.h"

#include <algorithm>
#include <sys/resource.h>
#include <unistd.h>

#include "script_link.h"

namespace
{

constexpr uint32_t our_id = 0x7E0;
constexpr uint32_t their_id = 0x7E8;
const bytes go_on = {0x30, 0, 0};
const bytes tester_present = {0x3E, 0x00};

class driver_bench : public testing::Test
{
protected:
	script_link bus;
	isotp_settings settings = isotp_default_settings(our_id, their_id);
	std::unique_ptr<channel_driver, void (*)(channel_driver *)> driver{nullptr, channel_driver_free};
	bytes answer; // the last one received
	int64_t start_us = bus.now_us;

	void SetUp() override
	{
		open();
	}

	void open()
	{
		driver.reset(channel_driver_new(&settings, bus.link()));
		ASSERT_NE(driver, nullptr);
	}

	int send(const bytes &data)
	{
		return channel_driver_send(driver.get(), data.data(), data.size());
	}

	int receive(int timeout_ms, size_t capacity = 8191)
	{
		answer.assign(capacity + 1, 0xEE);
		size_t length = 0xBAD;
		const int result = channel_driver_receive(driver.get(), answer.data(), capacity, &length, timeout_ms);
		if (result == 0)
			answer.resize(length);
		else
			EXPECT_EQ(length, 0xBADu) << "on failure nothing is written";
		return result;
	}

	bool nothing_written() const
	{
		return std::count(answer.begin(), answer.end(), 0xEE) == static_cast<long>(answer.size());
	}

	int64_t passed_us() const
	{
		return bus.now_us - start_us;
	}

	// The answer of 20 bytes, its consecutive frames gap_us apart.
	void twenty_bytes_come(int64_t in_us, int64_t gap_us)
	{
		bus.comes(in_us, their_id, {0x10, 20, 0x62, 0xF1, 0x90, 1, 2, 3});
		bus.comes(in_us + gap_us, their_id, {0x21, 4, 5, 6, 7, 8, 9, 10});
		bus.comes(in_us + 2 * gap_us, their_id, {0x22, 11, 12, 13, 14, 15, 16, 17});
	}
};

TEST_F(driver_bench, sends_a_request_and_receives_its_answer)
{
	bus.on_sent = [&](const bus_frame &) {
		bus.comes(5000, their_id, {0x02, 0x7E, 0x00});
	};

	ASSERT_EQ(send(tester_present), 0);
	ASSERT_EQ(receive(500), 0);

	EXPECT_EQ(answer, (bytes{0x7E, 0x00}));
	ASSERT_EQ(bus.sent.size(), 1u);
	EXPECT_EQ(data_of(bus.sent[0]), (bytes{2, 0x3E, 0x00, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
	EXPECT_EQ(passed_us(), 5000);
}

TEST_F(driver_bench, sends_a_long_request_at_the_pace_of_the_ecu)
{
	bus.on_sent = [&](const bus_frame &frame) {
		if (frame.data[0] >> 4 == 1)
			bus.comes(1000, their_id, {0x30, 0, 10});
	};

	EXPECT_EQ(send(counted_bytes(62)), 0);

	EXPECT_EQ(bus.sent.size(), 9u);
	EXPECT_EQ(passed_us(), 1000 + 7 * 10000);
}

TEST_F(driver_bench, a_request_without_a_flow_control_fails_after_1000_ms)
{
	EXPECT_EQ(send(counted_bytes(8)), -1);
	EXPECT_EQ(passed_us(), isotp_timeout_us);
}

TEST_F(driver_bench, refuses_a_request_of_no_bytes_or_too_many)
{
	EXPECT_EQ(send({}), -1);
	EXPECT_EQ(send(counted_bytes(8192)), -1);
	EXPECT_TRUE(bus.sent.empty());
}

TEST_F(driver_bench, a_receive_ends_when_no_answer_comes_in_time)
{
	EXPECT_EQ(receive(2000), -1);
	EXPECT_EQ(passed_us(), 2000000);
	EXPECT_TRUE(nothing_written());
}

TEST_F(driver_bench, a_receive_without_time_takes_what_is_there)
{
	bus.comes(0, their_id, {0x02, 0x7E, 0x00});

	EXPECT_EQ(receive(0), 0);
	EXPECT_EQ(receive(0), -1);
	EXPECT_EQ(receive(-1), -1);
	EXPECT_EQ(passed_us(), 0);
}

TEST_F(driver_bench, once_an_answer_has_begun_its_own_time_out_governs)
{
	twenty_bytes_come(90000, 900000);

	EXPECT_EQ(receive(100), 0);

	EXPECT_EQ(answer.size(), 20u);
	EXPECT_EQ(passed_us(), 90000 + 2 * 900000);
}

TEST_F(driver_bench, an_answer_that_has_begun_is_received_whole_without_time_to_wait)
{
	for (const int timeout_ms : {0, -1}) {
		SCOPED_TRACE(timeout_ms);
		twenty_bytes_come(0, 1000);

		EXPECT_EQ(receive(timeout_ms), 0);

		EXPECT_EQ(answer.size(), 20u);
	}
}

TEST_F(driver_bench, an_answer_that_began_in_time_is_received_by_a_thread_that_runs_late)
{
	bus.late_us = 5000;
	twenty_bytes_come(99000, 50000);

	EXPECT_EQ(receive(100), 0);

	EXPECT_EQ(answer.size(), 20u);
}

TEST_F(driver_bench, an_answer_that_breaks_off_fails_after_1000_ms)
{
	bus.comes(1000, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6});

	EXPECT_EQ(receive(5000), -1);

	EXPECT_EQ(passed_us(), 1000 + isotp_timeout_us);
	EXPECT_TRUE(nothing_written());
}

TEST_F(driver_bench, an_answer_out_of_sequence_fails_at_once)
{
	bus.comes(1000, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6});
	bus.comes(2000, their_id, {0x22, 1, 2, 3, 4, 5, 6, 7});

	EXPECT_EQ(receive(5000), -1);
	EXPECT_EQ(passed_us(), 2000);
	EXPECT_EQ(receive(10), -1) << "and is told once";
	EXPECT_EQ(passed_us(), 12000);
}

TEST_F(driver_bench, an_ecu_that_begins_again_and_again_does_not_hold_the_receiver)
{
	for (int i = 0; i < 10; i++)
		bus.comes(i * 500000, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6});

	EXPECT_EQ(receive(900), -1);
	EXPECT_EQ(passed_us(), 1000000);
}

TEST_F(driver_bench, an_answer_longer_than_the_buffer_fails_and_the_next_one_is_taken)
{
	twenty_bytes_come(0, 0);
	bus.comes(1, their_id, {0x02, 0x7E, 0x00});

	EXPECT_EQ(receive(500, 19), -1);
	EXPECT_TRUE(nothing_written());
	EXPECT_EQ(receive(500, 2), 0);
	EXPECT_EQ(answer, (bytes{0x7E, 0x00}));
}

TEST_F(driver_bench, answers_that_come_during_a_send_are_kept)
{
	bus.on_sent = [&](const bus_frame &frame) {
		if (frame.data[0] >> 4 != 1)
			return;
		bus.comes(100, their_id, {0x03, 0x7F, 0x36, 0x78});
		bus.comes(200, their_id, {0x30, 0, 0});
		bus.comes(300, their_id, {0x02, 0x76, 0x01});
	};

	ASSERT_EQ(send(counted_bytes(20)), 0);

	ASSERT_EQ(receive(100), 0);
	EXPECT_EQ(answer, (bytes{0x7F, 0x36, 0x78}));
	ASSERT_EQ(receive(100), 0);
	EXPECT_EQ(answer, (bytes{0x76, 0x01}));
}

TEST_F(driver_bench, what_came_before_a_send_is_dropped)
{
	bus.comes(0, their_id, {0x02, 0x50, 0x01});
	bus.comes(0, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6});
	ASSERT_EQ(send(tester_present), 0);

	EXPECT_EQ(receive(100), -1);

	EXPECT_EQ(bus.sent.size(), 1u) << "and no flow control for it";
}

TEST_F(driver_bench, a_reception_begun_before_a_send_is_dropped)
{
	bus.on_sent = [&](const bus_frame &frame) {
		if (frame.data[0] >> 4 != 1)
			return;
		bus.comes(100, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6});
		bus.comes(200, their_id, go_on);
	};
	ASSERT_EQ(send(counted_bytes(8)), 0);
	ASSERT_EQ(bus.sent.size(), 3u) << "its flow control, too";

	ASSERT_EQ(send(tester_present), 0);
	bus.comes(1000, their_id, {0x21, 1, 2, 3, 4, 5, 6, 7});
	bus.comes(2000, their_id, {0x02, 0x7E, 0x00});

	ASSERT_EQ(receive(100), 0);
	EXPECT_EQ(answer, (bytes{0x7E, 0x00}));
}

TEST_F(driver_bench, an_answer_that_nobody_fetched_is_dropped_by_the_next_send)
{
	bus.on_sent = [&](const bus_frame &frame) {
		if (frame.data[0] >> 4 != 1)
			return;
		bus.comes(100, their_id, {0x02, 0x50, 0x01});
		bus.comes(200, their_id, go_on);
	};
	ASSERT_EQ(send(counted_bytes(8)), 0); // and takes it

	ASSERT_EQ(send(tester_present), 0);

	EXPECT_EQ(receive(10), -1);
}

TEST_F(driver_bench, receives_every_answer_that_came_before_it_was_asked_for)
{
	for (uint8_t i = 0; i < 100; i++)
		bus.comes(0, their_id, {0x01, i});

	for (uint8_t i = 0; i < 100; i++) {
		ASSERT_EQ(receive(0), 0);
		ASSERT_EQ(answer, bytes{i});
	}
	EXPECT_EQ(receive(0), -1);
}

TEST_F(driver_bench, keeps_the_latest_answers_when_nobody_receives)
{
	bus.on_sent = [&](const bus_frame &frame) {
		if (frame.data[0] >> 4 != 1)
			return;
		for (uint8_t i = 0; i < 20; i++)
			bus.comes(100, their_id, {0x01, i});
		bus.comes(200, their_id, {0x30, 0, 0});
	};
	ASSERT_EQ(send(counted_bytes(20)), 0);

	for (uint8_t i = 4; i < 20; i++) {
		ASSERT_EQ(receive(0), 0);
		EXPECT_EQ(answer, bytes{i});
	}
	EXPECT_EQ(receive(0), -1);
}

TEST_F(driver_bench, passes_over_frames_of_others)
{
	bus.comes(0, 0x123, {0x02, 0x7E, 0x00});

	EXPECT_EQ(receive(100), -1);
}

TEST_F(driver_bench, tries_again_when_the_transmit_queue_is_full)
{
	bus.full_for = 20;

	EXPECT_EQ(send(tester_present), 0);

	EXPECT_EQ(bus.sent.size(), 1u);
	EXPECT_GE(passed_us(), 20 * 1000);
	EXPECT_LT(passed_us(), 30 * 1000);
}

TEST_F(driver_bench, does_not_spin_on_a_full_transmit_queue_when_a_flow_control_and_data_are_due)
{
	bus.on_sent = [&](const bus_frame &frame) {
		if (frame.data[0] >> 4 != 1)
			return;
		bus.full_for = 20;
		bus.comes(1000, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6}); // our flow control stands before our data
		bus.comes(1000, their_id, go_on);
	};

	EXPECT_EQ(send(counted_bytes(20)), 0);

	EXPECT_EQ(bus.sent.size(), 4u);
	EXPECT_GE(passed_us(), 15 * 1000);
	EXPECT_LT(passed_us(), 30 * 1000);
}

TEST_F(driver_bench, a_transmit_queue_that_stays_full_fails_the_send_after_1000_ms)
{
	bus.full_for = -1;

	EXPECT_EQ(send(tester_present), -1);

	EXPECT_EQ(passed_us(), isotp_timeout_us);
	bus.full_for = 0;
	EXPECT_EQ(send(tester_present), 0) << "the next one works";
	EXPECT_EQ(bus.sent.size(), 1u);
}

TEST_F(driver_bench, a_send_ends_also_when_first_frames_never_end_and_no_flow_control_gets_out)
{
	bus.on_sent = [&](const bus_frame &) {
		bus.full_for = -1;
		bus.comes(1000, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6});
		bus.comes(1000, their_id, go_on);
		for (int i = 1; i < 100; i++)
			bus.comes(1000 + i * 100000, their_id, {0x10, 20, 1, 2, 3, 4, 5, 6});
	};

	EXPECT_EQ(send(counted_bytes(20)), -1);

	EXPECT_EQ(passed_us(), 1000 + isotp_timeout_us);
}

TEST_F(driver_bench, on_a_dead_link_every_call_fails_at_once)
{
	bus.is_dead = true;

	EXPECT_EQ(send(tester_present), -1);
	EXPECT_EQ(receive(2000), -1);
	EXPECT_EQ(send(counted_bytes(100)), -1);
	EXPECT_EQ(passed_us(), 0);
}

TEST_F(driver_bench, a_link_that_dies_under_a_send_fails_it)
{
	bus.on_sent = [&](const bus_frame &) {
		bus.is_dead = true;
	};

	EXPECT_EQ(send(counted_bytes(20)), -1);
	EXPECT_EQ(passed_us(), 0);
}

TEST_F(driver_bench, after_its_end_every_call_fails_at_once)
{
	channel_driver_end(driver.get());

	EXPECT_EQ(send(tester_present), -1);
	EXPECT_EQ(receive(2000), -1);
	EXPECT_EQ(passed_us(), 0);
}

TEST_F(driver_bench, its_end_during_a_wait_fails_the_call_at_once)
{
	bus.on_wait = [&] {
		bus.comes(0, their_id, {0x02, 0x7E, 0x00}); // ends the wait
		channel_driver_end(driver.get());
	};

	EXPECT_EQ(send(counted_bytes(20)), -1);
	EXPECT_EQ(passed_us(), 0);
}

TEST_F(driver_bench, without_a_receive_identifier_only_sends)
{
	settings = isotp_default_settings(0x7DF, 0);
	open();

	EXPECT_EQ(send(counted_bytes(8)), -1);
	EXPECT_EQ(receive(2000), -1);
	EXPECT_EQ(passed_us(), 0);
	EXPECT_EQ(send(counted_bytes(7)), 0);
}

TEST(driver_life, closes_its_link_once_also_when_it_cannot_be_made)
{
	script_link bus;
	isotp_settings settings = isotp_default_settings(our_id, their_id);
	channel_driver_free(channel_driver_new(&settings, bus.link()));
	EXPECT_EQ(bus.closed, 1);

	settings.tx_id = 0x20000000;
	EXPECT_EQ(channel_driver_new(&settings, bus.link()), nullptr);
	EXPECT_EQ(bus.closed, 2);
}

TEST(driver_life, free_takes_null)
{
	channel_driver_free(nullptr);
}

TEST(driver_life, is_not_made_without_descriptors_for_its_wake_ups)
{
	rlimit before{};
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
	const int next = dup(0); // the lowest free descriptor
	ASSERT_GE(next, 0);
	close(next);
	script_link bus;
	const isotp_settings settings = isotp_default_settings(our_id, their_id);
	for (rlim_t room = 0; room < 3; room++) {
		SCOPED_TRACE(room);
		const rlimit tight = {static_cast<rlim_t>(next) + room, before.rlim_max};
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
		channel_driver *driver = channel_driver_new(&settings, bus.link());
		ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
		EXPECT_EQ(driver != nullptr, room == 2);
		channel_driver_free(driver);
		EXPECT_EQ(bus.closed, static_cast<int>(room) + 1);
	}
}

} // namespace
