// From the start to the release: what each cause of failure is told as, that it heals, and that a stop ends in order.
#include "bus_fixture.h"

#include "support/test_scripted_broker.h"

#include <set>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using bus_lifecycle = bus_broker_test;
using bus_conditions = bus_test;

int64_t milliseconds_of(const std::function<void()> &work)
{
	const auto start = std::chrono::steady_clock::now();
	work();
	return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

constexpr const char *unresolvable = // a label of more than 63 characters: no name server is asked
		"tcp://xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx:8883";

} // namespace

TEST_F(bus_lifecycle, tells_start_and_running_and_stopped)
{
	test_node node(cast().agent, trust());
	bring_up(&node, broker);
	ASSERT_TRUE(node.stop_and_wait());
	EXPECT_THAT(node.record().conditions, ElementsAre(7, 0, 6));
	EXPECT_EQ(node.record().releases, 1);
}

TEST_F(bus_lifecycle, resolves_a_name)
{
	test_node node(cast().agent, trust());
	ASSERT_EQ(node.start("tcp://localhost:" + std::to_string(broker.port())), 0);
	EXPECT_TRUE(node.wait_condition(TERVBUS_CONDITION_RUNNING));
}

TEST_F(bus_lifecycle, comes_back_after_a_broker_was_killed_and_loses_nothing)
{
	test_node requester(cast().requester, trust());
	test_node agent(cast().agent, trust());
	bring_up(&requester, broker);
	bring_up(&agent, broker);
	// When this one is there, the broker has written down who has subscribed.
	ASSERT_EQ(requester.send({"2:agent"}, "before"), 0);
	ASSERT_TRUE(agent.wait_messages(1));
	ASSERT_TRUE(requester.wait_deliveries(1));
	agent.forget();
	requester.forget();

	broker.kill();
	ASSERT_TRUE(requester.wait_condition(TERVBUS_CONDITION_CONNECTION_FAILED));
	for (int i = 0; i < 50; i++)
		ASSERT_EQ(requester.send({"2:agent"}, std::to_string(i)), 0);
	broker.start();

	ASSERT_TRUE(requester.wait_condition(TERVBUS_CONDITION_RUNNING));
	ASSERT_TRUE(requester.wait_deliveries(50));
	for (const node_delivery &delivery : requester.record().deliveries)
		EXPECT_TRUE(delivery.ok) << delivery.id;
	ASSERT_TRUE(agent.wait_messages(50));
	for (size_t i = 0; i < 50; i++)
		EXPECT_STREQ(agent.record().messages[i].data.c_str(), std::to_string(i).c_str());
	EXPECT_EQ(agent.record().messages.size(), 50u);
	EXPECT_THAT(requester.record().conditions, ElementsAre(4, 2, 0));
}

TEST_F(bus_lifecycle, takes_each_message_once_though_the_broker_dies_under_them)
{
	test_node requester(cast().requester, trust());
	test_node agent(cast().agent, trust());
	bring_up(&requester, broker);
	bring_up(&agent, broker);
	constexpr size_t count = 400;
	for (size_t i = 0; i < count; i++) {
		ASSERT_EQ(requester.send({"2:agent"}, std::to_string(i)), 0);
		if (i == count / 2) {
			ASSERT_TRUE(agent.wait_messages(20));
			broker.kill();
			broker.start();
		}
	}
	ASSERT_TRUE(requester.wait_deliveries(count));
	ASSERT_TRUE(requester.stop_and_wait());
	std::set<std::string> distinct;
	for (const node_message &message : agent.record().messages)
		EXPECT_TRUE(distinct.insert(message.data).second) << message.data << " came twice";
	EXPECT_EQ(requester.record().deliveries.size(), count);
}

// Newer brokers say why (aborted), older ones only close (broke).
TEST_F(bus_lifecycle, is_told_when_another_process_takes_its_identity)
{
	test_node node(cast().agent, trust());
	bring_up(&node, broker);
	test_node same(cast().agent, trust());
	bring_up(&same, broker);
	EXPECT_TRUE(node.wait([](const node_record &record) {
		const int last = record.conditions.back();
		return last == TERVBUS_CONDITION_CONNECTION_ABORTED || last == TERVBUS_CONDITION_CONNECTION_BROKE;
	}));
}

TEST_F(bus_lifecycle, can_be_started_again_after_its_release)
{
	test_node node(cast().agent, trust());
	for (int i = 0; i < 3; i++) {
		node.forget();
		bring_up(&node, broker);
		ASSERT_TRUE(node.stop_and_wait());
		EXPECT_THAT(node.record().conditions, ElementsAre(7, 0, 6));
	}
}

