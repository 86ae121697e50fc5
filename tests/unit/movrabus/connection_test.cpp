#include "unit/movrabus/bus_fixture.h"

#include <functional>

#include <sched.h>
#include <unistd.h>

#include "support/fail_nth.h"

using testing::ElementsAre;
using testing::IsEmpty;
using strings = std::vector<std::string>;

namespace
{

constexpr const char start_failed[] = "Failed to init tervbus client err=-1.";

// The waits for the release, which take no time here.
std::vector<useconds_t> polls;
std::function<void()> on_poll;

class bus_connection : public bus_test
{
};

}

extern "C" {
int __wrap_usleep(useconds_t duration);

int __wrap_usleep(useconds_t duration)
{
	polls.push_back(duration);
	if (on_poll)
		on_poll();
	return sched_yield();
}
}

TEST_F(bus_connection, starts_the_client_with_the_library_calls_in_order)
{
	start();

	EXPECT_EQ(fake_bus::calls(),
			(strings{"tervbus_init_ll", "tervbus_get_identity_data 0 0", "tervbus_free_address 1",
					"tervbus_get_identity_data 0 0", "tervbus_free_address 1",
					"tervbus_init_client tcp://127.0.0.1:9133"}));
	EXPECT_THAT(log.messages("ERR"), IsEmpty());
}

TEST_F(bus_connection, gives_the_library_its_mode_the_identity_and_no_user_pointer_yet)
{
	start();

	fake_bus::start_view seen = fake_bus::started_with();
	EXPECT_EQ(seen.mode, 1u);
	EXPECT_EQ(seen.identity_type, 1u);
	EXPECT_EQ(seen.private_key, std::string("KEY\0", 4));
	EXPECT_EQ(seen.certificate, std::string("CERTIFICATE\0", 12));
	EXPECT_EQ(seen.ca, std::string("CA\0", 3));
	EXPECT_EQ(seen.user, nullptr);
	EXPECT_EQ(fake_bus::client()->user, connection);
	EXPECT_EQ(static_cast<void *>(fake_bus::client()), connection);
}

TEST_F(bus_connection, marks_every_buffer_as_pem)
{
	start();

	const tervbus_identity &identity = fake_bus::client()->identity;
	for (const tervbus_buffer *buffer : {identity.private_key, identity.chain[0], identity.trust[0]}) {
		EXPECT_EQ(buffer->encoding, 2u);
		EXPECT_EQ(buffer->unused, 0u);
	}
	EXPECT_EQ(identity.chain[1], nullptr);
	EXPECT_EQ(identity.trust[1], nullptr);
}

TEST_F(bus_connection, gives_the_library_a_copy_of_the_url)
{
	std::string own_url = url;
	connection = mobus_init(nullptr, files.node().c_str(), own_url.c_str(), nullptr, on_text, nullptr);
	ASSERT_NE(connection, nullptr);

	own_url.assign(own_url.size(), 'x');

	EXPECT_STREQ(fake_bus::started_with().url, "tcp://127.0.0.1:9133");
	stop();
}

TEST_F(bus_connection, loads_the_identity_from_the_node_subdirectory_when_one_is_given)
{
	connection = mobus_init("node", files.root.c_str(), url, nullptr, on_text, nullptr);

	ASSERT_NE(connection, nullptr);
	EXPECT_EQ(fake_bus::started_with().private_key, std::string("KEY\0", 4));
	EXPECT_TRUE(log.has_line("INFO", "movrabus", "node=UNIT-1, cert_dir=" + files.root));
}

TEST_F(bus_connection, logs_the_node_and_its_certificate_directory)
{
	start();

	EXPECT_TRUE(log.has_line("INFO", "movrabus", "node=UNIT-1, cert_dir=" + files.node()));
}

TEST_F(bus_connection, refuses_a_missing_certificate_directory)
{
	EXPECT_EQ(mobus_init(nullptr, nullptr, url, nullptr, on_text, nullptr), nullptr);

	EXPECT_EQ(log.messages("ERR"), (strings{"cert_dir is NULL", start_failed}));
	EXPECT_THAT(fake_bus::calls(), IsEmpty());
}

