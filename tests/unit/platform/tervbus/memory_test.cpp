// Memory or a system call that fails, at every place in turn: a call says so and leaves nothing behind, the bus thread
// goes on, and the next one works.
#include "bus_fixture.h"
#include "bus_seams.h"

#include "address.h"
#include "identity.h"
#include "mqtt_properties.h"
#include "presence.h"
#include "seen_ids.h"

#include "support/fail_nth.h"

#include <mosquitto.h>
#include <netdb.h>
#include <openssl/crypto.h>

#include <atomic>

using testing::ElementsAre;

namespace
{

struct failing {
	const char *function;
	int error;
};

// Runs the body with the 1st, 2nd, ... call failing, until the body needs fewer: it is told whether one has failed.
template <typename Body, typename Outcome>
void sweep(const failing &what, fail_nth::threads whose, Body body, Outcome outcome)
{
	for (unsigned nth = 1;; nth++) {
		SCOPED_TRACE(std::string(what.function) + " " + std::to_string(nth));
		bool failed = false;
		{
			const fail_nth failure(what.function, nth, what.error, whose);
			body();
			failed = failure.fired();
		}
		outcome(failed);
		if (!failed) {
			EXPECT_GT(nth, 1u) << "it is not called at all";
			return;
		}
		if (testing::Test::HasFatalFailure())
			return;
	}
}

// OpenSSL's own allocations, counted and failing while the thread asks for it.
thread_local unsigned openssl_calls = 0;
thread_local unsigned openssl_failing = 0; // 0: none

bool openssl_fails()
{
	return openssl_failing != 0 && ++openssl_calls == openssl_failing;
}

void *openssl_malloc(size_t size, const char *, int)
{
	return openssl_fails() ? nullptr : malloc(size);
}

void *openssl_realloc(void *old, size_t size, const char *, int)
{
	return openssl_fails() ? nullptr : realloc(old, size);
}

void openssl_free(void *old, const char *, int)
{
	free(old);
}

const int openssl_seam = CRYPTO_set_mem_functions(openssl_malloc, openssl_realloc, openssl_free);

std::string nobody_listens()
{
	static const loopback_port port;
	return port.url();
}

// The library's lines, for the test that asks for them.
std::mutex lines_lock;
std::vector<std::string> lines;

void keep_line(const char *text)
{
	const std::lock_guard guard(lines_lock);
	lines.push_back(text);
}

std::vector<std::string> take_lines()
{
	const std::lock_guard guard(lines_lock);
	return std::exchange(lines, {});
}

bool wait_for_line_or_message(test_node *node, const std::string &line)
{
	for (int round = 0; round < 1000; round++) {
		if (node->wait(
					[](const node_record &record) { return !record.messages.empty(); }, std::chrono::milliseconds(10)))
			return true;
		for (const std::string &told : take_lines())
			if (told.find(line) != std::string::npos)
				return true;
	}
	return false;
}

class bus_memory : public bus_test
{
protected:
	void SetUp() override
	{
		bus_test::SetUp();
		tervbus_setup setup{};
		setup.debug = keep_line;
		ASSERT_EQ(tervbus_init_ll(&setup), 0); // a second user's lines go to the second user
		(void)take_lines();
	}

	void TearDown() override
	{
		EXPECT_EQ(tervbus_fini_ll(), 0);
		bus_test::TearDown();
	}
};

class bus_memory_with_broker : public bus_memory
{
protected:
	void SetUp() override
	{
		bus_memory::SetUp();
		broker.start();
	}

	test_broker broker{cast().ca, {.rules = cast_rules, .bridges = {}}};
};

} // namespace

TEST(bus_library_memory, fails_to_start_and_starts_the_next_time)
{
	tervbus_setup setup{};
	const size_t before = open_descriptors();
	const failing rows[] = {{"calloc", ENOMEM}, {"eventfd", EMFILE}, {"mosquitto_lib_init", MOSQ_ERR_NOMEM},
			{"pthread_create", EAGAIN}};
	for (const failing &row : rows) {
		int result = 0;
		sweep(
				row, fail_nth::this_thread, [&] { result = tervbus_init_ll(&setup); },
				[&](bool failed) {
					EXPECT_EQ(result < 0, failed);
					EXPECT_EQ(tervbus_fini_ll() < 0, failed);
					EXPECT_EQ(open_descriptors(), before);
				});
	}
}