TEST_F(bus_lifecycle, refuses_a_second_start_of_a_running_client)
{
	test_node node(cast().agent, trust());
	bring_up(&node, broker);
	EXPECT_LT(tervbus_init_client(node.client(), broker.url().c_str()), 0);
}

TEST_F(bus_lifecycle, drains_what_was_sent_before_the_stop)
{
	test_node requester(cast().requester, trust());
	test_node agent(cast().agent, trust());
	bring_up(&requester, broker);
	bring_up(&agent, broker);
	for (int i = 0; i < 50; i++)
		ASSERT_EQ(requester.send({"2:agent"}, "x"), 0);
	ASSERT_TRUE(requester.stop_and_wait());

	const node_record record = requester.record();
	ASSERT_EQ(record.deliveries.size(), 50u);
	for (const node_delivery &delivery : record.deliveries)
		EXPECT_TRUE(delivery.ok);
	EXPECT_TRUE(agent.wait_messages(50));
}

TEST_F(bus_lifecycle, stops_from_inside_a_callback)
{
	test_node requester(cast().requester, trust());
	test_node agent(cast().agent, trust());
	agent.in_message = [&agent] {
		EXPECT_EQ(agent.stop(), 0);
	};
	bring_up(&requester, broker);
	bring_up(&agent, broker);
	ASSERT_EQ(requester.send({"2:agent"}, "stop"), 0);
	ASSERT_TRUE(agent.wait([](const node_record &record) { return record.releases == 1; }));
}

TEST_F(bus_lifecycle, refuses_a_send_after_the_stop_and_before_the_start)
{
	test_node node(cast().agent, trust());
	EXPECT_LT(node.send({"2:requester"}, "early"), 0);
	bring_up(&node, broker);
	ASSERT_TRUE(node.stop_and_wait());
	EXPECT_LT(node.send({"2:requester"}, "late"), 0);
	EXPECT_EQ(node.stop(), 0);
	EXPECT_EQ(node.record().after_release, 0);
	EXPECT_EQ(node.record().releases, 1);
}

TEST_F(bus_lifecycle, releases_once_under_a_frozen_broker_and_fails_what_is_left)
{
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	broker.freeze();
	for (int i = 0; i < 30; i++)
		ASSERT_EQ(requester.send({"2:agent"}, "x"), 0);
	const int64_t took_ms = milliseconds_of([&requester] { EXPECT_TRUE(requester.stop_and_wait()); });
	broker.thaw();

	EXPECT_LT(took_ms, 3000);
	const node_record record = requester.record();
	ASSERT_EQ(record.deliveries.size(), 30u);
	for (const node_delivery &delivery : record.deliveries)
		EXPECT_FALSE(delivery.ok);
	EXPECT_EQ(record.releases, 1);
	EXPECT_EQ(record.after_release, 0);
	EXPECT_EQ(record.conditions.back(), TERVBUS_CONDITION_STOPPED);
}

TEST_F(bus_lifecycle, stops_while_a_frozen_broker_lets_it_wait_for_the_handshake)
{
	broker.freeze();
	test_node node(cast().agent, trust());
	ASSERT_EQ(node.start(broker.url()), 0);
	ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_START));
	const int64_t took_ms = milliseconds_of([&node] { EXPECT_TRUE(node.stop_and_wait()); });
	broker.thaw();
	EXPECT_LT(took_ms, 2000);
	EXPECT_THAT(node.record().conditions, ElementsAre(7, 6));
}

TEST_F(bus_lifecycle, releases_once_whenever_it_is_stopped)
{
	// Stops at every stage from before the connect to after the subscription, as fast as this machine passes them.
	for (int i = 0; i < 40; i++) {
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(broker.url()), 0);
		EXPECT_EQ(node.send({"2:requester"}, "x"), 0);
		std::this_thread::sleep_for(std::chrono::microseconds(i * 500)); // the stage is what is varied
		ASSERT_TRUE(node.stop_and_wait());
		EXPECT_EQ(node.stop(), 0);
		const node_record record = node.record();
		EXPECT_EQ(record.releases, 1);
		EXPECT_EQ(record.after_release, 0);
		EXPECT_EQ(record.deliveries.size(), 1u);
		EXPECT_EQ(record.conditions.back(), TERVBUS_CONDITION_STOPPED);
	}
}

TEST_F(bus_lifecycle, ends_the_library_with_clients_still_running)
{
	tervbus_setup setup{};
	test_node node(cast().agent, trust());
	bring_up(&node, broker);
	ASSERT_EQ(tervbus_fini_ll(), 0);
	EXPECT_EQ(node.record().releases, 1);
	EXPECT_LT(tervbus_init_client(node.client(), broker.url().c_str()), 0);
	ASSERT_EQ(tervbus_init_ll(&setup), 0);
}

