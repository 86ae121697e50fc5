// The engine: addressing, suppressed answers, overrides, chains, delays, S3.
#include "server_fixture.h"

namespace
{

const bytes default_session = {0x10, 0x01};
const bytes extended_session = {0x10, 0x03};
const bytes extended_answer = {0x50, 0x03, 0x00, 0x32, 0x01, 0xF4};

class uds_engine : public server_fixture
{
protected:
	// One of everything that the tests ask for; overrides are the test's own.
	void describe_with(const std::string &overrides)
	{
		describe(R"("sessions": [{"id": "03"}], "s3_ms": 5000,
			"identifiers": [{"id": "F190", "text": "VIN"}, {"id": "0100", "value": "01", "read": {"sessions": ["03"]}}],
			"routines": [{"id": "0203", "start": {"answer": "AA"}}], "resets": ["01"], "reset_ms": 300,
			"overrides": [)" +
				overrides + "]");
	}
};

TEST_F(uds_engine, answers_at_once)
{
	describe_with("");

	send({0x22, 0xF1, 0x90});

	EXPECT_LE(uds_server_deadline(server.get()), now_us);
	EXPECT_EQ(answers(), (std::vector<bytes>{{0x62, 0xF1, 0x90, 'V', 'I', 'N'}}));
	EXPECT_EQ(uds_server_deadline(server.get()), uds_never);
}

TEST_F(uds_engine, passes_over_an_empty_request)
{
	describe_with("");
	EXPECT_EQ(ask({}), bytes());
}

TEST_F(uds_engine, freeing_takes_null)
{
	uds_server_free(nullptr);
}

TEST_F(uds_engine, keeps_these_refusals_to_itself_when_addressed_functionally)
{
	describe_with(R"({"request": "221111", "negative": "7F"}, {"request": "222222", "negative": "7E"})");
	const struct {
		const char *what;
		bytes request;
		uint8_t nrc;
	} rows[] = {
			{"service not supported", {0x85, 0x01}, 0x11},
			{"sub-function not supported", {0x3E, 0x01}, 0x12},
			{"request out of range", {0x22, 0x12, 0x34}, 0x31},
			{"sub-function not supported in the session", {0x22, 0x22, 0x22}, 0x7E},
			{"service not supported in the session", {0x22, 0x11, 0x11}, 0x7F},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		EXPECT_EQ(ask(row.request, UDS_PHYSICAL), (bytes{0x7F, row.request[0], row.nrc}));
		EXPECT_EQ(ask(row.request, UDS_FUNCTIONAL), bytes());
	}
}

TEST_F(uds_engine, sends_other_refusals_also_when_addressed_functionally)
{
	describe_with(R"({"request": "1103", "negative": "22"})");
	EXPECT_EQ(ask({0x22, 0xF1}, UDS_FUNCTIONAL), (bytes{0x7F, 0x22, 0x13}));
	EXPECT_EQ(ask({0x11, 0x03}, UDS_FUNCTIONAL), (bytes{0x7F, 0x11, 0x22}));
}

TEST_F(uds_engine, answers_a_functional_request_positively)
{
	describe_with("");
	EXPECT_EQ(ask(extended_session, UDS_FUNCTIONAL), extended_answer);
}

TEST_F(uds_engine, sends_no_positive_answer_when_it_is_to_be_suppressed)
{
	describe_with("");
	for (const bytes &request :
			{bytes{0x10, 0x83}, bytes{0x3E, 0x80}, bytes{0x31, 0x81, 0x02, 0x03}, bytes{0x11, 0x81}}) {
		SCOPED_TRACE(testing::PrintToString(request));
		EXPECT_EQ(ask(request), bytes());
	}
}

TEST_F(uds_engine, carries_a_request_out_whose_answer_is_suppressed)
{
	describe_with("");
	EXPECT_EQ(ask({0x10, 0x83}), bytes());
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x62, 0x01, 0x00, 0x01}));
}

TEST_F(uds_engine, sends_a_negative_answer_although_a_positive_one_would_be_suppressed)
{
	describe_with("");
	EXPECT_EQ(ask({0x10, 0xC0}), (bytes{0x7F, 0x10, 0x12}));
}

TEST_F(uds_engine, does_not_take_a_data_byte_for_the_suppress_bit)
{
	describe_with(R"({"request": "22FFFF", "answer": "62FFFF01"})");
	EXPECT_EQ(ask({0x22, 0xF1, 0x90}), (bytes{0x62, 0xF1, 0x90, 'V', 'I', 'N'}));
}

TEST_F(uds_engine, falls_back_to_the_default_session_when_s3_has_passed)
{
	describe_with("");
	EXPECT_EQ(ask(extended_session), extended_answer);
	pass_ms(4999);
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x62, 0x01, 0x00, 0x01}));
	pass_ms(5000);
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x7F, 0x22, 0x31}));
}

TEST_F(uds_engine, keeps_the_session_while_tester_present_comes)
{
	describe_with("");
	EXPECT_EQ(ask(extended_session), extended_answer);
	for (int beat = 0; beat < 5; beat++) {
		pass_ms(4000);
		EXPECT_EQ(ask({0x3E, 0x80}, UDS_FUNCTIONAL), bytes());
	}
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x62, 0x01, 0x00, 0x01}));
}