TEST_F(bus_memory, fails_to_start_a_client_and_starts_it_the_next_time)
{
	const std::string url = nobody_listens();
	const failing rows[] = {{"calloc", ENOMEM}, {"SSL_CTX_new", ENOMEM}, {"BIO_new_mem_buf", ENOMEM}};
	for (const failing &row : rows) {
		test_node node(cast().agent, trust());
		int result = 0;
		sweep(
				row, fail_nth::this_thread, [&] { result = node.start(url); },
				[&](bool failed) {
					EXPECT_EQ(result < 0, failed);
					if (!failed) {
						EXPECT_TRUE(node.stop_and_wait());
					}
					EXPECT_EQ(node.record().releases, failed ? 0 : 1);
					EXPECT_EQ(node.record().conditions.empty(), failed);
				});
	}
}

TEST_F(bus_memory, fails_to_start_one_client_more_and_keeps_the_others)
{
	const std::string url = nobody_listens();
	std::vector<std::unique_ptr<test_node>> others;
	for (int i = 0; i < 4; i++) {
		others.push_back(std::make_unique<test_node>(cast().agent, trust()));
		ASSERT_EQ(others.back()->start(url), 0);
	}
	test_node node(cast().agent, trust());
	int result = 0;
	sweep(
			{"calloc", ENOMEM}, fail_nth::this_thread, [&] { result = node.start(url); },
			[&](bool failed) { EXPECT_EQ(result < 0, failed); });
	EXPECT_TRUE(node.wait_condition(TERVBUS_CONDITION_CONNECTION_FAILED));
	for (const auto &other : others) {
		EXPECT_TRUE(other->wait_condition(TERVBUS_CONDITION_CONNECTION_FAILED));
		EXPECT_TRUE(other->stop_and_wait());
	}
}

TEST_F(bus_memory, refuses_an_identity_wherever_openssl_lacks_it)
{
	ASSERT_EQ(openssl_seam, 1);
	test_identity holder(cast().agent, trust());
	tervbus_identity identity{};
	holder.fill(&identity);
	tls_report report;
	bus_names names;
	const char *why = nullptr;
	const auto use = [&] {
		why = nullptr;
		return identity_names(&identity, &names, &why) &&
				identity_tls_context(&identity, "127.0.0.1", &report, &why) != nullptr;
	};
	ASSERT_TRUE(use()); // OpenSSL's tables are made with the first context

	unsigned refused = 0;
	const unsigned every = 41; // of several thousand
	for (unsigned nth = 1;; nth += every) {
		openssl_calls = 0;
		openssl_failing = nth;
		const bool used = use();
		openssl_failing = 0;
		if (openssl_calls < nth)
			break;
		// Some of it OpenSSL can do without.
		EXPECT_EQ(why == nullptr, used) << nth;
		refused += used ? 0 : 1;
	}
	EXPECT_GT(refused, 10u);
	EXPECT_TRUE(use());
}

TEST_F(bus_memory, fails_to_name_an_identitys_addresses)
{
	test_identity holder(cast().dm_client, trust());
	tervbus_identity identity{};
	holder.fill(&identity);
	for (const failing &row :
			{failing{"calloc", ENOMEM}, failing{"strdup", ENOMEM}, failing{"BIO_new_mem_buf", ENOMEM}}) {
		address_entry *list = nullptr;
		int result = 0;
		sweep(
				row, fail_nth::this_thread, [&] { result = tervbus_get_identity_data(&identity, &list, 0, 0); },
				[&](bool failed) {
					EXPECT_EQ(result < 0, failed);
					EXPECT_EQ(list == nullptr, failed);
				});
		tervbus_free_address(list, 1);
	}
}

TEST_F(bus_memory, fails_to_chain_an_address_and_leaves_the_list)
{
	for (const failing &row : {failing{"calloc", ENOMEM}, failing{"strdup", ENOMEM}}) {
		address_entry *list = nullptr;
		ASSERT_EQ(tervbus_chain_address(&list, 2, "first"), 0);
		int result = 0;
		sweep(
				row, fail_nth::this_thread, [&] { result = tervbus_chain_address(&list, 3, "second"); },
				[&](bool failed) {
					EXPECT_EQ(result < 0, failed);
					EXPECT_EQ(list->next == nullptr, failed);
				});
		tervbus_free_address(list, 1);
	}
}

