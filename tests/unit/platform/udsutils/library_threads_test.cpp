#include "library_bench.h"

#include <atomic>
#include <future>

namespace
{

constexpr int long_ms = 20000; // never waited for: whoever waits is woken

class threads_on_a_handle : public library_bench
{
protected:
	int tester = 0;
	int ecu = 0;

	void SetUp() override
	{
		library_bench::SetUp();
		tester = init(0x7E0, 0x7E8);
		ecu = init(0x7E8, 0x7E0);
		ASSERT_GT(tester, 0);
		ASSERT_GT(ecu, 0);
	}

	void TearDown() override
	{
		transport_deinit(tester, 0);
		transport_deinit(ecu, 0);
		library_bench::TearDown();
	}

	static std::future<bytes> begin_receive(int handle, int timeout_ms)
	{
		return std::async(std::launch::async, [=] { return receive(handle, timeout_ms); });
	}

	// A send that is under way and takes 160 s, at 127 ms a frame: only the end of its handle can end it early.
	struct slow_send {
		int slow_ecu;
		std::future<bytes> request;
		std::future<int> sending;

		slow_send(int tester, int ecu)
		{
			uds_transport_params slow = params(0x7E8, 0x7E0);
			slow.st_min = 0x7F;
			slow_ecu = transport_init(0, &slow);
			request = begin_receive(slow_ecu, long_ms);
			EXPECT_EQ(transport_deinit(ecu, 0), 0);
			const int port = open_can_port("vcan0", 0x7E0); // frames pass when it is under way
			sending = std::async(std::launch::async, [=] { return send(tester, counted_bytes(8191)); });
			uint8_t data[8];
			uint8_t length = 0;
			EXPECT_EQ(receive_can_frame(port, data, &length), 0);
			close(port);
		}

