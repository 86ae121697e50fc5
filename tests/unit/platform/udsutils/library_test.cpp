#include "library_bench.h"

#include <functional>
#include <linux/can.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/loopback.h"

namespace
{

class library : public library_bench
{
};

TEST_F(library, an_interface_exists_and_is_up_when_the_server_opens_it)
{
	EXPECT_EQ(transport_interface_availibility("vcan0", 0), 1);
	EXPECT_EQ(transport_interface_status("vcan1", 1), 1);

	EXPECT_EQ(transport_interface_availibility("vcan7", 0), 0);
	EXPECT_EQ(transport_interface_status("vcan7", 0), 0);
}

TEST_F(library, names_and_kinds_that_cannot_be_are_no_interfaces)
{
	const std::string long_name(200, 'x');
	for (const char *name :
			{static_cast<const char *>(nullptr), "", "vcan0 >< rawmode", "vcan0\n", long_name.c_str()}) {
		EXPECT_EQ(transport_interface_availibility(name, 0), 0);
		EXPECT_EQ(transport_interface_status(name, 0), 0);
		EXPECT_LT(open_can_port(name, 0x123), 0);
	}
	for (const int kind : {-1, 2, 256})
		EXPECT_EQ(transport_interface_availibility("vcan0", kind), 0);
}

// What a kernel without SocketCAN says, and one that has it.
std::string said_of_a_missing_interface()
{
	const int descriptor = socket(PF_CAN, SOCK_RAW, CAN_RAW);
	if (descriptor < 0)
		return "udsutils: none7: no CAN socket: Address family not supported by protocol; load the kernel's module "
			   "can-raw, or set QUILLET_CAN_SERVER=host:port to use the buses of a CAN server\n";
	close(descriptor);
	return "udsutils: none7: No such device; \"ip -brief link show\" lists the interfaces\n";
}

TEST_F(library, without_a_server_an_interface_that_does_not_exist_is_told_in_one_line)
{
	unsetenv("QUILLET_CAN_SERVER");
	const std::string wanted = said_of_a_missing_interface();
	const struct {
		const char *what;
		std::function<bool()> fails;
	} rows[] = {
			{"availability",
					[] {
						return transport_interface_availibility("none7", 0) == 0;
					}},
			{"status",
					[] {
						return transport_interface_status("none7", 0) == 0;
					}},
			{"channel",
					[] {
						return init(0x7E0, 0x7E8, "none7") < 0;
					}},
			{"port",
					[] {
						return open_can_port("none7", 0x123) < 0;
					}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		testing::internal::CaptureStderr();
		EXPECT_TRUE(row.fails());
		EXPECT_EQ(testing::internal::GetCapturedStderr(), wanted);
	}
}

TEST_F(library, says_what_is_wrong_with_the_server)
{
	const struct {
		const char *server;
		const char *said;
	} rows[] = {
			{"127.0.0.1", "udsutils: QUILLET_CAN_SERVER is \"127.0.0.1\"; it must be host:port\n"},
			{":1", "udsutils: QUILLET_CAN_SERVER is \":1\"; it must be host:port\n"},
			{"127.0.0.1:1", "udsutils: CAN server 127.0.0.1:1 cannot be reached: Connection refused; is it running?\n"},
	};
	for (const auto &row : rows) {
		setenv("QUILLET_CAN_SERVER", row.server, 1);
		testing::internal::CaptureStderr();
		EXPECT_EQ(transport_interface_availibility("vcan0", 0), 0);
		EXPECT_EQ(testing::internal::GetCapturedStderr(), row.said);
	}
}

TEST_F(library, a_server_that_says_nothing_is_given_up_after_2_s)
{
	const loopback_port port;
	port.listen();
	setenv("QUILLET_CAN_SERVER", port.address().c_str(), 1);

	const int64_t ms = ms_of([] { EXPECT_EQ(transport_interface_availibility("vcan0", 0), 0); });

	EXPECT_GE(ms, 1900);
	EXPECT_LT(ms, 4000);
}

TEST_F(library, the_server_may_be_named_in_brackets_or_by_name)
{
	for (const char *host : {"[127.0.0.1]", "localhost"}) {
		setenv("QUILLET_CAN_SERVER", (host + (":" + std::to_string(server->port()))).c_str(), 1);
		EXPECT_EQ(transport_interface_availibility("vcan0", 0), 1) << host;
	}
}

TEST_F(library, refuses_settings_that_cannot_be_used)
{
	EXPECT_LT(transport_init(0, nullptr), 0);
	uds_transport_params block = params(0x7E0, 0x7E8);
	for (const int kind : {-1, 2, 100})
		EXPECT_LT(transport_init(kind, &block), 0);
	block.kind = 2;
	EXPECT_LT(transport_init(0, &block), 0);

	EXPECT_LT(init(0x20000000, 0x7E8), 0);
	EXPECT_LT(init(0x7E0, 0x20000000), 0);
	EXPECT_LT(init(0x7E0, 0x7E8, "vcan7"), 0);
	EXPECT_LT(init(0x7E0, 0x7E8, ""), 0);
	block = params(0x7E0, 0x7E8);
	memset(block.ifname, 'x', sizeof(block.ifname));
	EXPECT_LT(transport_init(0, &block), 0) << "a name without an end";
}

TEST_F(library, kind_1_is_handled_like_0)
{
	uds_transport_params block = params(0x7E0, 0x7E8);
	block.kind = 1;
	const int handle = transport_init(1, &block);
	ASSERT_GT(handle, 0);
	EXPECT_EQ(send_diag_command(handle, block.bsize == 0 ? counted_bytes(2).data() : nullptr, 2, 1), 0);
	EXPECT_EQ(transport_deinit(handle, 1), 0);
}

TEST_F(library, handles_are_counted_up_and_not_used_again)
{
	int last = 0;
	for (int i = 0; i < 5; i++) {
		const int handle = init(0x7E0, 0x7E8);
		ASSERT_GT(handle, last);
		last = handle;
		EXPECT_EQ(transport_deinit(handle, 0), 0);
		EXPECT_LT(transport_deinit(handle, 0), 0);
	}
}

TEST_F(library, an_unknown_handle_is_a_clean_failure)
{
	const int ended = init(0x7E0, 0x7E8);
	ASSERT_EQ(transport_deinit(ended, 0), 0);
	for (const int handle : {0, -1, 12345678, INT32_MIN, INT32_MAX, ended}) {
		SCOPED_TRACE(handle);
		EXPECT_LT(send(handle, {0x3E, 0x00}), 0);
		EXPECT_EQ(receive(handle, 1000), failure);
		EXPECT_LT(transport_deinit(handle, 0), 0);
	}
}

TEST_F(library, refuses_calls_without_their_arguments)
{
	const int handle = init(0x7E0, 0x7E8);
	ASSERT_GT(handle, 0);
	uint8_t data[8];
	uint32_t length = sizeof(data);
	uint8_t short_length = 0;

	EXPECT_LT(send_diag_command(handle, nullptr, 2, 0), 0);
	EXPECT_LT(send_diag_command(handle, data, 0, 0), 0);
	EXPECT_LT(send_diag_command(handle, data, 2, 2), 0);
	EXPECT_LT(recv_diag_command(handle, nullptr, &length, 0, 0), 0);
	EXPECT_LT(recv_diag_command(handle, data, nullptr, 0, 0), 0);
	EXPECT_LT(recv_diag_command(handle, data, &length, 0, 2), 0);
	EXPECT_LT(transport_deinit(handle, 2), 0);
	EXPECT_LT(receive_can_frame(0, data, nullptr), 0);
	EXPECT_LT(receive_can_frame(0, nullptr, &short_length), 0);
	EXPECT_EQ(length, sizeof(data));
	EXPECT_EQ(transport_deinit(handle, 0), 0);
}

TEST_F(library, says_which_request_it_cannot_send)
{
	movra_uds_util_debug_init(1);
	const struct {
		uint32_t response_id;
		size_t length;
		const char *said;
	} rows[] = {
			{0x7E8, 0, "udsutils: a request of 0 bytes cannot be sent\n"},
			{0x7E8, 8192, "udsutils: a request of 8192 bytes cannot be sent\n"},
			{0, 8, "udsutils: a request of 8 bytes cannot be sent\n"},
	};
	for (const auto &row : rows) {
		const int handle = init(0x7E0, row.response_id);
		const bytes request(row.length + 1);
		testing::internal::CaptureStderr();
		EXPECT_LT(send_diag_command(handle, request.data(), static_cast<uint32_t>(row.length), 0), 0);
		EXPECT_EQ(testing::internal::GetCapturedStderr(), row.said);
		transport_deinit(handle, 0);
	}
}

TEST_F(library, carries_every_length_both_ways)
{
	const struct {
		uint32_t request_id;
		uint32_t response_id;
	} rows[] = {{0x7E0, 0x7E8}, {0x18DA10F1, 0x18DAF110}};
	for (const auto &row : rows) {
		const int tester = init(row.request_id, row.response_id);
		const int ecu = init(row.response_id, row.request_id);
		ASSERT_GT(tester, 0);
		ASSERT_GT(ecu, 0);
		for (const size_t length : {1u, 7u, 8u, 62u, 4095u, 4096u, 8191u}) {
			SCOPED_TRACE(length);
			bytes received;
			std::thread receiver([&] { received = receive(ecu, 5000); });
			EXPECT_EQ(send(tester, counted_bytes(length)), 0);
			receiver.join();
			EXPECT_EQ(received, counted_bytes(length));
		}
		EXPECT_LT(send(tester, counted_bytes(8192)), 0);
		EXPECT_EQ(transport_deinit(tester, 0), 0);
		EXPECT_EQ(transport_deinit(ecu, 0), 0);
	}
}

TEST_F(library, obeys_the_ecu_and_announces_its_own_settings)
{
	uds_transport_params ecu_block = params(0x7E8, 0x7E0);
	ecu_block.bsize = 3;
	ecu_block.st_min = 2;
	const int tester = init(0x7E0, 0x7E8);
	const int ecu = transport_init(0, &ecu_block);
	bytes received;
	std::thread receiver([&] { received = receive(ecu, 5000); });

	const int64_t ms = ms_of([&] { EXPECT_EQ(send(tester, counted_bytes(6 + 7 * 20)), 0); });

	receiver.join();
	EXPECT_EQ(received, counted_bytes(6 + 7 * 20));
	EXPECT_GE(ms, 13 * 2) << "two gaps of 2 ms in each block of three";
	transport_deinit(tester, 0);
	transport_deinit(ecu, 0);
}

TEST_F(library, a_functional_channel_only_sends_and_only_single_frames)
{
	const int functional = init(0x7DF, 0);
	const int ecu = init(0x7E8, 0x7DF);
	ASSERT_GT(functional, 0);

	EXPECT_EQ(send(functional, counted_bytes(7)), 0);
	EXPECT_EQ(receive(ecu, 1000), counted_bytes(7));
	EXPECT_LT(send(functional, counted_bytes(8)), 0);
	EXPECT_LT(ms_of([&] { EXPECT_EQ(receive(functional, 2000), failure); }), 1000);
	transport_deinit(functional, 0);
	transport_deinit(ecu, 0);
}

TEST_F(library, an_answer_longer_than_the_buffer_fails_with_nothing_written)
{
	const int tester = init(0x7E0, 0x7E8);
	const int ecu = init(0x7E8, 0x7E0);
	ASSERT_EQ(send(ecu, counted_bytes(5)), 0);
	ASSERT_EQ(send(ecu, counted_bytes(4)), 0);
	uint8_t buffer[8] = {9, 9, 9, 9, 9, 9, 9, 9};
	uint32_t length = 4;

	EXPECT_LT(recv_diag_command(tester, buffer, &length, 1000, 0), 0);
	EXPECT_EQ(length, 4u);
	EXPECT_EQ(std::count(buffer, buffer + 8, 9), 8);
	EXPECT_EQ(recv_diag_command(tester, buffer, &length, 1000, 0), 0);
	EXPECT_EQ(std::count(buffer + 4, buffer + 8, 9), 4);
	transport_deinit(tester, 0);
	transport_deinit(ecu, 0);
}

TEST_F(library, an_answer_from_before_a_send_is_dropped_however_much_came_before_it)
{
	const int tester = init(0x7E0, 0x7E8);
	const int others = init(0x123, 0);
	const int ecu = init(0x7E8, 0);
	const int port = open_can_port("vcan0", 0x7E8);
	for (int i = 0; i < 6000; i++) // a busy bus, and nobody reads on the tester's handle
		ASSERT_EQ(send(others, counted_bytes(7)), 0);
	ASSERT_EQ(send(ecu, {0x50, 0x01}), 0);
	uint8_t data[8];
	uint8_t length = 0;
	ASSERT_EQ(receive_can_frame(port, data, &length), 0) << "it has passed the bus";

	ASSERT_EQ(send(tester, {0x3E, 0x00}), 0);

	EXPECT_EQ(receive(tester, 300), failure);
	close(port);
	for (const int handle : {tester, others, ecu})
		transport_deinit(handle, 0);
}

TEST_F(library, pads_with_the_byte_of_the_environment)
{
	const struct {
		const char *text;
		uint8_t padding;
	} rows[] = {{"AA", 0xAA}, {"0x55", 0x55}, {"00", 0x00}, {"", 0xCC}, {"XY", 0xCC}, {"1CC", 0xCC}};
	const int port = open_can_port("vcan0", 0x7E0);
	ASSERT_GT(port, 0);
	for (const auto &row : rows) {
		setenv("QUILLET_CAN_PADDING", row.text, 1);
		const int handle = init(0x7E0, 0x7E8);
		ASSERT_EQ(send(handle, {0x3E, 0x00}), 0);
		uint8_t data[8] = {};
		uint8_t length = 0;
		ASSERT_EQ(receive_can_frame(port, data, &length), 0);
		EXPECT_EQ(bytes(data, data + length),
				(bytes{2, 0x3E, 0, row.padding, row.padding, row.padding, row.padding, row.padding}));
		transport_deinit(handle, 0);
	}
	close(port);
}

TEST_F(library, says_which_padding_it_cannot_use)
{
	movra_uds_util_debug_init(1);
	for (const char *text : {"XY", "1CC", "CC ", "-1"}) {
		setenv("QUILLET_CAN_PADDING", text, 1);
		testing::internal::CaptureStderr();
		EXPECT_EQ(transport_deinit(init(0x7E0, 0x7E8), 0), 0);
		EXPECT_EQ(testing::internal::GetCapturedStderr(),
				"udsutils: QUILLET_CAN_PADDING must be a byte such as CC, not \"" + std::string(text) + "\"\n");
	}
}

TEST_F(library, says_as_much_as_it_is_told_to)
{
	const int handle = init(0x7E0, 0x7E8);
	const auto said = [&](int verbosity) {
		movra_uds_util_debug_init(verbosity);
		testing::internal::CaptureStderr();
		EXPECT_EQ(send(handle, {0x3E, 0x00}), 0);
		EXPECT_EQ(receive(handle, 0), failure);
		return testing::internal::GetCapturedStderr();
	};

	EXPECT_EQ(said(0), "");
	EXPECT_EQ(said(2), "udsutils: no answer in time\n");
	EXPECT_EQ(said(5), "udsutils: sent 7E0 [8] 02 3E 00 CC CC CC CC CC\nudsutils: no answer in time\n");
	testing::internal::CaptureStderr();
	movra_uds_util_debug_init(-1);
	EXPECT_LT(init(0x20000000, 0), 0);
	EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
	transport_deinit(handle, 0);
}

TEST_F(library, a_server_that_dies_fails_the_calls_and_the_next_init_starts_fresh)
{
	const loopback_port port; // nobody else's while the server is away
	server = std::make_unique<can_server_thread>(std::vector<std::string>{"vcan0"}, port.number());
	setenv("QUILLET_CAN_SERVER", port.address().c_str(), 1);
	const int handle = init(0x7E0, 0x7E8);
	int64_t ms = 0;
	std::thread receiver([&] { ms = ms_of([&] { EXPECT_EQ(receive(handle, 10000), failure); }); });

	server->stop();
	receiver.join();

	EXPECT_LT(ms, 5000);
	EXPECT_LT(send(handle, {0x3E, 0x00}), 0);
	EXPECT_EQ(transport_interface_availibility("vcan0", 0), 0);
	EXPECT_LT(init(0x7E0, 0x7E8), 0);
	server = std::make_unique<can_server_thread>(std::vector<std::string>{"vcan0"}, port.number());
	EXPECT_LT(send(handle, {0x3E, 0x00}), 0);
	EXPECT_EQ(transport_deinit(handle, 0), 0);
	const int fresh = init(0x7E0, 0x7E8);
	EXPECT_GT(fresh, handle);
	EXPECT_EQ(send(fresh, {0x3E, 0x00}), 0);
	transport_deinit(fresh, 0);
}

} // namespace