TEST_F(bus_memory, refuses_a_send_and_leaves_the_message_to_its_owner)
{
	test_node node(cast().agent, trust());
	ASSERT_EQ(node.start(nobody_listens()), 0);
	const auto message = static_cast<tervbus_message *>(calloc(1, sizeof(tervbus_message)));
	ASSERT_EQ(tervbus_chain_address(&message->destination, 2, "requester"), 0);
	int result = 0;
	sweep(
			{"calloc", ENOMEM}, fail_nth::this_thread,
			[&] { result = tervbus_send_message(node.client(), message, 0); },
			[&](bool failed) { EXPECT_EQ(result < 0, failed); });
	ASSERT_TRUE(node.stop_and_wait());
	EXPECT_EQ(node.record().deliveries.size(), 1u);
}

TEST_F(bus_memory_with_broker, comes_up_all_the_same_after_attempts_that_lacked_it)
{
	const size_t before = open_descriptors();
	const failing rows[] = {
			{"calloc", ENOMEM},
			{"pthread_create", EAGAIN},
			{"getaddrinfo", EAI_MEMORY},
			{"mosquitto_new", ENOMEM},
			{"mosquitto_int_option", MOSQ_ERR_NOMEM},
			{"mosquitto_void_option", MOSQ_ERR_NOMEM},
			{"mosquitto_will_set_v5", MOSQ_ERR_NOMEM},
			{"mosquitto_property_add_int32", MOSQ_ERR_NOMEM},
			{"mosquitto_connect_bind_v5", MOSQ_ERR_NOMEM},
			{"mosquitto_connect_bind_async", MOSQ_ERR_NOMEM},
			{"mosquitto_subscribe_multiple", MOSQ_ERR_NOMEM},
	};
	for (const failing &row : rows) {
		SCOPED_TRACE(row.function);
		for (unsigned nth = 1;; nth++) {
			const fail_nth failure(row.function, nth, row.error, fail_nth::other_threads);
			test_node node(cast().agent, trust());
			ASSERT_EQ(node.start("tcp://localhost:" + std::to_string(broker.port())), 0);
			ASSERT_TRUE(wait_condition_over_pauses(&node, TERVBUS_CONDITION_RUNNING)) << nth;
			ASSERT_TRUE(node.stop_and_wait());
			const std::vector<int> told = node.record().conditions;
			if (!failure.fired()) {
				EXPECT_THAT(told, ElementsAre(7, 0, 6));
				EXPECT_GT(nth, 1u) << "it is not called at all";
				break;
			}
			// What fails once it runs costs the link, when it is a publish, and nothing, when a status has come in.
			EXPECT_THAT(told,
					testing::AnyOf(ElementsAre(7, 1, 0, 6), ElementsAre(7, 2, 0, 6), ElementsAre(7, 0, 4, 0, 6),
							ElementsAre(7, 0, 4, 6), ElementsAre(7, 0, 6)))
					<< nth;
		}
	}
	EXPECT_EQ(open_descriptors(), before);
}

TEST_F(bus_memory_with_broker, takes_a_new_link_for_a_publish_that_lacked_it_and_tells_its_end_once)
{
	const char *const functions[] = {"mosquitto_publish_v5", "mosquitto_property_add_int32",
			"mosquitto_property_add_string", "mosquitto_property_add_string_pair"};
	for (const char *function : functions) {
		SCOPED_TRACE(function);
		test_node requester(cast().requester, trust());
		test_node agent(cast().agent, trust());
		bring_up(&requester, broker);
		bring_up(&agent, broker);
		ASSERT_EQ(requester.send({"2:agent"}, "before"), 0); // its "on" is out by the time that this is
		ASSERT_TRUE(requester.wait_deliveries(1));
		{
			const fail_nth failure(function, 1, MOSQ_ERR_NOMEM, fail_nth::other_threads);
			ASSERT_EQ(requester.send({"2:agent"}, "lacking"), 0);
			ASSERT_TRUE(requester.wait_condition(TERVBUS_CONDITION_CONNECTION_BROKE));
			ASSERT_TRUE(wait_condition_over_pauses(&requester, TERVBUS_CONDITION_RUNNING));
			EXPECT_TRUE(failure.fired());
		}
		ASSERT_TRUE(requester.wait_deliveries(2));
		ASSERT_TRUE(agent.wait_messages(2));
		ASSERT_TRUE(requester.stop_and_wait());
		EXPECT_EQ(requester.record().deliveries.size(), 2u);
		EXPECT_TRUE(requester.record().deliveries[1].ok);
		EXPECT_EQ(agent.record().messages.size(), 2u);
	}
}

