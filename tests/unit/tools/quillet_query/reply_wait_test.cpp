#include "reply_wait.h"

#include <gtest/gtest.h>

static const std::string done = R"({"type":"movra.quillet-query-update","reply-to":"req-1","body":{"routine-response":[
	{"service":"0x10","requested-time":"2026-01-02T03:04:05Z","response-data":"-","error":"recv_diag_command failed"},
	{"service":"0x22","requested-time":"","response-data":"-","error":"Command not executed"}],"targetAddress":"7E0"}})";
static const std::string not_run =
		R"({"type":"movra.quillet-query-update","reply-to":"req-1","body":{"routine-response":[
	{"service":"0x10","requested-time":"","response-data":"-","error":"Command not executed"}],"targetAddress":"7E0"}})";
static const std::string error_reply = R"({"type":"movra.quillet-query-update","reply-to":"req-1",
	"body":{"error":{"error-type":"UDS_NO_RESPONSE","uds-nrc":"can9 is not available"}}})";
static const std::string version = R"({"reply-to":"req-1","body":{"version":[],"targetAddress":"7E0"}})";

TEST(classify_reply, tells_what_a_message_is_to_the_request)
{
	const struct {
		const char *what;
		std::string text;
		reply_kind kind;
	} rows[] = {
			{"a routine's reply", done, reply_kind::reply},
			{"a routine that was not begun", not_run, reply_kind::nothing_ran},
			{"a routine without commands", R"({"reply-to":"req-1","body":{"routine-response":[]}})",
					reply_kind::nothing_ran},
			{"an error reply", error_reply, reply_kind::error},
			{"a reply of another kind", version, reply_kind::reply},
			{"a reply without a body", R"({"reply-to":"req-1"})", reply_kind::reply},
			{"a reply to another request", R"({"reply-to":"req-2","body":{}})", reply_kind::other},
			{"a reply-to that is no text", R"({"reply-to":1,"body":{}})", reply_kind::other},
			{"no reply-to", R"({"body":{}})", reply_kind::other},
			{"not an object", "[]", reply_kind::other},
			{"not JSON", "hello", reply_kind::other},
			{"nothing", "", reply_kind::other},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		EXPECT_EQ(classify_reply(row.text, "req-1"), row.kind);
	}
}

TEST(reply_wait, ends_with_the_reply)
{
	reply_wait wait = reply_wait_begin("CAR-A", "req-1", 1000, 10000);

	EXPECT_TRUE(reply_wait_take(wait, "CAR-A", done, 1500));

	EXPECT_TRUE(reply_wait_is_over(wait, 1500));
	EXPECT_TRUE(wait.answered);
	EXPECT_FALSE(wait.failed);
}

TEST(reply_wait, ends_with_an_error_reply)
{
	reply_wait wait = reply_wait_begin("CAR-A", "req-1", 1000, 10000);

	EXPECT_TRUE(reply_wait_take(wait, "CAR-A", error_reply, 1500));

	EXPECT_TRUE(reply_wait_is_over(wait, 1500));
	EXPECT_TRUE(wait.failed);
}

TEST(reply_wait, goes_on_for_half_a_second_when_no_command_ran)
{
	reply_wait wait = reply_wait_begin("CAR-A", "req-1", 1000, 10000);

	EXPECT_TRUE(reply_wait_take(wait, "CAR-A", not_run, 1500));

	EXPECT_FALSE(reply_wait_is_over(wait, 1999));
	EXPECT_TRUE(reply_wait_is_over(wait, 2000));
	EXPECT_TRUE(wait.answered);
	EXPECT_FALSE(wait.failed);
}

TEST(reply_wait, takes_the_error_reply_that_follows_a_routine_that_was_not_begun)
{
	reply_wait wait = reply_wait_begin("CAR-A", "req-1", 1000, 10000);
	ASSERT_TRUE(reply_wait_take(wait, "CAR-A", not_run, 1500));

	EXPECT_TRUE(reply_wait_take(wait, "CAR-A", error_reply, 1600));

	EXPECT_TRUE(reply_wait_is_over(wait, 1600));
	EXPECT_TRUE(wait.failed);
}

TEST(reply_wait, has_the_full_half_second_after_a_late_reply)
{
	reply_wait wait = reply_wait_begin("CAR-A", "req-1", 1000, 600);

	EXPECT_TRUE(reply_wait_take(wait, "CAR-A", not_run, 1590));

	EXPECT_FALSE(reply_wait_is_over(wait, 2089));
	EXPECT_TRUE(reply_wait_is_over(wait, 2090));
}

TEST(reply_wait, passes_over_what_is_not_for_this_request)
{
	reply_wait wait = reply_wait_begin("CAR-A", "req-9", 1000, 10000);

	EXPECT_FALSE(reply_wait_take(wait, "CAR-A", done, 1500));

	EXPECT_FALSE(reply_wait_is_over(wait, 10999));
	EXPECT_TRUE(reply_wait_is_over(wait, 11000));
	EXPECT_FALSE(wait.answered);
}

TEST(reply_wait, passes_over_a_late_reply_of_another_unit_to_the_same_id)
{
	for (const char *sender : {"CAR-B", "car-a", "CAR-A2", ""}) {
		SCOPED_TRACE(sender);
		reply_wait wait = reply_wait_begin("CAR-A", "req-1", 1000, 10000);

		EXPECT_FALSE(reply_wait_take(wait, sender, done, 1500));

		EXPECT_FALSE(wait.answered);
		EXPECT_FALSE(reply_wait_is_over(wait, 10999));
		EXPECT_TRUE(reply_wait_take(wait, "CAR-A", done, 1600));
		EXPECT_TRUE(reply_wait_is_over(wait, 1600));
	}
}
