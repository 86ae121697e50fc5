// The link over a socket whose other end the test holds: a pair of local sockets that keep frames apart, as a raw CAN
// socket does. What only a kernel with CAN can show is tested on one.
#include "socketcan_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <sys/socket.h>
#include <unistd.h>

#include "channel_driver.h"
#include "guards.h"
#include "support/fail_nth.h"
#include "uds_log.h"

using testing::HasSubstr;

namespace
{

class socketcan : public testing::Test
{
protected:
	void SetUp() override
	{
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()), 0);
		ASSERT_EQ(socketcan_link_adopt(&link, ends[0], "can0"), 0);
	}

	void TearDown() override
	{
		can_link_close(&link);
		if (ends[1] >= 0)
			close(ends[1]);
		uds_log_set_verbosity(UDS_LOG_ERR);
	}

	void comes(canid_t id, std::initializer_list<uint8_t> data)
	{
		can_frame frame{};
		frame.can_id = id;
		frame.can_dlc = static_cast<uint8_t>(data.size());
		std::copy(data.begin(), data.end(), frame.data);
		ASSERT_EQ(write(ends[1], &frame, sizeof(frame)), static_cast<ssize_t>(sizeof(frame)));
	}

	void error_comes(canid_t kind, uint8_t controller = 0)
	{
		comes(CAN_ERR_FLAG | kind, {0, controller, 0, 0, 0, 0, 0, 0});
	}

	int receive(bus_frame *frame)
	{
		return link.receive(link.state, frame);
	}

	int receive_nothing()
	{
		bus_frame untouched{};
		return receive(&untouched);
	}

	int send(uint32_t id)
	{
		const bus_frame frame = {id, bus_id_is_extended(id), 2, {0xA1, 0xB2}};
		return link.send(link.state, &frame);
	}

	std::array<int, 2> ends{-1, -1};
	can_link link{};
};

TEST_F(socketcan, receives_frames_of_both_widths)
{
	comes(0x7E8, {1, 2, 3});
	comes(0x18DAF110 | CAN_EFF_FLAG, {4});

	bus_frame frame{};
	ASSERT_EQ(receive(&frame), 1);
	EXPECT_EQ(frame.id, 0x7E8u);
	EXPECT_FALSE(frame.is_extended);
	EXPECT_EQ(frame.length, 3);
	EXPECT_EQ(frame.data[2], 3);
	ASSERT_EQ(receive(&frame), 1);
	EXPECT_EQ(frame.id, 0x18DAF110u);
	EXPECT_TRUE(frame.is_extended);
	EXPECT_EQ(frame.length, 1);
	EXPECT_EQ(receive(&frame), 0);
}

TEST_F(socketcan, passes_over_remote_frames_and_frames_that_are_too_long)
{
	comes(0x7E8 | CAN_RTR_FLAG, {});
	can_frame too_long{};
	too_long.can_id = 0x7E8;
	too_long.can_dlc = 9;
	ASSERT_GT(write(ends[1], &too_long, sizeof(too_long)), 0);
	comes(0x7E8, {7});

	bus_frame frame{};
	ASSERT_EQ(receive(&frame), 1);
	EXPECT_EQ(frame.data[0], 7);
}

TEST_F(socketcan, sends_frames_of_both_widths)
{
	ASSERT_EQ(send(0x7E0), 0);
	ASSERT_EQ(send(0x18DA10F1), 0);

	can_frame frame{};
	ASSERT_EQ(read(ends[1], &frame, sizeof(frame)), static_cast<ssize_t>(sizeof(frame)));
	EXPECT_EQ(frame.can_id, 0x7E0u);
	EXPECT_EQ(frame.can_dlc, 2);
	EXPECT_EQ(frame.data[1], 0xB2);
	ASSERT_EQ(read(ends[1], &frame, sizeof(frame)), static_cast<ssize_t>(sizeof(frame)));
	EXPECT_EQ(frame.can_id, 0x18DA10F1u | CAN_EFF_FLAG);
}

TEST_F(socketcan, waits_for_room_when_a_queue_is_full)
{
	for (const int error : {ENOBUFS, EAGAIN, EINTR}) {
		SCOPED_TRACE(error);
		const fail_nth full("send", 1, error);
		EXPECT_EQ(send(0x7E0), 1);
		EXPECT_EQ(send(0x7E0), 0);
	}
}

TEST_F(socketcan, is_lost_once_and_for_good_when_the_interface_goes)
{
	const struct {
		const char *call;
		int error;
		const char *said;
	} rows[] = {
			{"send", ENETDOWN, "can0: the link is lost: Network is down\n"},
			{"send", ENXIO, "can0: the link is lost: No such device or address\n"},
			{"recvmsg", ENETDOWN, "can0: the link is lost: Network is down\n"},
			{"recvmsg", ENODEV, "can0: the link is lost: No such device\n"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.said);
		TearDown();
		SetUp();
		testing::internal::CaptureStderr();
		{
			const fail_nth gone(row.call, 1, row.error);
			EXPECT_EQ(std::string(row.call) == "send" ? send(0x7E0) : receive_nothing(), -1);
		}
		EXPECT_EQ(send(0x7E0), -1);
		EXPECT_EQ(receive_nothing(), -1);
		EXPECT_EQ(testing::internal::GetCapturedStderr(), "udsutils: " + std::string(row.said));
	}
}