TEST_F(bus_lifecycle, refuses_to_end_the_library_from_its_own_thread)
{
	test_node requester(cast().requester, trust());
	test_node agent(cast().agent, trust());
	agent.in_message = [] {
		EXPECT_LT(tervbus_fini_ll(), 0);
	};
	bring_up(&requester, broker);
	bring_up(&agent, broker);
	ASSERT_EQ(requester.send({"2:agent"}, "x"), 0);
	EXPECT_TRUE(agent.wait_messages(1));
}

TEST_F(bus_conditions, tells_a_name_that_does_not_resolve_once_and_can_be_stopped)
{
	test_node node(cast().agent, trust());
	ASSERT_EQ(node.start(unresolvable), 0);
	ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_RESOLUTION_FAILED));
	ASSERT_TRUE(node.stop_and_wait());
	EXPECT_THAT(node.record().conditions, ElementsAre(7, 1, 6));
}

TEST_F(bus_conditions, tells_a_broker_that_cannot_be_verified_and_heals)
{
	const test_subject good{.common_names = {"test broker"}, .alternative_names = "IP:127.0.0.1"};
	struct row {
		const char *name;
		test_credentials certificate;
	};
	const row rows[] = {
			{"another CA", test_ca_issue(cast().other_ca, good)},
			{"expired",
					test_ca_issue(cast().ca,
							{.common_names = {"test broker"},
									.alternative_names = "IP:127.0.0.1",
									.valid_from_s = -7200,
									.valid_to_s = -3600})},
			{"another host",
					test_ca_issue(cast().ca,
							{.common_names = {"test broker"}, .alternative_names = "DNS:elsewhere,IP:127.0.0.2"})},
			{"no host at all", test_ca_issue(cast().ca, {.common_names = {"test broker"}})},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.name);
		test_broker broker(cast().ca, {.rules = cast_rules, .bridges = {}});
		broker.set_certificate(row.certificate);
		broker.start();
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(broker.url()), 0);
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_CONNECTION_FAILED));

		broker.stop();
		broker.set_certificate(test_ca_issue(cast().ca, good));
		broker.start();
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_RUNNING));
		EXPECT_THAT(node.record().conditions, ElementsAre(7, 2, 0));
	}
}

TEST_F(bus_conditions, tells_a_certificate_that_the_broker_refuses_and_heals)
{
	for (const char *version : {"tlsv1.2", "tlsv1.3"}) {
		SCOPED_TRACE(version);
		test_broker broker(cast().ca, {.rules = cast_rules, .bridges = {}, .tls_version = version});
		broker.set_trust(cast().other_ca.certificate_pem);
		broker.start();
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(broker.url()), 0);
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_REGISTRATION_FAILED));

		broker.kill();
		broker.set_trust(cast().ca.certificate_pem);
		broker.start();
		ASSERT_TRUE(node.wait_condition(TERVBUS_CONDITION_RUNNING));
		EXPECT_EQ(node.record().conditions[1], TERVBUS_CONDITION_REGISTRATION_FAILED);
	}
}

TEST_F(bus_conditions, tells_a_registration_that_the_broker_refuses_in_words)
{
	struct row {
		const char *name;
		broker_script script;
		std::vector<int> first;
	};
	const row rows[] = {
			{"CONNECT refused: not authorised", {.connect_reason = 0x87}, {7, 3}},
			{"CONNECT refused: the name", {.connect_reason = 0x85}, {7, 3}},
			{"SUBSCRIBE refused", {.subscribe_reason = 0x87}, {7, 3}},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.name);
		test_scripted_broker broker(cast().ca, row.script);
		test_node node(cast().agent, trust());
		ASSERT_EQ(node.start(broker.url()), 0);
		ASSERT_TRUE(
				node.wait([&row](const node_record &record) { return record.conditions.size() >= row.first.size(); }));
		std::vector<int> told = node.record().conditions;
		told.resize(row.first.size());
		EXPECT_EQ(told, row.first);
		ASSERT_TRUE(node.stop_and_wait());
	}
}

TEST_F(bus_conditions, tells_an_expired_certificate_of_its_own_as_refused)
{
	test_broker broker(cast().ca, {.rules = cast_rules, .bridges = {}});
	broker.start();
	test_node node(
			test_ca_issue(cast().ca, {.common_names = {"agent"}, .valid_from_s = -7200, .valid_to_s = -3600}), trust());
	ASSERT_EQ(node.start(broker.url()), 0);
	EXPECT_TRUE(node.wait_condition(TERVBUS_CONDITION_REGISTRATION_FAILED));
}

