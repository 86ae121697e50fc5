// Each constructor under each call that it makes: for every n the nth one fails. What comes out is a clean failure with
// a message, nothing is left open (the address sanitizer sees that nothing is left allocated), and the next try works.
#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include "canserver_link.h"
#include "channel_driver.h"
#include "handle_table.h"
#include "isotp_channel.h"
#include "library_bench.h"
#include "open_descriptors.h"
#include "raw_port.h"
#include "script_link.h"
#include "support/fail_nth.h"

namespace
{

struct failing_call {
	const char *function;
	int error;
};

// What a connection to the server takes.
const failing_call memory = {"calloc", ENOMEM};
const std::vector<failing_call> connection = {memory, {"getaddrinfo", EAI_MEMORY}, {"socket", EMFILE},
		{"setsockopt", ENOBUFS}, {"connect", ECONNREFUSED}, {"poll", ENOMEM}, {"getsockopt", ENOBUFS},
		{"recv", ECONNRESET}, {"send", EPIPE}};
const std::vector<failing_call> driver = {
		memory, {"malloc", ENOMEM}, {"eventfd", EMFILE}, {"pthread_mutex_init", EAGAIN}, {"pthread_cond_init", EAGAIN}};

std::vector<failing_call> all_of(std::vector<failing_call> calls, const std::vector<failing_call> &more)
{
	calls.insert(calls.end(), more.begin(), more.end());
	return calls;
}

const isotp_settings settings = isotp_default_settings(0x7E0, 0x7E8);

struct constructor {
	const char *what;
	bool (*makes)(); // and ends it again
	std::vector<failing_call> calls;
	bool is_quiet; // the caller speaks for it
};

bool makes_a_channel()
{
	isotp_channel *channel = isotp_channel_new(&settings);
	isotp_channel_free(channel);
	return channel != nullptr;
}

bool makes_a_driver()
{
	script_link bus;
	channel_driver *made = channel_driver_new(&settings, bus.link());
	channel_driver_free(made);
	EXPECT_EQ(bus.closed, 1) << "the link is the driver's, also when it fails";
	return made != nullptr;
}

bool makes_a_link()
{
	can_link link{};
	const int result = can_link_open(&link, "vcan0", CAN_LINK_TAKES_ONE, 0x7E8);
	EXPECT_EQ(link.close != nullptr, result == 0) << "on failure nothing is written";
	can_link_close(&link);
	return result == 0;
}

bool finds_a_bus()
{
	const int exists = transport_interface_availibility("vcan0", 0);
	EXPECT_TRUE(exists == 0 || exists == 1);
	return exists == 1;
}

bool finds_a_bus_up()
{
	return transport_interface_status("vcan0", 0) == 1;
}

bool makes_a_handle()
{
	uds_transport_params block{};
	block.phy_req_id = 0x7E0;
	block.phy_resp_id = 0x7E8;
	strcpy(block.ifname, "vcan0");
	const int handle = transport_init(0, &block);
	EXPECT_EQ(transport_deinit(handle, 0) == 0, handle > 0);
	return handle > 0;
}

bool makes_a_port()
{
	const int port = open_can_port("vcan0", 0x123);
	if (port > 0)
		close(port);
	return port > 0;
}

const constructor constructors[] = {
		{"an ISO-TP channel", makes_a_channel, {memory}, true},
		{"a channel driver", makes_a_driver, driver, false},
		{"a link to the CAN server", makes_a_link, connection, false},
		{"the check that an interface exists", finds_a_bus, connection, false},
		{"the check that an interface is up", finds_a_bus_up, connection, false},
		{"a handle", makes_a_handle, all_of(all_of(connection, driver), {{"realloc", ENOMEM}}), false},
		{"a raw port", makes_a_port, all_of(connection, {{"pthread_mutex_init", EAGAIN}, {"fstat", EIO}}), false},
};

class failing_calls : public library_bench
{
protected:
	size_t before = 0;

	void SetUp() override
	{
		library_bench::SetUp();
		before = open_descriptors();
	}

