// How a link ends and comes back, with the clock in the test's hand: what the broker's word is told as, how long the
// pause is, names that do not resolve for a while, and what waits meanwhile. The broker's DISCONNECT is played at the
// MQTT library's edge, because that library's own handling of it is no clean sight under ThreadSanitizer.
#include "bus_fixture.h"
#include "bus_seams.h"

#include "support/fail_nth.h"
#include "support/test_scripted_broker.h"
#include "support/test_slow_link.h"

#include <mosquitto.h>
#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <thread>

using testing::ElementsAre;
using testing::Ge;
using testing::Le;

namespace
{

// The reason of a DISCONNECT that is to come next; -1: none.
std::atomic<int> disconnect_reason{-1};
void (*told_disconnect)(mosquitto *, void *, int, const mosquitto_property *) = nullptr; // the bus thread's

std::atomic<int> resolve_failures{0}; // to come
std::atomic<int> resolve_error{EAI_AGAIN};
std::atomic<bool> resolver_hangs{false};

} // namespace

extern "C" {
void __real_mosquitto_disconnect_v5_callback_set(
		mosquitto *handle, void (*callback)(mosquitto *, void *, int, const mosquitto_property *));
void __wrap_mosquitto_disconnect_v5_callback_set(
		mosquitto *handle, void (*callback)(mosquitto *, void *, int, const mosquitto_property *));
int __real_mosquitto_loop_read(mosquitto *handle, int packets);
int __wrap_mosquitto_loop_read(mosquitto *handle, int packets);
int __real_getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **list);
int __wrap_getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **list);

void __wrap_mosquitto_disconnect_v5_callback_set(
		mosquitto *handle, void (*callback)(mosquitto *, void *, int, const mosquitto_property *))
{
	told_disconnect = callback;
	__real_mosquitto_disconnect_v5_callback_set(handle, callback);
}

// As when a DISCONNECT has been read: the callback with its reason, then the socket's end, which is told as well.
int __wrap_mosquitto_loop_read(mosquitto *handle, int packets)
{
	const int reason = disconnect_reason.exchange(-1);
	if (reason < 0)
		return __real_mosquitto_loop_read(handle, packets);
	told_disconnect(handle, mosquitto_userdata(handle), reason, nullptr);
	shutdown(mosquitto_socket(handle), SHUT_RDWR);
	while (mosquitto_socket(handle) >= 0 && __real_mosquitto_loop_read(handle, packets) == MOSQ_ERR_SUCCESS)
		; // what came before the end
	return MOSQ_ERR_CONN_LOST;
}

int __wrap_getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **list)
{
	while (resolver_hangs)
		std::this_thread::yield();
	if (resolve_failures > 0) {
		resolve_failures--;
		return resolve_error;
	}
	return __real_getaddrinfo(strcmp(name, "localhost") == 0 ? "127.0.0.1" : name, service, hints, list);
}
}

namespace
{

std::mutex lines_lock;
std::vector<std::string> lines;

// The library's lines, and a broker.
class bus_link_end : public bus_broker_test
{
protected:
	void SetUp() override
	{
		bus_broker_test::SetUp();
		tervbus_setup setup{};
		setup.debug = [](const char *text) {
			const std::lock_guard guard(lines_lock);
			lines.push_back(text);
		};
		ASSERT_EQ(tervbus_init_ll(&setup), 0); // a second user's lines go to the second user
		(void)take_lines();
	}

	void TearDown() override
	{
		EXPECT_EQ(tervbus_fini_ll(), 0);
		bus_broker_test::TearDown();
	}

	static std::vector<std::string> take_lines()
	{
		const std::lock_guard guard(lines_lock);
		return std::exchange(lines, {});
	}

	// Waits for the pause that the library announces; -1 when it announces none.
	static int wait_pause_ms()
	{
		int pause_ms = -1;
		const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
		while (pause_ms < 0 && std::chrono::steady_clock::now() < end) {
			for (const std::string &line : take_lines())
				(void)sscanf(line.c_str(), "next attempt in %d ms", &pause_ms);
			std::this_thread::yield();
		}
		return pause_ms;
	}