TEST_F(uds_engine, does_not_count_its_own_work_against_s3)
{
	describe_with(R"({"request": "31010203", "pending": {"count": 9, "interval_ms": 1000}})");
	EXPECT_EQ(ask(extended_session), extended_answer);
	send({0x31, 0x01, 0x02, 0x03});
	EXPECT_EQ(answers_during_ms(9000).size(), 10u);
	pass_ms(4999);
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x62, 0x01, 0x00, 0x01}));
}

TEST_F(uds_engine, answers_pending_and_then_finally)
{
	describe_with(R"({"request": "31010203", "pending": {"count": 4, "interval_ms": 750}})");
	const bytes pending = {0x7F, 0x31, 0x78};

	send({0x31, 0x01, 0x02, 0x03});

	EXPECT_EQ(answers_during_ms(10000),
			(std::vector<timed_answer>{{0, pending}, {750, pending}, {1500, pending}, {2250, pending},
					{3000, {0x71, 0x01, 0x02, 0x03, 0xAA}}}));
}

TEST_F(uds_engine, answers_pending_without_end)
{
	describe_with(R"({"request": "31", "pending": {"endless": true, "interval_ms": 1000}})");

	send({0x31, 0x01, 0x02, 0x03});

	const auto noted = answers_during_ms(3600 * 1000);
	ASSERT_EQ(noted.size(), 3601u);
	EXPECT_EQ(noted.back(), (timed_answer{3600 * 1000, {0x7F, 0x31, 0x78}}));
}

TEST_F(uds_engine, does_not_make_up_for_pending_answers_that_nobody_took)
{
	describe_with(R"({"request": "31", "pending": {"endless": true, "interval_ms": 1000}})");
	send({0x31, 0x01, 0x02, 0x03});
	pass_ms(60500);
	EXPECT_EQ(answers().size(), 1u);
	EXPECT_EQ(answers_during_ms(1000), (std::vector<timed_answer>{{1000, {0x7F, 0x31, 0x78}}}));
}

TEST_F(uds_engine, gives_an_endless_chain_up_for_the_next_request)
{
	describe_with(R"({"request": "31", "pending": {"endless": true, "interval_ms": 1000}})");
	send({0x31, 0x01, 0x02, 0x03});
	EXPECT_EQ(answers_during_ms(1500).size(), 2u);

	EXPECT_EQ(ask(extended_session), extended_answer);

	EXPECT_EQ(answers_during_ms(5000), std::vector<timed_answer>());
}

TEST_F(uds_engine, goes_on_with_an_endless_chain_when_tester_present_comes)
{
	describe_with(R"({"request": "31", "pending": {"endless": true, "interval_ms": 1000}})");
	send({0x31, 0x01, 0x02, 0x03});
	EXPECT_EQ(answers_during_ms(500).size(), 1u);

	EXPECT_EQ(ask({0x3E, 0x00}), (bytes{0x7E, 0x00}));

	EXPECT_EQ(answers_during_ms(1000), (std::vector<timed_answer>{{500, {0x7F, 0x31, 0x78}}}));
}

TEST_F(uds_engine, is_busy_while_it_works_on_a_request)
{
	describe_with(R"({"request": "31010203", "pending": {"count": 1, "interval_ms": 500}})");
	send({0x31, 0x01, 0x02, 0x03});
	EXPECT_EQ(answers().size(), 1u);

	EXPECT_EQ(ask(extended_session), (bytes{0x7F, 0x10, 0x21}));

	pass_ms(500);
	EXPECT_EQ(answers(), (std::vector<bytes>{{0x71, 0x01, 0x02, 0x03, 0xAA}}));
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x7F, 0x22, 0x31})) << "the session has not been entered";
}

TEST_F(uds_engine, loses_what_a_flood_of_requests_brings_while_it_works)
{
	describe_with(R"({"request": "31010203", "delay_ms": 500})");
	send({0x31, 0x01, 0x02, 0x03});
	for (int count = 0; count < 100; count++)
		send(extended_session);
	EXPECT_EQ(answers().size(), 16u);
}

TEST_F(uds_engine, owes_the_final_answer_once_it_has_answered_pending)
{
	describe_with(R"({"request": "3181", "pending": {"count": 1, "interval_ms": 100}},
		{"request": "22", "pending": {"count": 1, "interval_ms": 100}})");
	send({0x31, 0x81, 0x02, 0x03});
	EXPECT_EQ(answers_during_ms(200),
			(std::vector<timed_answer>{{0, {0x7F, 0x31, 0x78}}, {100, {0x71, 0x01, 0x02, 0x03, 0xAA}}}));
	send({0x22, 0x12, 0x34}, UDS_FUNCTIONAL);
	EXPECT_EQ(answers_during_ms(200), (std::vector<timed_answer>{{0, {0x7F, 0x22, 0x78}}, {100, {0x7F, 0x22, 0x31}}}));
}

