// A transmit queue that is full, on an emulated controller with the kernel's own queue before it: it is waited out, or
// given up after N_As. The controller can be made to stall; the library is on can0, its peers on can1.
#include "controllers.h"
#include "vcan_bench.h"

#include <atomic>
#include <optional>

namespace
{

constexpr double n_as_ms = 1000;
constexpr double exact_ms = 5; // the queue is looked at each millisecond; the rest is what the guest needs

// A controller that stalls holds few of the frames that come in.
constexpr uint8_t answer_st_min = 5;

void sleep_ms(int time_ms)
{
	std::this_thread::sleep_for(std::chrono::milliseconds(time_ms));
}

class full_queue : public vcan_bench
{
protected:
	void SetUp() override
	{
		our_interface = "can0";
		peer_interface = "can1";
		vcan_bench::SetUp();
		movra_uds_util_debug_init(1);
		controller.emplace("can0");
		set_queue(10);
	}
	void TearDown() override
	{
		controller.reset();
		set_queue(10);
		vcan_bench::TearDown();
		our_interface = peer_interface = "vcan0";
	}
	// The frame of that number in a request of 4,095 bytes.
	static bytes consecutive_frame(size_t number)
	{
		const bytes request = pattern(4095);
		bytes frame = {static_cast<uint8_t>(0x20 + number % 16)};
		for (size_t at = 6 + 7 * (number - 1); frame.size() < 8; at++)
			frame.push_back(at < request.size() ? request[at] : 0xCC);
		return frame;
	}
	static void set_queue(int frames)
	{
		run_ip_link("set can0 txqueuelen " + std::to_string(frames));
	}
	// Stalls the controller and fills the queue before it with frames that nobody listens to.
	void fill()
	{
		controller->stall();
		constexpr int more_than_fit = 100;
		int taken = 0;
		while (taken < more_than_fit && filler->try_send({0}, filler_id))
			taken++;
		EXPECT_EQ(errno, ENOBUFS);
		EXPECT_LT(taken, more_than_fit);
	}
	// What is sent fails with that result, so late.
	void expect_send_given_up(const bytes &request, double after_ms)
	{
		testing::internal::CaptureStderr();
		const double took_ms = ms_of([&] { EXPECT_LT(send(request), 0); });
		EXPECT_EQ(testing::internal::GetCapturedStderr(), "udsutils: a request was not sent whole: N_TIMEOUT_A\n");
		EXPECT_GE(took_ms, after_ms);
		EXPECT_LT(took_ms, after_ms + exact_ms);
	}
	void expect_good_exchange()
	{
		const kernel_ecu ecu;
		exchange(ecu, 100, 100);
	}

	static constexpr uint32_t filler_id = 0x7F0;
	std::optional<stalling_controller> controller;
	std::optional<raw_peer> filler{std::in_place, filler_id, "can0"};
};

}

TEST_F(full_queue, is_waited_out_again_and_again)
{
	for (const int length : {1, 2, 5, 10}) {
		SCOPED_TRACE(length);
		set_queue(length);
		open(8, answer_st_min);
		const kernel_ecu ecu;
		std::atomic<bool> is_over = false;
		int times_full = 0;
		std::thread stalls([&] {
			while (!is_over) {
				controller->stall();
				sleep_ms(3);
				// One frame alone fits in: it is only refused if the library has filled the queue.
				times_full += !filler->try_send({0}, filler_id) && errno == ENOBUFS;
				controller->go_on();
				sleep_ms(1);
			}
		});
		exchange(ecu, 4095, 300);
		is_over = true;
		stalls.join();
		EXPECT_GT(times_full, 0);
		EXPECT_EQ(transport_deinit(handle, 0), 0);
	}
	handle = 0;
}

// So long that the queue never fills, and the socket's own limit comes first.
TEST_F(full_queue, of_the_socket_is_waited_out_as_well)
{
	set_queue(2000);
	open();
	const raw_peer ecu(request_id);
	double went_on_ms = 0, sent_ms = 0;
	std::thread answering([&] {
		ecu.receive();
		ecu.send({0x30, 0, 0});
		ecu.receive();
		controller->stall();
		sleep_ms(300);
		went_on_ms = now_ms();
		controller->go_on();
		for (size_t frame = 2; frame <= 585 && !HasFailure(); frame++)
			EXPECT_EQ(ecu.receive().data, consecutive_frame(frame)) << frame;
	});
	EXPECT_EQ(send(pattern(4095)), 0);
	sent_ms = now_ms();
	answering.join();
	EXPECT_GT(sent_ms, went_on_ms);
	expect_good_exchange();
}