	std::string named_url() const
	{
		return "tcp://localhost:" + std::to_string(broker.port());
	}
};

using bus_status_in_time = bus_link_end;
using bus_incoming_limit = bus_link_end;

// The broker throws the node out, or goes away, with the next packet that comes.
void play_disconnect(test_node *node, int reason)
{
	disconnect_reason = reason;
	ASSERT_EQ(node->send({"2:nobody-at-all"}, "its answer brings the DISCONNECT"), 0);
}

} // namespace

TEST_F(bus_link_end, is_told_once_by_the_brokers_reason_and_healed_after_its_pause)
{
	struct row {
		const char *name;
		int reason;
		int condition;
		int shortest_ms;
		int longest_ms;
	};
	const row rows[] = {
			{"session taken over", 0x8E, TERVBUS_CONDITION_CONNECTION_ABORTED, 4000, 8000},
			{"administrative action", 0x98, TERVBUS_CONDITION_CONNECTION_ABORTED, 4000, 8000},
			{"not authorised", 0x87, TERVBUS_CONDITION_CONNECTION_ABORTED, 4000, 8000},
			{"quota exceeded", 0x97, TERVBUS_CONDITION_CONNECTION_ABORTED, 4000, 8000},
			{"shutting down", 0x8B, TERVBUS_CONDITION_CONNECTION_BROKE, 125, 250},
			{"busy", 0x89, TERVBUS_CONDITION_CONNECTION_BROKE, 125, 250},
			{"keep-alive", 0x8D, TERVBUS_CONDITION_CONNECTION_BROKE, 125, 250},
			{"no reason", 0x00, TERVBUS_CONDITION_CONNECTION_BROKE, 125, 250},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.name);
		test_node node(cast().agent, trust());
		bring_up(&node, broker);
		(void)take_lines();
		play_disconnect(&node, row.reason);
		ASSERT_TRUE(node.wait_condition(row.condition));
		const int pause_ms = wait_pause_ms();
		EXPECT_THAT(pause_ms, testing::AllOf(Ge(row.shortest_ms), Le(row.longest_ms)));
		bus_clock_advance(pause_ms);
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_RUNNING));
		ASSERT_TRUE(node.stop_and_wait());
		EXPECT_THAT(node.record().conditions, ElementsAre(7, 0, row.condition, 0, 6));
		EXPECT_EQ(node.record().deliveries.size(), 1u);
	}
}

TEST_F(bus_link_end, pauses_longer_each_time_that_it_is_thrown_out_at_once)
{
	test_node node(cast().agent, trust());
	bring_up(&node, broker);
	for (const int step_ms : {8000, 16'000, 30'000, 30'000}) {
		(void)take_lines();
		play_disconnect(&node, 0x8E);
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_CONNECTION_ABORTED));
		const int pause_ms = wait_pause_ms();
		EXPECT_THAT(pause_ms, testing::AllOf(Ge(step_ms / 2), Le(step_ms)));
		bus_clock_advance(pause_ms);
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_RUNNING));
	}
}

// This broker closes without a word when another client takes the session.
TEST_F(bus_link_end, by_another_process_of_the_same_identity_is_said_and_backed_off)
{
	test_node node(cast().agent, trust());
	test_node same(cast().agent, trust());
	bring_up(&node, broker);
	bring_up(&same, broker);
	int said = 0;
	int longest_pause_ms = 0;
	for (int round = 0; round < 2000 && (said < 4 || longest_pause_ms < 2000); round++) {
		std::this_thread::sleep_for(std::chrono::milliseconds(5)); // the clock's pace: the two have to meet
		bus_clock_advance(50);
		for (const std::string &line : take_lines()) {
			int pause_ms = 0;
			said += line.find("does another process use the identity of agent?") != std::string::npos ? 1 : 0;
			if (sscanf(line.c_str(), "next attempt in %d ms", &pause_ms) == 1)
				longest_pause_ms = std::max(longest_pause_ms, pause_ms);
		}
	}
	EXPECT_GE(said, 4);
	EXPECT_GE(longest_pause_ms, 2000);

	ASSERT_TRUE(same.stop_and_wait());
	ASSERT_TRUE(wait_condition_over_pauses(&node, TERVBUS_CONDITION_RUNNING));
}