TEST_F(bus_connection, refuses_a_missing_url)
{
	EXPECT_EQ(mobus_init(nullptr, files.node().c_str(), nullptr, nullptr, on_text, nullptr), nullptr);

	EXPECT_EQ(log.messages("ERR"), (strings{"broker_url is NULL", start_failed}));
	EXPECT_THAT(fake_bus::calls(), IsEmpty());
}

TEST_F(bus_connection, ignores_the_result_of_the_low_level_start)
{
	fake_bus::script("tervbus_init_ll", -1);

	start();

	EXPECT_THAT(log.messages("ERR"), IsEmpty());
}

TEST_F(bus_connection, logs_a_refused_start_twice_without_the_library_code_and_stops_the_client)
{
	fake_bus::script("tervbus_init_client", -17);

	EXPECT_EQ(init(), nullptr);

	EXPECT_EQ(log.messages("ERR"), (strings{start_failed, start_failed}));
	strings names = fake_bus::call_names();
	EXPECT_EQ(strings(names.end() - 3, names.end()),
			(strings{"tervbus_init_client", "tervbus_stop_client", "tervbus_fini_ll"}));
}

TEST_F(bus_connection, stops_the_client_after_an_identity_that_cannot_be_loaded)
{
	files.remove("node/private.pem");

	EXPECT_EQ(init(), nullptr);

	EXPECT_EQ(log.messages("ERR"),
			(strings{"unable to open path", "identity->x509.private_key is NULL",
					"Failed to load identity certificate from " + files.node(), start_failed}));
	EXPECT_EQ(fake_bus::call_names(), (strings{"tervbus_init_ll", "tervbus_stop_client", "tervbus_fini_ll"}));
}

TEST_F(bus_connection, can_be_started_again_after_a_failure)
{
	fake_bus::script("tervbus_init_client", -1);
	EXPECT_EQ(init(), nullptr);

	start();
}

TEST_F(bus_connection, starts_without_an_identity_when_the_directory_name_finds_no_memory)
{
	fail_nth failure("vasprintf", 1);
	connection = mobus_init("node", files.root.c_str(), url, nullptr, on_text, nullptr);

	ASSERT_NE(connection, nullptr);
	EXPECT_EQ(fake_bus::call_names(), (strings{"tervbus_init_ll", "tervbus_init_client"}));
	EXPECT_EQ(fake_bus::started_with().identity_type, 0u);
	EXPECT_EQ(mobus_get_node_name(connection), nullptr);
}

TEST_F(bus_connection, logs_a_record_that_finds_no_memory)
{
	fail_nth failure("calloc", 1);
	EXPECT_EQ(init(), nullptr);

	strings errors = log.messages("ERR");
	ASSERT_EQ(errors.size(), 3u);
	EXPECT_THAT(errors[0], testing::MatchesRegex("Failed to malloc [0-9]+ bytes"));
	EXPECT_EQ(errors[1], "memmory allocation failed");
	EXPECT_EQ(errors[2], start_failed);
	EXPECT_THAT(fake_bus::calls(), IsEmpty());
}

TEST_F(bus_connection, survives_every_failing_allocation)
{
	// Without its directory's name (3) the client starts without identity, without room for the two names (12, 13) with
	// no names; the rest are the record, the URL, three files of two blocks each, and two lists.
	for (unsigned nth = 1;; ++nth) {
		SCOPED_TRACE(nth);
		log.clear();
		fail_nth failure("calloc", nth);
		mobus_connection *made = init();
		if (!failure.fired()) {
			mobus_deinit(made);
			EXPECT_EQ(nth, 14u);
			break;
		}
		EXPECT_EQ(made != nullptr, nth == 3 || nth == 12 || nth == 13);
		EXPECT_THAT(log.messages("ERR").front(), testing::StartsWith("Failed to malloc "));
		mobus_deinit(made);
	}
}