TEST_F(full_queue, that_never_empties_ends_a_long_request_after_n_as)
{
	open();
	const raw_peer ecu(request_id);
	double stalled_ms = 0;
	std::thread answering([&] {
		ecu.receive();
		ecu.send({0x30, 0, 0});
		for (int frame = 0; frame < 100; frame++)
			ecu.receive();
		controller->stall();
		stalled_ms = now_ms();
	});
	testing::internal::CaptureStderr();
	EXPECT_LT(send(pattern(4095)), 0);
	const double failed_ms = now_ms();
	answering.join();
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "udsutils: a request was not sent whole: N_TIMEOUT_A\n");
	EXPECT_GE(failed_ms, stalled_ms + n_as_ms - exact_ms);
	EXPECT_LT(failed_ms, stalled_ms + n_as_ms + exact_ms);

	controller->go_on();
	expect_good_exchange();
}

TEST_F(full_queue, that_never_empties_ends_a_request_that_has_not_begun)
{
	open();
	for (const size_t length : {2u, 20u}) {
		SCOPED_TRACE(length);
		fill();
		expect_send_given_up(pattern(length), n_as_ms);
		controller->go_on();
		expect_good_exchange();
	}
}

TEST_F(full_queue, that_empties_in_time_lets_a_request_out_late)
{
	open();
	fill();
	std::thread emptying([&] {
		sleep_ms(900);
		controller->go_on();
	});
	const double took_ms = ms_of([&] { EXPECT_EQ(send({0x3E, 0x00}), 0); });
	emptying.join();
	EXPECT_GE(took_ms, 900);
	EXPECT_LT(took_ms, 900 + exact_ms);
	expect_good_exchange();
}

// The queue alone is blocked here: what the ECU sends comes in.
TEST_F(full_queue, that_never_empties_ends_an_answer_after_n_ar)
{
	open();
	run("/sbin/tc qdisc add dev can0 root plug limit 160");
	fill();
	controller->go_on();
	const raw_peer ecu(request_id);
	ecu.send({0x10, 20, 1, 2, 3, 4, 5, 6});
	bytes response;
	testing::internal::CaptureStderr();
	const double took_ms = ms_of([&] { EXPECT_LT(receive(&response, 3000), 0); });
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "udsutils: an answer was not received whole: N_TIMEOUT_A\n");
	EXPECT_GE(took_ms, n_as_ms - exact_ms);
	EXPECT_LT(took_ms, n_as_ms + exact_ms);

	run("/sbin/tc qdisc delete dev can0 root");
	expect_good_exchange();
}

// The other queue: the controller's own, of the frames that came.
TEST_F(full_queue, of_a_controller_loses_frames_and_that_is_told)
{
	open();
	controller->stall();
	const raw_peer ecu(request_id);
	for (uint8_t frame = 0; frame < 20; frame++)
		ecu.send({1, frame});
	controller->go_on();
	ecu.send({1, 0x99});
	bytes response;
	testing::internal::CaptureStderr();
	int answers = 0;
	while (receive(&response, 100) == 0)
		answers++;
	EXPECT_GT(answers, 0);
	EXPECT_LT(answers, 21);
	EXPECT_EQ(testing::internal::GetCapturedStderr(),
			"udsutils: can0: the controller has lost frames, its buffer was full\n");
	expect_good_exchange();
}

TEST_F(full_queue, is_waited_for_no_longer_when_its_interface_goes_down)
{
	open();
	fill();
	testing::internal::CaptureStderr();
	std::thread going([] {
		sleep_ms(200);
		run_ip_link("set can0 down");
	});
	const double took_ms = ms_of([&] { EXPECT_LT(send(pattern(100)), 0); });
	going.join();
	EXPECT_EQ(testing::internal::GetCapturedStderr(),
			"udsutils: can0: the link is lost: Network is down\n"
			"udsutils: a request was not sent whole: N_ERROR\n");
	EXPECT_LT(took_ms, 300);
	EXPECT_EQ(transport_deinit(handle, 0), 0);

	// What was in the queue is gone with that.
	const raw_peer ecu(filler_id);
	run_ip_link("set can0 up");
	controller->go_on();
	EXPECT_EQ(ecu.receive(100).at_ms, 0);
	open();
	expect_good_exchange();
}