TEST_F(bus_link_end, at_a_port_that_refuses_is_told_once_and_heals_by_itself)
{
	broker.kill();
	test_node node(cast().agent, trust());
	ASSERT_EQ(node.start(broker.url()), 0);
	for (int attempt = 0; attempt < 3; attempt++) {
		const int pause_ms = wait_pause_ms();
		ASSERT_GE(pause_ms, 0);
		bus_clock_advance(pause_ms);
	}
	broker.start();
	ASSERT_TRUE(wait_condition_over_pauses(&node, TERVBUS_CONDITION_RUNNING));
	EXPECT_THAT(node.record().conditions, ElementsAre(7, 2, 0));
}

TEST_F(bus_link_end, for_a_name_that_does_not_resolve_is_told_once_and_heals_by_itself)
{
	for (const int error : {EAI_AGAIN, EAI_NONAME, EAI_FAIL, EAI_SYSTEM}) {
		SCOPED_TRACE(gai_strerror(error));
		resolve_error = error;
		resolve_failures = 4;
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(named_url()), 0);
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_RESOLUTION_FAILED));
		ASSERT_TRUE(wait_condition_over_pauses(&node, TERVBUS_CONDITION_RUNNING));
		EXPECT_EQ(resolve_failures, 0);
		EXPECT_THAT(node.record().conditions, ElementsAre(7, 1, 0));
	}
}

TEST_F(bus_link_end, for_a_name_that_is_gone_later_is_told_and_heals_by_itself)
{
	test_node node(cast().agent, trust());
	ASSERT_EQ(node.start(named_url()), 0);
	ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_RUNNING));
	resolve_failures = 2;
	play_disconnect(&node, 0x8B);
	ASSERT_TRUE(wait_condition_over_pauses(&node, TERVBUS_CONDITION_RESOLUTION_FAILED));
	ASSERT_TRUE(wait_condition_over_pauses(&node, TERVBUS_CONDITION_RUNNING));
	EXPECT_THAT(node.record().conditions, ElementsAre(7, 0, 4, 1, 0));
}

