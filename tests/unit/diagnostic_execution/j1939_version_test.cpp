// Versions from J1939 broadcasts.
#include <fcntl.h>
#include <unistd.h>

#include <thread>

#include "held_lock.h"
#include "movra_fleet/common/agent_ctx.h"
#include "support/event.h"
#include "support/fail_nth.h"
#include "version_fixture.h"

namespace
{

constexpr uint32_t broadcast = 0x18FEDA00;

std::string signal_text(const std::string &start_bit, const std::string &bitlength, const std::string &factor = "1",
		const std::string &offset = "0")
{
	return R"({"name":"s","start_bit":")" + start_bit + R"(","bitlength":")" + bitlength + R"(","offset":")" + offset +
			R"(","factor":")" + factor + "\"}";
}

class j1939_version : public version_fixture
{
};

}

TEST_F(j1939_version, decodes_a_version_from_a_broadcast)
{
	watch(signal_text("0", "8") + "," + signal_text("8", "4") + "," + signal_text("16", "16"));
	ecu.frames(broadcast, {{0x01, 0xF4, 0x0C, 0x00, 0xFF, 0xFF, 0xFF, 0xFF}});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(version(), "1.4.12");
	EXPECT_EQ(ecu.names(),
			(texts{"transport_interface_availibility", "transport_interface_status", "open_can_port",
					"receive_can_frame"}));
	std::vector<fake_uds_call> calls = ecu.calls();
	EXPECT_EQ(calls[0].ifname, "can0"); // the ECU's interface is checked, the query's is read
	EXPECT_EQ(calls[2].ifname, "can5");
	EXPECT_EQ(calls[2].can_id, broadcast);
	texts lines = log();
	ASSERT_GE(lines.size(), 2u);
	EXPECT_EQ(lines[0], std::string("INFO ") + json_object_to_json_string(job->version_query));
	EXPECT_EQ(lines[1], "INFO Using J1939");
	EXPECT_EQ(errors(), texts{});
	EXPECT_EQ(fcntl(calls[3].handle, F_GETFD), -1); // closed
}

TEST_F(j1939_version, replies_with_an_empty_text_without_signals)
{
	watch("");
	ecu.frames(broadcast, {{0x01}});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(version(), "");
}