	// One try with the nth call failing; false when there was no nth call.
	bool fails_at(const constructor &row, const failing_call &call, unsigned nth)
	{
		testing::internal::CaptureStderr();
		bool was_made = false;
		bool fired = false;
		{
			const fail_nth armed(call.function, nth, call.error, fail_nth::this_thread);
			was_made = row.makes();
			fired = armed.fired();
		}
		const std::string said = testing::internal::GetCapturedStderr();
		EXPECT_EQ(was_made, !fired);
		EXPECT_EQ(said.empty(), !fired || row.is_quiet) << said;
		EXPECT_TRUE(descriptors_are_back_to(before));
		EXPECT_TRUE(row.makes()) << "the next call works";
		EXPECT_TRUE(descriptors_are_back_to(before));
		EXPECT_EQ(raw_port_count(), 0u);
		return fired;
	}
};

TEST_F(failing_calls, every_constructor_fails_cleanly_whichever_of_its_calls_fails)
{
	for (const constructor &row : constructors) {
		SCOPED_TRACE(row.what);
		for (const failing_call &call : row.calls) {
			SCOPED_TRACE(call.function);
			unsigned nth = 1;
			while (fails_at(row, call, nth)) {
				ASSERT_FALSE(HasFailure()) << "call " << nth;
				nth++;
			}
			ASSERT_GT(nth, 1u) << "it makes no such call";
		}
	}
}

// A process without standard input: the socket is moved away from descriptor 0.
TEST_F(failing_calls, a_socket_that_cannot_leave_descriptor_0_is_not_kept)
{
	const int standard_input = dup(STDIN_FILENO);
	ASSERT_GT(standard_input, STDIN_FILENO);
	close(STDIN_FILENO);
	bool was_made = true;
	bool fired = false;
	{
		const fail_nth armed("fcntl", 1, EMFILE, fail_nth::this_thread);
		was_made = makes_a_port();
		fired = armed.fired();
	}
	EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "nothing stays at 0";
	EXPECT_EQ(dup2(standard_input, STDIN_FILENO), STDIN_FILENO);
	close(standard_input);

	EXPECT_TRUE(fired);
	EXPECT_FALSE(was_made);
	EXPECT_TRUE(makes_a_port()) << "the next call works";
	EXPECT_TRUE(descriptors_are_back_to(before));
}

TEST_F(failing_calls, a_table_that_cannot_grow_keeps_the_handles_it_has)
{
	std::vector<int> handles;
	int refused = 0;
	for (int i = 0; i < 100 && refused == 0; i++) {
		const fail_nth armed("realloc", handles.empty() ? 0 : 1, ENOMEM, fail_nth::this_thread);
		const int handle = init(0x600, 0x700);
		if (handle > 0)
			handles.push_back(handle);
		else
			refused = handle;
	}
	EXPECT_LT(refused, 0);

	const int next = init(0x600, 0x700);
	EXPECT_GT(next, handles.back());
	handles.push_back(next);
	for (const int handle : handles) {
		EXPECT_EQ(send(handle, {0x3E, 0x00}), 0);
		EXPECT_EQ(transport_deinit(handle, 0), 0);
	}
	EXPECT_TRUE(descriptors_are_back_to(before));
}

// So that no request fails half way for want of memory.
TEST_F(failing_calls, an_open_channel_allocates_nothing_more)
{
	const int tester = init(0x7E0, 0x7E8);
	const int ecu = init(0x7E8, 0x7E0);
	const int port = open_can_port("vcan0", 0x7E0);
	const bytes request = counted_bytes(8191);
	bytes received(8191);
	uint32_t length = 8191;
	uint8_t frame[8];
	uint8_t frame_length = 0;
	int result = -1;
	std::thread receiver;
	{
		const fail_nth mallocs("malloc", 0);
		const fail_nth callocs("calloc", 0);
		const fail_nth reallocs("realloc", 0);
		receiver = std::thread([&] { result = recv_diag_command(ecu, received.data(), &length, 20000, 0); });
		EXPECT_EQ(send(tester, request), 0);
		receiver.join();
		EXPECT_EQ(receive_can_frame(port, frame, &frame_length), 0);
		EXPECT_EQ(mallocs.calls() + callocs.calls() + reallocs.calls(), 0u);
	}

	EXPECT_EQ(result, 0);
	EXPECT_EQ(received, request);
	EXPECT_EQ(transport_deinit(tester, 0), 0);
	EXPECT_EQ(transport_deinit(ecu, 0), 0);
	close(port);
}

TEST(teardowns, take_what_was_never_made)
{
	isotp_channel_free(nullptr);
	channel_driver_free(nullptr);
	can_link link{};
	can_link_close(&link);
	can_link_detach(&link);
	EXPECT_EQ(link.close, nullptr);
}

} // namespace