TEST_F(socketcan, ends_with_the_controller_bus_off)
{
	testing::internal::CaptureStderr();
	error_comes(CAN_ERR_BUSOFF);
	comes(0x7E8, {1});

	EXPECT_EQ(receive_nothing(), -1);
	EXPECT_EQ(send(0x7E0), -1);
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "udsutils: can0: the link is lost: the controller is bus-off\n");
}

TEST_F(socketcan, tells_what_else_the_controller_reports_and_goes_on)
{
	const struct {
		canid_t kind;
		uint8_t controller;
		const char *said;
	} rows[] = {
			{CAN_ERR_RESTARTED, 0, "the controller has been restarted"},
			{CAN_ERR_CRTL, CAN_ERR_CRTL_RX_OVERFLOW, "the controller has lost frames, its buffer was full"},
			{CAN_ERR_CRTL, CAN_ERR_CRTL_TX_PASSIVE, "the controller is error-passive; is another node on the bus"},
			{CAN_ERR_CRTL, CAN_ERR_CRTL_RX_PASSIVE, "the controller is error-passive; is another node on the bus"},
	};
	uds_log_set_verbosity(UDS_LOG_WARN);
	for (const auto &row : rows) {
		SCOPED_TRACE(row.said);
		testing::internal::CaptureStderr();
		error_comes(row.kind, row.controller);
		comes(0x7E8, {1});
		bus_frame frame{};
		EXPECT_EQ(receive(&frame), 1);
		EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(row.said));
	}
}

TEST_F(socketcan, a_channel_on_a_link_that_is_lost_fails_at_once_and_asks_it_no_more)
{
	const isotp_settings settings = isotp_default_settings(0x7E0, 0x7E8);
	const scoped<channel_driver, channel_driver_free> driver(channel_driver_new(&settings, link));
	ASSERT_NE(driver, nullptr);
	link = {};
	close(ends[1]); // from here on poll finds the descriptor worth a look, always
	const fail_nth looks("recvmsg", 0);
	const int64_t start_us = can_link_monotonic_us();
	uint8_t answer[8];
	size_t length = 0;

	EXPECT_EQ(channel_driver_receive(driver.get(), answer, sizeof(answer), &length, 60000), -1);
	EXPECT_EQ(channel_driver_receive(driver.get(), answer, sizeof(answer), &length, 60000), -1);
	EXPECT_EQ(channel_driver_send(driver.get(), answer, 1), -1);

	EXPECT_EQ(looks.calls(), 1u);
	EXPECT_LT(can_link_monotonic_us() - start_us, 30000000);
	ends[1] = -1;
}

TEST_F(socketcan, a_channel_that_only_sends_hears_of_bus_off)
{
	const isotp_settings settings = isotp_default_settings(0x7DF, 0);
	const scoped<channel_driver, channel_driver_free> driver(channel_driver_new(&settings, link));
	ASSERT_NE(driver, nullptr);
	link = {};
	const uint8_t request[] = {0x3E, 0x00};
	EXPECT_EQ(channel_driver_send(driver.get(), request, sizeof(request)), 0);

	error_comes(CAN_ERR_BUSOFF);

	testing::internal::CaptureStderr();
	EXPECT_EQ(channel_driver_send(driver.get(), request, sizeof(request)), -1);
	EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("can0: the link is lost: the controller is bus-off"));
}

TEST(a_kernel_that_gives_no_can_socket, is_told_from_one_that_has_none)
{
	const struct {
		int error;
		bool has_no_can;
	} rows[] = {{EAFNOSUPPORT, true}, {EPROTONOSUPPORT, true}, {EMFILE, false}, {ENFILE, false}, {ENOBUFS, false}};
	for (const auto &row : rows) {
		SCOPED_TRACE(strerror(row.error));
		const fail_nth failure("socket", 1, row.error);
		testing::internal::CaptureStderr();
		EXPECT_EQ(socketcan_exists("can0"), 0);
		const std::string said = testing::internal::GetCapturedStderr();
		EXPECT_THAT(said, HasSubstr("can0: no CAN socket: " + std::string(strerror(row.error))));
		EXPECT_EQ(said.find("module can-raw") != std::string::npos, row.has_no_can);
	}
}

TEST_F(socketcan, takes_a_short_read_for_the_end)
{
	ASSERT_EQ(write(ends[1], "short", 5), 5);

	EXPECT_EQ(receive_nothing(), -1);
}

TEST_F(socketcan, leaves_the_descriptor_to_its_holder_when_it_is_detached)
{
	can_link_detach(&link);

	EXPECT_NE(fcntl(ends[0], F_GETFD), -1);
	close(ends[0]);
}

TEST_F(socketcan, cannot_be_made_without_memory)
{
	const fail_nth failure("calloc", 1);
	can_link untouched{};

	EXPECT_EQ(socketcan_link_adopt(&untouched, ends[0], "can0"), -1);
	EXPECT_EQ(untouched.state, nullptr);
}

} // namespace
