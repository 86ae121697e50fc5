// On which thread callbacks come, what may be called from inside them, and that the release is the last that the
// library does with a record.
#include "bus_fixture.h"

#include "support/test_scripted_broker.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <set>
#include <thread>

namespace
{

// A record whose owner frees it, and all that it points to, in its release.
struct passing_node {
	tervbus_client client{};
	std::unique_ptr<test_identity> identity;
	std::atomic<bool> *released;
};

void end_with_the_release(tervbus_client *client)
{
	auto *node = static_cast<passing_node *>(client->user);
	std::atomic<bool> *released = node->released;
	delete node;
	*released = true;
}

// Restarts its client once, from inside the release.
struct returning_node {
	tervbus_client client{};
	std::string url;
	std::atomic<int> releases{0};
	std::atomic<int> started{0};
	std::atomic<int> restart_result{-1};
};

returning_node *returning(tervbus_client *client)
{
	return static_cast<returning_node *>(client->user);
}

// Which threads the callbacks came on.
struct callback_threads {
	std::mutex lock;
	std::set<pthread_t> seen;
	std::atomic<int> releases{0};
};

void note_thread(tervbus_client *client)
{
	auto *threads = static_cast<callback_threads *>(client->user);
	const std::lock_guard guard(threads->lock);
	threads->seen.insert(pthread_self());
}

bool comes(const std::function<bool()> &condition)
{
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (!condition() && std::chrono::steady_clock::now() < end)
		std::this_thread::yield();
	return condition();
}

} // namespace

using bus_callbacks = bus_broker_test;

TEST_F(bus_callbacks, end_with_a_release_in_which_the_record_may_be_freed)
{
	for (const bool running : {true, false}) {
		std::atomic<bool> released{false};
		auto *node = new passing_node;
		node->identity = std::make_unique<test_identity>(cast().agent, trust());
		node->identity->fill(&node->client.identity);
		node->released = &released;
		node->client.mode = 1;
		node->client.user = node;
		node->client.on_release = end_with_the_release;
		ASSERT_EQ(tervbus_init_client(&node->client, broker.url().c_str()), 0);
		if (running) {
			ASSERT_TRUE(comes([this] { return broker.log().find("as agent (") != std::string::npos; }));
		}
		ASSERT_EQ(tervbus_stop_client(&node->client), 0);
		EXPECT_TRUE(comes([&released] { return released.load(); }));
	}
}

TEST_F(bus_callbacks, may_start_the_client_anew_from_inside_its_release)
{
	test_identity identity(cast().agent, trust());
	returning_node node;
	node.url = broker.url();
	identity.fill(&node.client.identity);
	node.client.mode = 1;
	node.client.user = &node;
	node.client.on_connection_status = [](tervbus_client *client, int condition) {
		if (condition == TERVBUS_CONDITION_RUNNING)
			returning(client)->started++;
	};
	node.client.on_release = [](tervbus_client *client) {
		returning_node *own = returning(client);
		if (own->releases == 0)
			own->restart_result = tervbus_init_client(client, own->url.c_str());
		own->releases++;
	};
	ASSERT_EQ(tervbus_init_client(&node.client, node.url.c_str()), 0);
	ASSERT_TRUE(comes([&node] { return node.started == 1; }));
	ASSERT_EQ(tervbus_stop_client(&node.client), 0);
	ASSERT_TRUE(comes([&node] { return node.started == 2; }));
	EXPECT_EQ(node.restart_result, 0);
	ASSERT_EQ(tervbus_stop_client(&node.client), 0);
	EXPECT_TRUE(comes([&node] { return node.releases == 2; }));
}

