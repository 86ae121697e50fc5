// What the tests against a real broker share: one CA, the identities of the cast, and the library running.
#pragma once

#include "support/test_broker.h"
#include "support/test_mqtt_peer.h"
#include "support/test_node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Requesters may reach agents and the other way round; nobody else may send.
inline constexpr const char *cast_rules = "allow requester agent*\n"
										  "allow requester @vehicle\n"
										  "allow @vehicle requester\n"
										  "allow @vehicle DM-CLIENT\n"
										  "allow DM-CLIENT *\n";

struct bus_cast {
	test_ca ca = test_ca_new("bus CA");
	test_ca other_ca = test_ca_new("other CA");
	test_credentials requester = test_ca_issue(ca, {.common_names = {"requester"}, .units = {"backend"}});
	test_credentials agent = test_ca_issue(ca, {.common_names = {"agent"}, .units = {"vehicle"}});
	test_credentials agent2 = test_ca_issue(ca, {.common_names = {"agent2"}, .units = {"vehicle"}});
	test_credentials loner = test_ca_issue(ca, {.common_names = {"loner"}});
	test_credentials dm_client = test_ca_issue(ca, {.common_names = {"DM-CLIENT"}, .units = {"backend"}});
};

class bus_test : public testing::Test
{
protected:
	static const bus_cast &cast()
	{
		static const bus_cast instance;
		return instance;
	}

	static const std::string &trust()
	{
		return cast().ca.certificate_pem;
	}

	void SetUp() override
	{
		tervbus_setup setup{};
		if (getenv("TERVBUS_TEST_DEBUG") != nullptr)
			setup.debug = [](const char *text) {
				fprintf(stderr, "%s\n", text);
			};
		ASSERT_EQ(tervbus_init_ll(&setup), 0);
	}

	void TearDown() override
	{
		EXPECT_EQ(tervbus_fini_ll(), 0);
	}

	// Starts the node and waits until it is connected and subscribed.
	static void bring_up(test_node *node, const test_broker &broker)
	{
		ASSERT_EQ(node->start(broker.url()), 0);
		ASSERT_TRUE(node->wait_condition(TERVBUS_CONDITION_RUNNING)) << broker.log();
	}
};

// The same with a broker that runs.
class bus_broker_test : public bus_test
{
protected:
	void SetUp() override
	{
		bus_test::SetUp();
		broker.start();
	}

	test_broker broker{cast().ca, {.rules = cast_rules, .bridges = {}}};
};