TEST_F(bus_memory_with_broker, drops_an_incoming_message_that_it_cannot_hold_and_takes_the_next)
{
	test_node requester(cast().requester, trust());
	test_node agent(cast().agent, trust());
	bring_up(&requester, broker);
	bring_up(&agent, broker);
	ASSERT_EQ(agent.send({"2:requester"}, "its status is out"), 0);
	ASSERT_TRUE(agent.wait_deliveries(1));
	const std::string line = "from requester dropped: no memory";
	const failing rows[] = {{"calloc", ENOMEM}, {"strdup", ENOMEM}};
	for (const failing &row : rows) {
		for (unsigned nth = 1;; nth++) {
			SCOPED_TRACE(std::string(row.function) + " " + std::to_string(nth));
			agent.forget();
			(void)take_lines();
			bool failed = false;
			{
				const fail_nth failure(row.function, nth, row.error, fail_nth::other_threads);
				ASSERT_EQ(requester.send({"2:agent"}, "perhaps"), 0);
				ASSERT_TRUE(wait_for_line_or_message(&agent, line));
				failed = failure.fired();
			}
			EXPECT_EQ(agent.record().messages.empty(), failed);
			ASSERT_EQ(requester.send({"2:agent"}, "last"), 0);
			ASSERT_TRUE(agent.wait_messages(failed ? 1 : 2));
			EXPECT_STREQ(agent.record().messages.back().data.c_str(), "last");
			if (!failed)
				break;
		}
	}
}

// The first call looks where the property is, the second reads it.
TEST(properties_memory, are_not_read_in_part)
{
	for (const char *function : {"mosquitto_property_read_string_pair", "mosquitto_property_read_string"}) {
		SCOPED_TRACE(function);
		mosquitto_property *list = nullptr;
		ASSERT_EQ(mqtt_properties_make(&list, "text/plain", "0123456789abcdef0123456789abcdef", 60), MOSQ_ERR_SUCCESS);
		message_properties read;
		{
			const fail_nth failure(function, 2);
			EXPECT_FALSE(mqtt_properties_read(list, &read));
			EXPECT_TRUE(failure.fired());
		}
		EXPECT_EQ(read.content_type, nullptr);
		EXPECT_FALSE(read.has_id);

		EXPECT_TRUE(mqtt_properties_read(list, &read));
		EXPECT_STREQ(read.content_type, "text/plain");
		EXPECT_TRUE(read.has_id);
		EXPECT_EQ(read.left_s, 60u);
		free(read.content_type);
		mosquitto_property_free_all(&list);
	}
}

TEST(presence_memory, tells_a_peer_at_its_next_status)
{
	presence_table table;
	for (const failing &row : {failing{"calloc", ENOMEM}, failing{"strdup", ENOMEM}}) {
		bool told = false;
		sweep(
				row, fail_nth::this_thread,
				[&] {
					told = presence_note(&table, bus_name_of("peer"), bus_name_of("group"), "on", 180, 0).connected !=
							nullptr;
				},
				[&](bool failed) {
					EXPECT_EQ(told, !failed);
					EXPECT_EQ(table.count, failed ? 0u : 1u);
				});
		presence_clear(&table);
	}
}

TEST(seen_ids_memory, notes_no_sender_and_notes_it_the_next_time)
{
	seen_ids seen;
	const message_id id{1};
	seen_verdict verdict = seen_verdict::known;
	sweep(
			{"calloc", ENOMEM}, fail_nth::this_thread, [&] { verdict = seen_ids_note(&seen, "peer", id, 0); },
			[&](bool failed) { EXPECT_EQ(verdict, failed ? seen_verdict::no_memory : seen_verdict::fresh); });
	EXPECT_EQ(seen_ids_note(&seen, "peer", id, 0), seen_verdict::known);
	seen_ids_clear(&seen);
}