TEST_F(bus_link_end, waits_for_a_resolver_that_does_not_answer_and_can_be_stopped_meanwhile)
{
	resolver_hangs = true;
	test_node patient(cast().agent, trust());
	test_node stopped(cast().agent2, trust());
	ASSERT_EQ(patient.start(named_url()), 0);
	ASSERT_EQ(stopped.start(named_url()), 0);
	ASSERT_TRUE(patient.wait_condition(TERVBUS_CONDITION_START));
	bus_clock_advance(5'000); // well below 10, as real time goes on as well
	EXPECT_FALSE(patient.wait(
			[](const node_record &record) { return record.conditions.size() > 1; }, std::chrono::milliseconds(50)));
	bus_clock_advance(5'000);
	ASSERT_TRUE(patient.wait_condition(TERVBUS_CONDITION_RESOLUTION_FAILED));
	EXPECT_TRUE(stopped.stop_and_wait());

	resolver_hangs = false;
	ASSERT_TRUE(patient.wait_condition(TERVBUS_CONDITION_RUNNING));
	EXPECT_THAT(patient.record().conditions, ElementsAre(7, 1, 0));
}

TEST_F(bus_link_end, leaves_a_waiting_message_what_is_left_of_its_minute)
{
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	broker.kill();
	ASSERT_TRUE(requester.wait_condition(TERVBUS_CONDITION_CONNECTION_FAILED));
	for (int pause_ms = 0; pause_ms < 25'000; bus_clock_advance(pause_ms < 25'000 ? pause_ms : 0)) {
		pause_ms = wait_pause_ms(); // the last one is long enough for what follows
		ASSERT_GE(pause_ms, 0);
	}
	ASSERT_EQ(requester.send({"2:agent2"}, "over"), 0);
	bus_clock_advance(10'000);
	ASSERT_EQ(requester.send({"2:agent2"}, "in time"), 0);
	broker.start();
	test_mqtt_peer peer(cast().agent2, trust(), "agent2");
	ASSERT_EQ(peer.connect(broker.port()), 0);
	ASSERT_EQ(peer.subscribe("movra/v1/ua/agent2/+"), 1);

	bus_clock_advance(50'000);
	ASSERT_TRUE(requester.wait_condition(TERVBUS_CONDITION_RUNNING));
	ASSERT_TRUE(requester.wait_deliveries(2));
	ASSERT_TRUE(peer.receive(1));
	EXPECT_FALSE(requester.record().deliveries[0].ok);
	EXPECT_TRUE(requester.record().deliveries[1].ok);
	EXPECT_EQ(peer.messages[0].payload, "in time");
	EXPECT_THAT(peer.messages[0].expiry_s.value_or(60), testing::AllOf(Ge(1u), Le(10u)));
}

TEST_F(bus_link_end, is_not_waited_for_by_a_message_whose_minute_is_over_in_flight)
{
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	broker.freeze();
	ASSERT_EQ(requester.send({"2:agent"}, "over"), 0);
	bus_clock_advance(54'000); // well below 60, as real time goes on as well
	EXPECT_FALSE(requester.wait(
			[](const node_record &record) { return !record.deliveries.empty(); }, std::chrono::milliseconds(50)));
	bus_clock_advance(6'000);
	ASSERT_TRUE(requester.wait_deliveries(1));
	broker.thaw();
	EXPECT_FALSE(requester.record().deliveries[0].ok);
}

TEST_F(bus_link_end, leaves_twenty_publishes_at_most_without_an_answer)
{
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	ASSERT_EQ(requester.send({"2:nobody-at-all"}, "its status is out"), 0);
	ASSERT_TRUE(requester.wait_deliveries(1));
	broker.freeze();
	const fail_nth publishes("mosquitto_publish_v5", 0, 0, fail_nth::other_threads);
	for (int i = 0; i < 30; i++)
		ASSERT_EQ(requester.send({"2:nobody-at-all"}, "x"), 0);
	EXPECT_TRUE(publishes.wait_for_calls(20));
	const loopback_port nobody_listens;
	test_node other(cast().agent, trust()); // when this one has been told, the bus thread has been round again
	ASSERT_EQ(other.start(nobody_listens.url()), 0);
	ASSERT_TRUE(other.wait_condition(TERVBUS_CONDITION_CONNECTION_FAILED));
	EXPECT_EQ(publishes.calls(), 20u);
	broker.thaw();
	EXPECT_TRUE(requester.wait_deliveries(31));
	EXPECT_EQ(publishes.calls(), 30u);
}

// It comes before the answer to the subscription, which so takes longer than a broker that is silent is given.
TEST_F(bus_link_end, is_not_what_comes_of_much_that_waited_in_the_session)
{
	test_slow_link down(broker.port(), 400'000); // 2.6 s
	test_node requester(cast().requester, trust());
	test_node receiver(cast().agent2, trust());
	bring_up(&requester, broker);
	bring_up(&receiver, broker);
	ASSERT_TRUE(receiver.stop_and_wait());
	ASSERT_EQ(requester.send({"2:agent2"}, std::string(1u << 20, 'x')), 0);
	ASSERT_TRUE(requester.wait_deliveries(1));

	receiver.forget();
	ASSERT_EQ(receiver.start(down.url()), 0);
	const auto taken = [](const node_record &record) {
		return record.messages.size() == 1;
	};
	for (int i = 0; i < 20 && !receiver.wait(taken, std::chrono::milliseconds(500)); i++)
		bus_clock_advance(4'000);
	EXPECT_TRUE(receiver.wait_condition(TERVBUS_CONDITION_RUNNING));
	EXPECT_THAT(receiver.record().conditions, ElementsAre(7, 0));
	EXPECT_EQ(receiver.record().messages.size(), 1u);
}

TEST_F(bus_link_end, comes_to_a_broker_that_does_not_answer)
{
	for (const broker_stage stage : {broker_stage::connect, broker_stage::subscribe}) {
		SCOPED_TRACE(static_cast<int>(stage));
		test_scripted_broker silent(cast().ca, {.silent_from = stage});
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(silent.url()), 0);
		ASSERT_TRUE(silent.wait_for(stage));
		const auto told = [](const node_record &record) {
			return record.conditions.size() > 1;
		};
		int waited_s = 0;
		for (; waited_s < 30 && !node.wait(told, std::chrono::milliseconds(50)); waited_s++)
			bus_clock_advance(1'000);
		EXPECT_GE(waited_s, 5) << "ten, less what this test takes by itself";
		EXPECT_THAT(node.record().conditions, ElementsAre(7, 2));
	}
}

TEST_F(bus_status_in_time, is_said_every_minute)
{
	test_node agent(cast().agent, trust());
	bring_up(&agent, broker);
	test_mqtt_peer peer(cast().agent2, trust(), "agent2");
	ASSERT_EQ(peer.connect(broker.port()), 0);
	ASSERT_EQ(peer.subscribe("movra/v1/status/vehicle/+"), 1);
	ASSERT_TRUE(peer.receive(1));
	for (size_t count = 2; count <= 4; count++) {
		bus_clock_advance(60'000);
		ASSERT_TRUE(peer.receive(count));
		EXPECT_EQ(peer.messages.back().payload, "on");
	}
}

TEST_F(bus_status_in_time, that_is_not_refreshed_tells_the_peer_as_gone)
{
	test_node agent(cast().agent, trust());
	bring_up(&agent, broker);
	test_mqtt_peer peer(cast().agent2, trust(), "agent2");
	ASSERT_EQ(peer.connect(broker.port()), 0);
	ASSERT_EQ(peer.publish({.topic = "movra/v1/status/vehicle/agent2", .payload = "on", .retain = true}), 0);
	ASSERT_TRUE(agent.wait([](const node_record &record) { return record.presence.size() == 1; }));
	bus_clock_advance(120'000);
	EXPECT_FALSE(agent.wait(
			[](const node_record &record) { return record.presence.size() > 1; }, std::chrono::milliseconds(50)));
	bus_clock_advance(60'000);
	ASSERT_TRUE(agent.wait([](const node_record &record) { return record.presence.size() == 2; }));
	EXPECT_THAT(agent.record().presence, ElementsAre("+2:agent2", "-2:agent2"));
}

TEST_F(bus_incoming_limit, that_is_no_number_is_told_and_left_alone)
{
	for (const char *value : {"", "0", "-1", "x", "1x", "1.5", "16777217", "99999999999999999999"}) {
		SCOPED_TRACE(value);
		setenv("TERVBUS_MAX_INCOMING", value, 1);
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(broker.url()), 0);
		unsetenv("TERVBUS_MAX_INCOMING");
		EXPECT_THAT(take_lines(),
				testing::Contains(std::string("TERVBUS_MAX_INCOMING is not a number of 1 to 16777216: ") + value));
	}
}

TEST_F(bus_incoming_limit, is_told_with_each_message_above_it)
{
	setenv("TERVBUS_MAX_INCOMING", "5", 1);
	test_node agent(cast().agent, trust());
	bring_up(&agent, broker);
	unsetenv("TERVBUS_MAX_INCOMING");
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	(void)take_lines();
	ASSERT_EQ(requester.send({"2:agent"}, "123456"), 0);
	ASSERT_EQ(requester.send({"2:agent"}, "12345"), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	EXPECT_STREQ(agent.record().messages[0].data.c_str(), "12345");
	EXPECT_THAT(take_lines(), ElementsAre("message of 6 bytes from requester dropped: above the limit of 5"));
}
