// Messages of up to 1 MiB that mean harm: each ends within 2 s, in a job or in a line of the log, and the next request
// works. The limit is the agent's promise, so it is the same for every build of these tests; it is held against the
// thread's own processor time, so that a busy machine does not matter.
#include "unit/request_intake/intake_fixture.h"

#include <ctime>

#include "support/fail_nth.h"

using testing::IsEmpty;

namespace
{

constexpr size_t mebibyte = 1 << 20;

double processor_seconds()
{
	timespec now = {};
	EXPECT_EQ(clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now), 0);
	return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string repeated(const std::string &part, size_t count)
{
	std::string all;
	all.reserve(part.size() * count);
	for (size_t i = 0; i < count; i++)
		all += part;
	return all;
}

// Two plain commands for each security access.
std::string many_commands(size_t count)
{
	std::string list;
	for (size_t i = 0; i < count; i++)
		list += (i != 0 ? "," : "") + std::string(i % 3 == 0 ? R"({"service":"27"})" : R"({"service":"3E"})");
	return "[" + list + "]";
}

class hostile_request : public intake_test
{
protected:
	// Takes the message, and then a good one.
	void survive(const std::string &text)
	{
		ASSERT_LE(text.size(), mebibyte);
		double start = processor_seconds();
		receive(text);
		EXPECT_LT(processor_seconds() - start, 2.0);

		uint32_t before = ctx->pending_job_count;
		receive(request_text().text());
		EXPECT_EQ(ctx->pending_job_count, before + 1);
	}
};

}

TEST_F(hostile_request, of_30000_commands_is_refused_before_any_is_made)
{
	fail_nth allocations("calloc", 0);
	survive(routine_request(many_commands(30'000), security_access).text());

	EXPECT_EQ(log.messages("ERR"), (strings{"too many pending requests"}));
	EXPECT_EQ(ctx->pending_job_count, 1u);
	EXPECT_EQ(allocations.calls(), 4u); // its job; then the good request's job, transport and entry in the pool
}

TEST_F(hostile_request, of_as_many_commands_as_may_wait_is_queued)
{
	survive(routine_request(many_commands(pending_commands_limit), security_access).text());

	EXPECT_THAT(log.messages("ERR"), IsEmpty());
	EXPECT_EQ(ctx->pending_job_count, 2u);
	EXPECT_EQ(ctx->pending_jobs->command_count, pending_commands_limit);
}

// A document in memory is many times its text.
TEST_F(hostile_request, with_a_large_version_query_waits_only_as_long_as_there_is_memory_for_it)
{
	constexpr uint32_t rounds = 3;
	struct {
		std::string work;
		uint32_t accepted;
	} rows[] = {
			{R"("version":{"uds":[{})" + repeated(",{}", 100'000) + "]}", 0},
			{R"("version":{"uds":[[])" + repeated(",[]", 100'000) + "]}", 1},
			{R"("version":{"uds":["22F189")" + repeated(R"(,"22F189")", 100) + "]}", 3},
			{R"("version":{"j1939":{"signal":[{})" + repeated(",{}", 50'000) + "]}}", 1},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.work.substr(0, 40));
		request_text request;
		request.work = row.work;
		for (uint32_t i = 0; i < rounds; i++)
			survive(request.text());
		EXPECT_EQ(ctx->pending_job_count, rounds + row.accepted);
		EXPECT_LE(ctx->pending_memory, pending_memory_limit);
		EXPECT_EQ(log.messages("ERR"), strings(rounds - row.accepted, "too many pending requests"));
		drop_pending();
		EXPECT_EQ(ctx->pending_memory, 0u);
		log.clear();
	}
}

TEST_F(hostile_request, with_large_texts_waits_only_as_long_as_there_is_memory_for_it)
{
	request_text request;
	request.reply_id = R"("reply-id":")" + std::string(mebibyte - 1000, 'r') + '"';
	uint32_t accepted = 0;
	while (accepted < 100 && dispatch(request) == 0)
		accepted++;

	EXPECT_EQ(accepted, 64u);
	EXPECT_EQ(log.messages("ERR"), (strings{"too many pending requests"}));
	EXPECT_EQ(dispatch(request_text()), 0);
}

TEST_F(hostile_request, with_a_large_document_around_missing_keys_is_read_in_time)
{
	std::string padding = R"(,"padding":")" + repeated("\\u0001", mebibyte / 6 - 100) + "\"";
	survive(routine_request(R"([{"service":"27"}])", R"("x":1)" + padding).text());

	EXPECT_EQ(log.messages("ERR"), (strings{"No security_access property"}));
}

TEST_F(hostile_request, nested_too_deep_is_no_json)
{
	for (const char *opening : {"[", "{\"a\":"}) {
		SCOPED_TRACE(opening);
		log.clear();
		survive(repeated(opening, mebibyte / strlen(opening)));
		EXPECT_EQ(log.messages("ERR").size(), 1u);
		EXPECT_THAT(log.messages("ERR")[0], testing::StartsWith("Could not parse JSON message "));
	}
}

TEST_F(hostile_request, with_huge_numbers_is_read_in_time)
{
	for (const std::string &number : {std::string(mebibyte - 300, '9'), "1e" + std::string(400, '9'),
				 "0." + std::string(mebibyte - 400, '1'), "-" + std::string(100'000, '7')}) {
		SCOPED_TRACE(number.substr(0, 10));
		request_text request;
		request.work = R"("filler":)" + number;
		log.clear();
		survive(request.text());
	}
}

TEST_F(hostile_request, with_huge_number_texts_ends_at_the_largest_value)
{
	std::string digits(200'000, 'F');
	request_text request = routine_request(R"([{"service":")" + digits + R"(","subfn":")" + digits + "\"}]");
	request.can = R"("can":{"ifname":"c","phy-req-id":")" + digits + R"(","phy-resp-id":")" + digits + "\"}";
	survive(request.text());

	EXPECT_EQ(commands_of(ctx->pending_jobs), (std::vector<bytes>{{0xFF, 0xFF}}));
	EXPECT_EQ(ctx->pending_jobs->transport->params.phy_req_id, 0xFFFFFFFFu);
}

TEST_F(hostile_request, with_zeros_inside_its_texts_is_read_up_to_them)
{
	request_text request = routine_request(R"([{"service":"10\u0000FF","subfn":"\u0000","data":"AB\u0000CD"}])");
	request.reply_id = R"("reply-id":"id\u0000more")";
	survive(request.text());

	EXPECT_STREQ(ctx->pending_jobs->reply_id, "id");
	EXPECT_EQ(commands_of(ctx->pending_jobs), (std::vector<bytes>{{0x10, 0xAB}}));
}

TEST_F(hostile_request, with_a_list_of_100000_ecus_is_read_in_time)
{
	request_text request;
	request.target = R"("targetAddress":"-1")";
	request.can = R"("can":[)" + repeated("{},", 100'000) + "{}]";
	survive(request.text());

	EXPECT_EQ(log.messages("ERR"), (strings{"'ifname' not found in JSON message"}));
}

TEST_F(hostile_request, with_100000_keys_is_read_in_time)
{
	std::string members;
	for (int i = 0; i < 60'000; i++)
		members += R"("k)" + std::to_string(i) + R"(":{},)";
	survive("{" + members + R"("reply-id":"r"})");

	EXPECT_EQ(log.messages("ERR"), (strings{"target not found in JSON message"}));
}
