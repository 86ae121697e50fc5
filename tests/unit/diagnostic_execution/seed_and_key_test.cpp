// A security access within a job: the seed that an ECU gives, the key that it gets.
#include "exchange_fixture.h"

TEST_F(uds_exchange, answers_a_seed_with_its_key_and_reports_the_answer_to_the_key)
{
	key_plugin();
	ecu.on({0x27, 0x01}, {{0x67, 0x01, 0x11, 0x22, 0x33, 0x44}});
	ecu.on({0x27, 0x02, 0x11, 0x22, 0x33, 0x44}, {{0x7F, 0x27, 0x78}, {0x67, 0x02}});
	ecu.on({0x31, 0x01}, {{0x71, 0x01}});
	add_test_command(job, {0x27, 0x01});
	add_test_command(job, {0x31, 0x01});

	EXPECT_EQ(run(), 0);

	std::vector<outcome> all = outcomes();
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].response, "6702");
	EXPECT_EQ(all[0].error, "none");
	EXPECT_EQ(all[1].error, "none");
	EXPECT_EQ(ecu.receive_timeouts_ms(), (std::vector<int>{2000, 2000, 2000, 2000}));
	EXPECT_THAT(log(), testing::Contains("INFO Generated Key: 11223344"));
}

TEST_F(uds_exchange, takes_the_level_of_the_key_from_the_request)
{
	const struct {
		const char *what;
		fake_bytes request, answer, key;
	} rows[] = {
			{"level 3", {0x27, 0x03}, {0x67, 0x03, 1, 2, 3, 4}, {0x27, 0x04, 1, 2, 3, 4}},
			{"the answer names another", {0x27, 0x05}, {0x67, 0x01, 1, 2, 3, 4}, {0x27, 0x06, 1, 2, 3, 4}},
			{"a request without a level", {0x27}, {0x67, 0x01, 1, 2, 3, 4}, {0x27, 0x01, 1, 2, 3, 4}},
			{"a seed cut short is filled with zeros", {0x27, 0x01}, {0x67, 0x01, 9}, {0x27, 0x02, 9, 0, 0, 0}},
			{"no seed at all", {0x27, 0x01}, {0x67, 0x01}, {0x27, 0x02, 0, 0, 0, 0}},
	};
	key_plugin();
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		agent.forget_replies();
		ecu.answers({fake_answer(row.answer), {0x67, 0x02}});
		EXPECT_EQ(run(row.request), 0);
		EXPECT_EQ(ecu.requests().back(), row.key);
		EXPECT_EQ(only_outcome().response, "6702");
	}
}

TEST_F(uds_exchange, sends_no_key_for_an_answer_without_a_seed)
{
	key_plugin();
	for (const fake_bytes &answer : {fake_bytes{0x67}, {0x67, 0x02, 1, 2, 3, 4}}) {
		agent.forget_replies();
		ecu.answers({fake_answer(answer)});
		EXPECT_EQ(run({0x27, 0x01}), 0);
		EXPECT_EQ(ecu.requests().back(), (fake_bytes{0x27, 0x01}));
		EXPECT_EQ(only_outcome().error, "none");
	}
}

TEST_F(uds_exchange, reports_the_seed_and_goes_on_when_no_key_was_sent)
{
	ecu.answers({{0x67, 0x01, 0x11, 0x22, 0x33, 0x44}, {0x71, 0x01}});
	add_test_command(job, {0x27, 0x01});
	add_test_command(job, {0x31, 0x01});

	EXPECT_EQ(run(), 0);

	std::vector<outcome> all = outcomes();
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].response, "670111223344");
	EXPECT_EQ(all[0].error, "none");
	EXPECT_EQ(all[1].error, "none");
	EXPECT_EQ(errors(), texts{"No Security Algorithm information found"});
}

TEST_F(uds_exchange, reports_a_key_that_the_ecu_refuses)
{
	key_plugin();
	ecu.answers({{0x67, 0x01, 1, 2, 3, 4}, {0x7F, 0x27, 0x35}});
	EXPECT_EQ(run({0x27, 0x01}), 0);
	EXPECT_EQ(only_outcome().response, "7F2735");
	EXPECT_EQ(only_outcome().error, "Negative response");
}

TEST_F(uds_exchange, keeps_the_seed_when_the_answer_to_the_key_does_not_come)
{
	key_plugin();
	ecu.answers({{0x67, 0x01, 1, 2, 3, 4}});
	EXPECT_EQ(run({0x27, 0x01}), 0);
	EXPECT_EQ(only_outcome().response, "670101020304");
	EXPECT_EQ(only_outcome().error, "recv_diag_command failed");
}