TEST_F(bus_conditions, refuses_a_send_when_a_thousand_wait_and_fails_them_at_the_stop)
{
	const loopback_port nobody_listens;
	test_node node(cast().agent, trust());
	ASSERT_EQ(node.start(nobody_listens.url()), 0);
	for (int i = 0; i < 1000; i++)
		ASSERT_EQ(node.send({"2:requester"}, "x"), 0) << i;
	EXPECT_LT(node.send({"2:requester"}, "x"), 0);
	ASSERT_TRUE(node.stop_and_wait());
	ASSERT_EQ(node.record().deliveries.size(), 1000u);
	EXPECT_FALSE(node.record().deliveries[999].ok);
	EXPECT_EQ(node.record().deliveries[999].id, 1000u);
}

TEST_F(bus_conditions, starts_no_client_for_an_url_that_cannot_be_used)
{
	for (const char *url : {"", "127.0.0.1:8883", "tcp://", "tcp://127.0.0.1", "tcp://127.0.0.1:0",
				 "tcp://127.0.0.1:65536", "tcp://:8883", "mqtt://127.0.0.1:8883", "tcp://127.0.0.1:8883/path"}) {
		SCOPED_TRACE(url);
		test_node node(cast().agent, trust());
		EXPECT_LT(node.start(url), 0);
		EXPECT_EQ(node.stop(), 0);
		EXPECT_THAT(node.record().conditions, IsEmpty());
		EXPECT_EQ(node.record().releases, 0);
	}
}

TEST_F(bus_conditions, starts_no_client_for_an_identity_that_cannot_be_used)
{
	const loopback_port nobody_listens;
	const std::string url = nobody_listens.url();
	const auto with = [](const test_subject &subject) {
		return test_ca_issue(cast().ca, subject);
	};
	struct row {
		const char *name;
		test_credentials own;
		std::string trust;
	};
	const row rows[] = {
			{"no key", {"", cast().agent.certificate_pem}, trust()},
			{"an encrypted key", {test_encrypt_key(cast().agent.key_pem, "secret"), cast().agent.certificate_pem},
					trust()},
			{"another's key", {cast().agent2.key_pem, cast().agent.certificate_pem}, trust()},
			{"no certificate", {cast().agent.key_pem, ""}, trust()},
			{"no PEM", {cast().agent.key_pem, "certificate"}, trust()},
			{"no CA", cast().agent, ""},
			{"no CN", with({.common_names = {}, .units = {"vehicle"}}), trust()},
			{"two CNs", with({.common_names = {"agent", "agent2"}}), trust()},
			{"a CN with a slash", with({.common_names = {"agent/x"}}), trust()},
			{"a CN with a plus", with({.common_names = {"agent+"}}), trust()},
			{"a CN with a number sign", with({.common_names = {"#"}}), trust()},
			{"a CN with a control character", with({.common_names = {"agent\n"}}), trust()},
			{"an OU with a slash", with({.common_names = {"agent"}, .units = {"a/b"}}), trust()},
	};
	for (const row &row : rows) {
		SCOPED_TRACE(row.name);
		test_node node(row.own, row.trust);
		EXPECT_LT(node.start(url), 0);
		EXPECT_EQ(node.stop(), 0);
		EXPECT_THAT(node.record().conditions, IsEmpty());
	}
}

TEST_F(bus_conditions, starts_no_client_without_an_identity)
{
	test_node node(cast().agent, trust());
	node.client()->identity = {};
	EXPECT_LT(node.start("tcp://127.0.0.1:1"), 0);
	EXPECT_LT(tervbus_init_client(nullptr, "tcp://127.0.0.1:1"), 0);
	EXPECT_LT(tervbus_init_client(node.client(), nullptr), 0);
}

TEST(bus_library, can_be_started_and_ended_many_times)
{
	tervbus_setup setup{};
	EXPECT_LT(tervbus_fini_ll(), 0);
	for (int i = 0; i < 20; i++) {
		ASSERT_EQ(tervbus_init_ll(&setup), 0);
		ASSERT_EQ(tervbus_fini_ll(), 0);
	}
}

TEST(bus_library, ends_with_its_last_user)
{
	ASSERT_EQ(tervbus_init_ll(nullptr), 0);
	ASSERT_EQ(tervbus_init_ll(nullptr), 0);
	EXPECT_EQ(tervbus_fini_ll(), 0);
	EXPECT_EQ(tervbus_fini_ll(), 0);
	EXPECT_LT(tervbus_fini_ll(), 0);
}