		~slow_send()
		{
			transport_deinit(slow_ecu, 0);
			EXPECT_EQ(request.get(), failure);
		}
	};
};

TEST_F(threads_on_a_handle, one_receives_while_another_sends_a_long_request)
{
	for (int round = 0; round < 20; round++) {
		std::future<bytes> answer = begin_receive(tester, long_ms);
		std::future<bytes> request = begin_receive(ecu, long_ms);

		ASSERT_EQ(send(tester, counted_bytes(500)), 0);
		ASSERT_EQ(request.get(), counted_bytes(500));
		ASSERT_EQ(send(ecu, counted_bytes(300)), 0);

		ASSERT_EQ(answer.get(), counted_bytes(300));
	}
}

TEST_F(threads_on_a_handle, sends_of_both_sides_at_once_never_hang_or_mix)
{
	for (int round = 0; round < 5; round++) {
		std::atomic<int> ready = 0;
		const auto exchange = [&](int handle, size_t length) {
			return std::async(std::launch::async, [&ready, handle, length] {
				std::future<bytes> received = begin_receive(handle, long_ms);
				ready++;
				while (ready < 2)
					std::this_thread::yield();
				(void)send(handle, counted_bytes(length)); // the later one of the two may drop the other's beginning
				return received;
			});
		};
		auto first = exchange(tester, 2000);
		auto second = exchange(ecu, 1000);
		std::future<bytes> at_tester = first.get();
		std::future<bytes> at_ecu = second.get();
		// Whatever the race did, both handles still work afterwards.
		ASSERT_EQ(transport_deinit(tester, 0), 0);
		ASSERT_EQ(transport_deinit(ecu, 0), 0);
		const bytes got_tester = at_tester.get();
		const bytes got_ecu = at_ecu.get();
		EXPECT_TRUE(got_tester == failure || got_tester == counted_bytes(1000));
		EXPECT_TRUE(got_ecu == failure || got_ecu == counted_bytes(2000));
		tester = init(0x7E0, 0x7E8);
		ecu = init(0x7E8, 0x7E0);
	}
}

TEST_F(threads_on_a_handle, deinit_wakes_a_receiver_at_once)
{
	std::future<bytes> answer = begin_receive(tester, long_ms);

	const int64_t ms = ms_of([&] {
		EXPECT_EQ(transport_deinit(tester, 0), 0);
		EXPECT_EQ(answer.get(), failure);
	});

	EXPECT_LT(ms, long_ms / 4);
}

TEST_F(threads_on_a_handle, deinit_wakes_receivers_that_wait_their_turn)
{
	std::future<bytes> first = begin_receive(tester, long_ms);
	std::future<bytes> second = begin_receive(tester, long_ms);
	std::future<bytes> third = begin_receive(tester, long_ms);

	const int64_t ms = ms_of([&] {
		EXPECT_EQ(transport_deinit(tester, 0), 0);
		EXPECT_EQ(first.get(), failure);
		EXPECT_EQ(second.get(), failure);
		EXPECT_EQ(third.get(), failure);
	});

	EXPECT_LT(ms, long_ms / 4);
}

TEST_F(threads_on_a_handle, deinit_wakes_a_sender_that_waits_for_a_flow_control)
{
	slow_send under_way(tester, ecu);

	const int64_t ms = ms_of([&] {
		EXPECT_EQ(transport_deinit(tester, 0), 0);
		EXPECT_LT(under_way.sending.get(), 0);
	});

	EXPECT_LT(ms, long_ms / 4);
}

TEST_F(threads_on_a_handle, a_send_that_waits_its_turn_in_vain_says_so)
{
	slow_send under_way(tester, ecu);
	movra_uds_util_debug_init(1);

	testing::internal::CaptureStderr();
	const int64_t ms = ms_of([&] { EXPECT_LT(send(tester, {0x3E, 0x00}), 0); });

	EXPECT_EQ(testing::internal::GetCapturedStderr(), "udsutils: another thread has not left the channel in time\n");
	EXPECT_GE(ms, 999);
	EXPECT_LT(ms, long_ms / 4);
	EXPECT_EQ(transport_deinit(tester, 0), 0);
}

TEST_F(threads_on_a_handle, a_second_receive_waits_its_turn_within_its_own_time_out)
{
	std::future<bytes> first = begin_receive(tester, long_ms);
	// Whichever of the two has the turn, the one of 50 ms ends by itself.
	const int64_t ms = ms_of([&] { EXPECT_EQ(receive(tester, 50), failure); });
	EXPECT_GE(ms, 49);
	EXPECT_LT(ms, long_ms / 4);

	ASSERT_EQ(send(ecu, {0x7E, 0x00}), 0);
	EXPECT_EQ(first.get(), (bytes{0x7E, 0x00}));
}

TEST_F(threads_on_a_handle, two_receivers_get_one_answer_each)
{
	std::future<bytes> first = begin_receive(tester, long_ms);
	std::future<bytes> second = begin_receive(tester, long_ms);

	ASSERT_EQ(send(ecu, {0x01}), 0);
	ASSERT_EQ(send(ecu, {0x02}), 0);

	const bytes answers[] = {first.get(), second.get()};
	EXPECT_NE(answers[0], answers[1]);
	EXPECT_EQ(answers[0].size() + answers[1].size(), 2u);
	EXPECT_NE(answers[0], failure);
	EXPECT_NE(answers[1], failure);
}

TEST_F(threads_on_a_handle, a_receiver_outlives_sends_that_drop_what_came_before)
{
	std::future<bytes> answer = begin_receive(tester, long_ms);
	for (int i = 0; i < 50; i++) {
		ASSERT_EQ(send(tester, {0x3E, 0x80}), 0);
		ASSERT_EQ(receive(ecu, long_ms), (bytes{0x3E, 0x80})) << "the moment is when the request is on the bus";
	}

	ASSERT_EQ(send(ecu, counted_bytes(100)), 0);

	EXPECT_EQ(answer.get(), counted_bytes(100));
}

TEST_F(threads_on_a_handle, many_threads_on_many_handles_end_cleanly)
{
	std::vector<std::future<void>> users;
	for (uint32_t i = 0; i < 8; i++) {
		users.push_back(std::async(std::launch::async, [i] {
			for (int round = 0; round < 5; round++) {
				const int handle = init(0x600 + i, 0x700 + i);
				std::future<bytes> answer = begin_receive(handle, long_ms);
				EXPECT_EQ(send(handle, {0x3E, 0x00}), 0);
				EXPECT_EQ(transport_deinit(handle, 0), 0);
				EXPECT_EQ(answer.get(), failure);
			}
		}));
	}
	for (std::future<void> &user : users)
		user.get();
}

} // namespace