TEST_F(j1939_version, shows_signals_as_whole_numbers)
{
	const struct {
		const char *what;
		std::string signals;
		const char *version;
	} rows[] = {
			{"a fractional factor is 0", signal_text("0", "8", "0.5", "7"), "7"},
			{"a negative offset", signal_text("0", "8", "1", "-300"), "-100"},
			{"no bits", signal_text("0", "0", "1", "5"), "5"},
			{"the largest number", signal_text("0", "32", "4294967295"), "2147483647"},
			{"offsets that end at the limits", signal_text("0", "0", "1", "2147483648"), "-2147483648"},
			{"behind a short frame: zeros", signal_text("8", "32"), "0"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		watch(row.signals);
		ecu.frames(broadcast, {{200}});
		EXPECT_EQ(run(), 0);
		EXPECT_EQ(version(), row.version);
	}
}

TEST_F(j1939_version, ends_at_a_signal_that_cannot_be_decoded)
{
	const struct {
		const char *what;
		std::string signals;
		const char *version;
	} rows[] = {
			{"33 bits", signal_text("0", "8") + "," + signal_text("0", "33") + "," + signal_text("0", "8"), "1"},
			{"outside of the frame", signal_text("0", "8") + "," + signal_text("60", "8"), "1"},
			{"far outside", signal_text("0", "8") + "," + signal_text("4294967296", "8"), "1"},
			{"the first one", signal_text("64", "1") + "," + signal_text("0", "8"), ""},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		watch(row.signals);
		ecu.frames(broadcast, {{0x01}});
		EXPECT_EQ(run(), 0);
		EXPECT_EQ(version(), row.version);
		EXPECT_TRUE(output.has_line("ERR", "can_parser", "Could not compute BitMask"));
	}
}

TEST_F(j1939_version, cuts_a_version_of_many_signals_at_its_buffer)
{
	std::string signals = signal_text("0", "8");
	for (int i = 1; i < 100'000; ++i)
		signals += "," + signal_text("0", "8");
	watch(signals);
	ecu.frames(broadcast, {{200}});
	EXPECT_EQ(run(), 0);
	std::string expected = "200";
	while (expected.size() < 1023)
		expected += ".200";
	EXPECT_EQ(version(), expected.substr(0, 1023));
}

TEST_F(j1939_version, fails_with_a_line_when_the_broadcast_cannot_be_read)
{
	const struct {
		const char *what;
		std::string query;
		int port;
		texts errors;
		texts calls;
	} rows[] = {
			{"settings missing", "{}", 0, {"no 'ifname' key in JSON", "unable to parse j1939 version info"}, {}},
			{"no port", j1939_head + "]}", -1, {"Unable to open can port on can5 bus"}, {"open_can_port"}},
			{"no frame", j1939_head + "]}", 0, {"Unable to read Version"}, {"open_can_port", "receive_can_frame"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		size_t calls_before = ecu.names().size() + 2; // past the interface checks
		query(VERSION_J1939, row.query);
		ecu.port_results = {row.port};
		EXPECT_EQ(run(), -1);
		EXPECT_EQ(errors(), row.errors);
		texts names = ecu.names();
		EXPECT_EQ(texts(names.begin() + static_cast<long>(calls_before), names.end()), row.calls);
		EXPECT_EQ(version(), "(none)");
		if (!row.calls.empty() && row.calls.back() == "receive_can_frame") {
			EXPECT_EQ(fcntl(ecu.calls().back().handle, F_GETFD), -1); // closed
		}
	}
}

TEST_F(j1939_version, closes_a_port_whose_descriptor_is_zero)
{
	int saved = dup(STDIN_FILENO);
	close(STDIN_FILENO); // the next descriptor is 0
	watch("");
	ecu.frames(broadcast, {{0x01}});
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(ecu.calls().back().handle, 0);
	EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
	if (saved >= 0) {
		dup2(saved, STDIN_FILENO);
		close(saved);
	}
}

TEST_F(j1939_version, takes_only_negative_results_for_failures)
{
	watch(signal_text("0", "8"));
	ecu.frames(broadcast, {fake_answer({0x07}, 1)});

	EXPECT_EQ(run(), 0);

	EXPECT_EQ(version(), "7");
}

TEST_F(j1939_version, opens_no_port_once_the_agent_has_stopped)
{
	watch("");
	ecu.on_call = [&](const fake_uds_call &call) {
		if (call.function == "transport_interface_status")
			agent_request_stop(agent.ctx);
	};
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(ecu.calls("open_can_port").size(), 0u);

	size_t calls_before = ecu.names().size();
	EXPECT_EQ(run(), -1);
	EXPECT_EQ(ecu.names().size(), calls_before);
}

TEST_F(j1939_version, leaves_the_port_to_its_reader_when_the_agent_stops)
{
	event begun, goes_on;
	watch("");
	ecu.frames(broadcast, {fake_answer({0x01}, 0, 0, [&] {
		begun.raise();
		EXPECT_TRUE(goes_on.wait());
	})});
	int result = 1;
	std::thread worker([&] { result = run(); });
	EXPECT_TRUE(begun.wait());
	int descriptor = ecu.calls().back().handle;
	EXPECT_EQ(ecu.calls().back().function, "receive_can_frame");

	agent_request_stop(agent.ctx);
	worker.join(); // while the receive goes on

	EXPECT_EQ(result, -1);
	EXPECT_EQ(errors(), texts{"Unable to read Version"});
	EXPECT_NE(fcntl(descriptor, F_GETFD), -1);           // still received from
	held_lock unavailable = hold(&agent.ctx->stop_lock); // the agent may be gone: the reader does not come back to it
	goes_on.raise();
	auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (fcntl(descriptor, F_GETFD) != -1 && std::chrono::steady_clock::now() < end)
		std::this_thread::yield();
	EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(j1939_version, fails_and_closes_the_port_when_its_reader_cannot_be_made)
{
	for (const char *function : {"calloc", "pthread_create"}) {
		bool failed_reading = false;
		for (unsigned nth = 1; !failed_reading && nth < 50; ++nth) {
			SCOPED_TRACE(testing::Message() << function << " " << nth);
			watch("");
			ecu.frames(broadcast, {{0x01}});
			size_t before = ecu.calls("receive_can_frame").size();
			fail_nth failure(function, nth, ENOMEM, fail_nth::this_thread);
			int result = run();
			if (!failure.fired())
				break;
			failed_reading = output.has_line("ERR", "movra_fleet", "Unable to read Version");
			if (!failed_reading)
				continue;
			EXPECT_EQ(result, -1);
			EXPECT_EQ(ecu.calls("receive_can_frame").size(), before);
			EXPECT_EQ(ecu.calls().back().function, "open_can_port");
		}
		EXPECT_TRUE(failed_reading) << function;
	}
}