TEST_F(uds_engine, delays_its_answer)
{
	describe_with(R"({"request": "22F190", "delay_ms": 1234})");
	send({0x22, 0xF1, 0x90});
	EXPECT_EQ(answers_during_ms(5000), (std::vector<timed_answer>{{1234, {0x62, 0xF1, 0x90, 'V', 'I', 'N'}}}));
}

TEST_F(uds_engine, refuses_by_service_and_by_request_prefix)
{
	describe_with(R"({"request": "22F1", "negative": "22"}, {"request": "3E", "negative": "10"})");
	EXPECT_EQ(ask({0x22, 0xF1, 0x90}), (bytes{0x7F, 0x22, 0x22}));
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x7F, 0x22, 0x31})) << "another prefix";
	EXPECT_EQ(ask({0x3E, 0x00}), (bytes{0x7F, 0x3E, 0x10}));
}

TEST_F(uds_engine, overrides_only_the_whole_request_when_told_so)
{
	describe_with(R"({"request": "3E00", "whole": true, "answer": "7E0099"})");
	EXPECT_EQ(ask({0x3E, 0x00}), (bytes{0x7E, 0x00, 0x99}));
	EXPECT_EQ(ask({0x3E, 0x00, 0x00}), (bytes{0x7F, 0x3E, 0x13}));
}

TEST_F(uds_engine, takes_the_first_override_that_matches)
{
	describe_with(R"({"request": "22F190", "negative": "22"}, {"request": "22", "negative": "10"})");
	EXPECT_EQ(ask({0x22, 0xF1, 0x90}), (bytes{0x7F, 0x22, 0x22}));
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x7F, 0x22, 0x10}));
}

TEST_F(uds_engine, does_not_carry_out_what_it_is_made_to_refuse)
{
	describe_with(R"({"request": "1003", "negative": "22"})");
	EXPECT_EQ(ask(extended_session), (bytes{0x7F, 0x10, 0x22}));
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x7F, 0x22, 0x31}));
}

TEST_F(uds_engine, stays_silent_when_told_so)
{
	describe_with(R"({"request": "22", "silent": true})");
	send({0x22, 0xF1, 0x90});
	EXPECT_EQ(answers_during_ms(10000), std::vector<timed_answer>());
	EXPECT_EQ(ask({0x3E, 0x00}), (bytes{0x7E, 0x00})) << "silence does not keep it busy";
}

TEST_F(uds_engine, overrides_only_so_many_times)
{
	describe_with(R"({"request": "22", "negative": "21", "times": 2})");
	EXPECT_EQ(ask({0x22, 0xF1, 0x90}), (bytes{0x7F, 0x22, 0x21}));
	EXPECT_EQ(ask({0x22, 0xF1, 0x90}), (bytes{0x7F, 0x22, 0x21}));
	EXPECT_EQ(ask({0x22, 0xF1, 0x90}), (bytes{0x62, 0xF1, 0x90, 'V', 'I', 'N'}));
}

TEST_F(uds_engine, answers_the_bytes_that_it_is_told_to)
{
	describe_with(R"({"request": "85", "answer": "DE AD BE EF", "pending": {"count": 1, "interval_ms": 10}})");
	send({0x85, 0x02});
	EXPECT_EQ(answers_during_ms(100),
			(std::vector<timed_answer>{{0, {0x7F, 0x85, 0x78}}, {10, {0xDE, 0xAD, 0xBE, 0xEF}}}));
}

TEST_F(uds_engine, is_silent_for_a_while_after_a_reset)
{
	describe_with("");
	EXPECT_EQ(ask({0x11, 0x01}), (bytes{0x51, 0x01}));
	pass_ms(299);
	EXPECT_EQ(ask({0x3E, 0x00}), bytes());
	pass_ms(1);
	EXPECT_EQ(ask({0x3E, 0x00}), (bytes{0x7E, 0x00}));
}

TEST_F(uds_engine, resets_only_after_its_answer)
{
	describe_with(R"({"request": "11", "delay_ms": 1000})");
	EXPECT_EQ(ask(extended_session), extended_answer);
	send({0x11, 0x01});
	EXPECT_EQ(answers_during_ms(1000), (std::vector<timed_answer>{{1000, {0x51, 0x01}}}));
	EXPECT_EQ(ask({0x3E, 0x00}), bytes()) << "starting up";
	pass_ms(300);
	EXPECT_EQ(ask({0x22, 0x01, 0x00}), (bytes{0x7F, 0x22, 0x31})) << "the default session";
}

TEST_F(uds_engine, resets_also_when_the_answer_is_suppressed)
{
	describe_with("");
	EXPECT_EQ(ask({0x11, 0x81}), bytes());
	EXPECT_EQ(ask({0x3E, 0x00}), bytes()) << "starting up";
}

TEST_F(uds_engine, does_not_reset_when_the_reset_is_refused)
{
	describe_with(R"({"request": "1101", "negative": "22"})");
	EXPECT_EQ(ask({0x11, 0x01}), (bytes{0x7F, 0x11, 0x22}));
	EXPECT_EQ(ask({0x3E, 0x00}), (bytes{0x7E, 0x00}));
}

} // namespace