TEST_F(bus_callbacks, come_on_one_thread_that_is_not_the_callers)
{
	test_identity identity(cast().requester, trust());
	callback_threads threads;
	tervbus_client client{};
	identity.fill(&client.identity);
	client.mode = 1;
	client.user = &threads;
	client.on_connection_status = [](tervbus_client *own, int) {
		note_thread(own);
	};
	client.on_message = [](tervbus_client *own, tervbus_message *) {
		note_thread(own);
	};
	client.on_delivered = [](tervbus_client *own, tervbus_message *, void *, int) {
		note_thread(own);
	};
	client.on_presence = [](tervbus_client *own, address_entry *, address_entry *) {
		note_thread(own);
	};
	client.on_release = [](tervbus_client *own) {
		note_thread(own);
		static_cast<callback_threads *>(own->user)->releases++;
	};
	ASSERT_EQ(tervbus_init_client(&client, broker.url().c_str()), 0);
	test_node agent(cast().agent, trust());
	test_node dm_client(cast().dm_client, trust());
	bring_up(&agent, broker);
	bring_up(&dm_client, broker);
	ASSERT_TRUE(comes([this] { return broker.log().find("as requester (") != std::string::npos; }));
	ASSERT_EQ(agent.send({"2:requester"}, "x"), 0);
	ASSERT_TRUE(agent.wait_deliveries(1));
	address_entry *to = nullptr;
	ASSERT_EQ(tervbus_chain_address(&to, 2, "agent"), 0);
	tervbus_message message{};
	message.destination = to;
	ASSERT_EQ(tervbus_send_message(&client, &message, 0), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	ASSERT_EQ(tervbus_stop_client(&client), 0);
	ASSERT_TRUE(comes([&threads] { return threads.releases == 1; }));
	tervbus_free_address(to, 1);
	EXPECT_EQ(threads.seen.size(), 1u);
	EXPECT_FALSE(threads.seen.contains(pthread_self()));
}

TEST_F(bus_callbacks, may_use_every_operation_from_inside)
{
	test_node requester(cast().requester, trust());
	test_node agent(cast().agent, trust());
	test_node third(cast().agent2, trust());
	std::atomic<int> failed{0};
	const auto count = [&failed](bool good) {
		failed += good ? 0 : 1;
	};
	agent.in_message = [&] {
		tervbus_setup setup{};
		address_entry *list = nullptr;
		count(tervbus_init_ll(&setup) == 0); // a further user, whose end is the test's
		count(tervbus_get_identity_data(&agent.client()->identity, &list, 0, 0) == 0);
		count(tervbus_chain_address(&list, 2, "one more") == 0);
		count(tervbus_free_address(list, 1) == 0);
		count(third.start(broker.url()) == 0);
		count(third.send({"2:requester"}, "from inside") == 0);
		count(third.stop() == 0);
		count(tervbus_fini_ll() < 0);
	};
	bring_up(&requester, broker);
	bring_up(&agent, broker);
	ASSERT_EQ(requester.send({"2:agent"}, "x"), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	EXPECT_EQ(tervbus_fini_ll(), 0);
	EXPECT_EQ(failed, 0);
	EXPECT_TRUE(third.wait([](const node_record &record) { return record.releases == 1; }));
}

TEST_F(bus_callbacks, need_not_be_there)
{
	test_identity identity(cast().agent, trust());
	tervbus_client client{};
	identity.fill(&client.identity);
	client.mode = 1;
	ASSERT_EQ(tervbus_init_client(&client, broker.url().c_str()), 0);
	ASSERT_TRUE(comes([this] { return broker.log().find("as agent (") != std::string::npos; }));
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	ASSERT_EQ(requester.send({"2:agent"}, "x"), 0);
	EXPECT_TRUE(requester.wait_deliveries(1));
	ASSERT_EQ(tervbus_stop_client(&client), 0);
	ASSERT_EQ(tervbus_fini_ll(), 0); // joins the thread, so that the record may go
	ASSERT_EQ(tervbus_init_ll(nullptr), 0);
}

using bus_session = bus_broker_test;

TEST_F(bus_session, is_kept_by_the_broker_with_a_keep_alive_of_ten_seconds)
{
	test_node agent(cast().agent, trust());
	bring_up(&agent, broker);
	EXPECT_THAT(broker.log(), testing::HasSubstr("as agent (p5, c0, k10, u'agent')"));
}

// MQTT 5, 3.1.2: the protocol's name and version, the flags, the keep-alive, then the properties.
TEST_F(bus_session, lasts_for_sixty_seconds_of_absence_and_takes_what_the_bus_carries)
{
	test_scripted_broker strict(cast().ca, {.silent_from = broker_stage::connect});
	test_node agent(cast().agent, trust());
	ASSERT_EQ(agent.start(strict.url()), 0);
	ASSERT_TRUE(strict.wait_for(broker_stage::connect));
	const std::vector<uint8_t> connect = strict.connect();
	ASSERT_GT(connect.size(), 11u);
	const std::vector<uint8_t> flags_and_keep_alive(connect.begin() + 7, connect.begin() + 10);
	EXPECT_EQ(flags_and_keep_alive, (std::vector<uint8_t>{0x2C, 0, 10})) << "a retained will, no clean start";

	ASSERT_GE(connect.size(), 11u + connect[10]);
	const auto properties_end = connect.begin() + 11 + connect[10];
	for (const std::vector<uint8_t> &property : {std::vector<uint8_t>{0x11, 0, 0, 0, 60}, {0x27, 0x01, 0x10, 0, 0}})
		EXPECT_NE(std::search(connect.begin() + 11, properties_end, property.begin(), property.end()), properties_end);
	ASSERT_TRUE(agent.stop_and_wait());
}
