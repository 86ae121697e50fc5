#include "library_bench.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "raw_port.h"

namespace
{

class raw_ports : public library_bench
{
protected:
	// A frame on the bus, as a functional request of up to 7 bytes.
	static void broadcast(uint32_t id, const bytes &data)
	{
		const int handle = init(id, 0);
		ASSERT_EQ(send(handle, data), 0);
		transport_deinit(handle, 0);
	}

	static bytes frame_of(int port)
	{
		uint8_t data[8] = {};
		uint8_t length = 0xBD;
		if (receive_can_frame(port, data, &length) < 0) {
			EXPECT_EQ(length, 0xBD) << "on failure nothing is written";
			return failure;
		}
		return bytes(data, data + length);
	}
};

TEST_F(raw_ports, receives_the_frames_of_its_identifier_only)
{
	const int port = open_can_port("vcan0", 0x7E8);
	ASSERT_GT(port, 0);

	broadcast(0x7E9, {1});
	broadcast(0x18FEE6EE, {2});
	broadcast(0x7E8, {3, 4});

	EXPECT_EQ(frame_of(port), (bytes{2, 3, 4, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
	close(port);
}

TEST_F(raw_ports, takes_identifiers_above_7FF_as_29_bit)
{
	const int port = open_can_port("vcan1", 0x18FEE6EE);
	ASSERT_GT(port, 0);
	const int handle = init(0x18FEE6EE, 0, "vcan1");

	ASSERT_EQ(send(handle, {1}), 0);

	EXPECT_EQ(frame_of(port).at(1), 1);
	close(port);
	transport_deinit(handle, 0);
}

TEST_F(raw_ports, keeps_frames_that_came_before_the_receive_in_order)
{
	const int port = open_can_port("vcan0", 0x123);
	for (uint8_t i = 0; i < 100; i++)
		broadcast(0x123, {i});

	for (uint8_t i = 0; i < 100; i++)
		ASSERT_EQ(frame_of(port).at(1), i);
	close(port);
}

TEST_F(raw_ports, fails_when_no_frame_comes_in_the_time_of_the_environment)
{
	const int port = open_can_port("vcan0", 0x123);
	setenv("QUILLET_CAN_WAIT_MS", "50", 1);

	const int64_t ms = ms_of([&] { EXPECT_EQ(frame_of(port), failure); });

	EXPECT_GE(ms, 49);
	EXPECT_LT(ms, 4000);
	close(port);
}

TEST_F(raw_ports, says_which_time_of_the_environment_it_cannot_use)
{
	const struct {
		const char *text;
		bool is_usable;
	} rows[] = {{"0", true}, {"3600000", true}, {"", true}, {"-1", false}, {"3600001", false}, {"5s", false},
			{"99999999999999999999", false}};
	const int port = open_can_port("vcan0", 0x123);
	const int later = open_can_port("vcan0", 0x123);
	movra_uds_util_debug_init(1);
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		setenv("QUILLET_CAN_WAIT_MS", "5000", 1);
		broadcast(0x123, {1});
		ASSERT_EQ(frame_of(later).at(1), 1) << "and the other port had it before";
		setenv("QUILLET_CAN_WAIT_MS", row.text, 1);
		testing::internal::CaptureStderr();
		EXPECT_EQ(frame_of(port).at(1), 1);
		const std::string wrong = "udsutils: QUILLET_CAN_WAIT_MS must be a number of milliseconds, not \"";
		EXPECT_EQ(testing::internal::GetCapturedStderr(), row.is_usable ? "" : wrong + row.text + "\"\n");
	}
	close(port);
	close(later);
}

TEST_F(raw_ports, refuses_a_bus_that_does_not_exist_and_an_identifier_too_large)
{
	EXPECT_LT(open_can_port("vcan7", 0x123), 0);
	testing::internal::CaptureStderr();
	EXPECT_LT(open_can_port("vcan0", 0x20000000), 0);
	EXPECT_EQ(
			testing::internal::GetCapturedStderr(), "udsutils: a CAN port cannot be made: 20000000 is no identifier\n");
}

// A daemon may run with its standard input closed. In a process of its own, apart from the server's descriptors.
TEST_F(raw_ports, are_never_descriptor_0)
{
	const pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0) {
		close(0);
		const int port = open_can_port("vcan0", 0x123);
		const int next = dup(port); // the lowest free descriptor: nothing of the port stays at 0
		_exit(port > 0 && next == 0 ? 0 : 1);
	}
	int status = -1;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
}

TEST_F(raw_ports, a_descriptor_that_is_not_a_port_fails_at_once)
{
	const int64_t ms = ms_of([] {
		for (const int descriptor : {-1, 0, 12345})
			EXPECT_EQ(frame_of(descriptor), failure);
	});
	EXPECT_LT(ms, 4000);
}

TEST_F(raw_ports, a_closed_port_is_a_port_no_more_also_under_its_old_number)
{
	const int port = open_can_port("vcan0", 0x123);
	ASSERT_GT(port, 0);
	close(port);
	EXPECT_EQ(frame_of(port), failure);

	const int again = open("/dev/null", O_RDONLY | O_CLOEXEC);
	ASSERT_EQ(again, port);
	EXPECT_EQ(frame_of(again), failure);
	close(again);
}

TEST_F(raw_ports, a_port_under_the_number_of_a_closed_one_starts_fresh)
{
	const int port = open_can_port("vcan0", 0x123);
	broadcast(0x123, {1});
	broadcast(0x123, {2});
	ASSERT_EQ(frame_of(port).at(1), 1);
	close(port);
	const int again = open_can_port("vcan0", 0x456);
	ASSERT_EQ(again, port);

	broadcast(0x456, {3});

	EXPECT_EQ(frame_of(again).at(1), 3);
	close(again);
}

TEST_F(raw_ports, a_server_that_dies_fails_the_receive)
{
	const int port = open_can_port("vcan0", 0x123);

	server->stop();

	EXPECT_LT(ms_of([&] { EXPECT_EQ(frame_of(port), failure); }), 4000);
	close(port);
}

// Linked with the inside of the library, to see what it keeps.
TEST_F(raw_ports, nothing_is_kept_for_ports_that_are_closed)
{
	const int first = raw_port_open("vcan0", 0x123);
	const int second = raw_port_open("vcan0", 0x456);
	ASSERT_GT(first, 0);
	ASSERT_GT(second, 0);
	EXPECT_EQ(raw_port_count(), 2u);

	close(first);
	EXPECT_EQ(raw_port_count(), 1u);
	close(second);
	EXPECT_EQ(raw_port_count(), 0u);
}

} // namespace