TEST_F(bus_connection, logs_an_identity_list_that_finds_no_memory)
{
	struct {
		unsigned nth;
		const char *text;
	} rows[] = {
			{4, "Memory Allocation failed"},
			{6, "identity->x509.trust is NULL"},
			{7, "identity->x509.chain is NULL"},
			{8, "Memory Allocation failed"},
			{10, "Memory Allocation failed"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.nth);
		log.clear();
		fail_nth failure("calloc", row.nth);
		EXPECT_EQ(init(), nullptr);
		EXPECT_EQ(log.count("ERR", "movrabus", row.text), 1u);
	}
}

TEST_F(bus_connection, survives_every_failing_call_on_its_files)
{
	for (const char *function : {"vasprintf", "open", "lseek", "read"})
		for (unsigned nth = 1;; ++nth) {
			SCOPED_TRACE(std::string(function) + " " + std::to_string(nth));
			fail_nth failure(function, nth, EIO);
			mobus_connection *made = init();
			bool fired = failure.fired();
			mobus_deinit(made);
			if (!fired) {
				EXPECT_GT(nth, 3u);
				break;
			}
			EXPECT_EQ(made, nullptr);
		}
}

TEST_F(bus_connection, stops_in_order_and_waits_for_the_release)
{
	start();
	fake_bus::set_release(fake_bus::release_mode::from_thread);

	stop();

	strings names = fake_bus::call_names();
	EXPECT_EQ(strings(names.end() - 2, names.end()), (strings{"tervbus_stop_client", "tervbus_fini_ll"}));
	EXPECT_EQ(fake_bus::client(), nullptr);
}

TEST_F(bus_connection, looks_for_the_release_every_10_ms_and_ends_the_library_only_after_it)
{
	start();
	fake_bus::set_release(fake_bus::release_mode::on_demand);
	polls.clear();
	on_poll = [] {
		EXPECT_EQ(fake_bus::call_names().back(), "tervbus_stop_client");
		if (polls.size() == 5)
			fake_bus::release();
	};

	stop();
	on_poll = nullptr;

	EXPECT_EQ(polls, std::vector<useconds_t>(5, 10'000));
	EXPECT_EQ(fake_bus::count_calls("tervbus_fini_ll"), 1u);
}

TEST_F(bus_connection, that_never_ran_waits_one_period)
{
	fake_bus::script("tervbus_init_client", -1);
	polls.clear();

	EXPECT_EQ(init(), nullptr);

	EXPECT_EQ(polls, std::vector<useconds_t>(1, 10'000));
}

TEST_F(bus_connection, ends_the_wait_although_stopping_fails_when_the_release_comes)
{
	start();
	fake_bus::script("tervbus_stop_client", -1);
	fake_bus::on_call("tervbus_stop_client", fake_bus::release);

	stop();

	EXPECT_EQ(fake_bus::count_calls("tervbus_fini_ll"), 1u);
}

TEST_F(bus_connection, accepts_null_everywhere)
{
	mobus_deinit(nullptr);

	EXPECT_EQ(mobus_get_state(nullptr), 0);
	EXPECT_FALSE(mobus_has_state(nullptr, 0));
	EXPECT_EQ(mobus_get_node_name(nullptr), nullptr);
	EXPECT_THAT(fake_bus::calls(), IsEmpty());
}

TEST_F(bus_connection, tells_its_node_name)
{
	start();

	EXPECT_STREQ(mobus_get_node_name(connection), "UNIT-1");
}

TEST_F(bus_connection, always_asks_for_the_connected_bit_too)
{
	start();
	EXPECT_FALSE(mobus_has_state(connection, 0));

	fake_bus::presence({fake_bus::unit("PEER")}, {});
	EXPECT_TRUE(mobus_has_state(connection, 0));
	EXPECT_TRUE(mobus_has_state(connection, MOBUS_STATE_CONNECTED));
	EXPECT_FALSE(mobus_has_state(connection, MOBUS_STATE_DM_CLIENT));
	EXPECT_TRUE(mobus_has_state(connection, 0x100)); // only the low 8 bits are asked for

	fake_bus::presence({fake_bus::special(0)}, {});
	EXPECT_TRUE(mobus_has_state(connection, MOBUS_STATE_DM_CLIENT));
	EXPECT_FALSE(mobus_has_state(connection, MOBUS_STATE_DM_CLIENT | 0x08));
}
