#include "movra_fleet/common/job_memory.h"

#include <malloc.h>

#include <string>

#include <gtest/gtest.h>

namespace
{

// Plus what the job itself takes.
uint32_t memory_of_query(const std::string &text)
{
	diag_job job = {};
	job.version_query = json_tokener_parse(text.c_str());
	EXPECT_NE(job.version_query, nullptr) << text;
	uint32_t memory = job_memory(&job);
	json_object_put(job.version_query);
	return memory;
}

}

TEST(job_memory, of_an_empty_job_is_that_of_its_record)
{
	diag_job job = {};

	EXPECT_EQ(job_memory(&job), sizeof job);
}

TEST(job_memory, counts_every_text_and_record)
{
	std::string text(1000, 't');
	const uint32_t text_bytes = 1001;
	transport_cfg second = {}, first = {};
	can_port second_port = {}, first_port = {};
	security_access_config security = {};
	diag_job job = {};
	const struct {
		const char *what;
		void (*give)(diag_job *job, char *text, transport_cfg *cfg, can_port *port, security_access_config *security);
		uint32_t bytes;
	} rows[] = {
			{"reply-id", [](diag_job *to, char *t, auto *, auto *, auto *) { to->reply_id = t; }, text_bytes},
			{"source", [](diag_job *to, char *t, auto *, auto *, auto *) { to->source_address = t; }, text_bytes},
			{"target", [](diag_job *to, char *t, auto *, auto *, auto *) { to->target_address = t; }, text_bytes},
			{"DTC data", [](diag_job *to, char *, auto *, auto *, auto *) { to->dtc_data_length = 700; }, 700},
			{"transports", [](diag_job *to, char *, auto *cfg, auto *, auto *) { to->transport = cfg; },
					2 * sizeof(transport_cfg)},
			{"a transport's text",
					[](diag_job *to, char *t, auto *, auto *, auto *) { to->transport->next->phy_req_id_text = t; },
					text_bytes},
			{"ports", [](diag_job *to, char *, auto *, auto *port, auto *) { to->can_ports = port; },
					2 * sizeof(can_port)},
			{"security",
					[](diag_job *to, char *t, auto *, auto *, auto *access) {
						access->location = t;
						access->script = t;
						to->security = access;
					},
					2 * text_bytes},
	};
	first.next = &second;
	first_port.next = &second_port;
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		uint32_t before = job_memory(&job);
		row.give(&job, text.data(), &first, &first_port, &security);
		EXPECT_EQ(job_memory(&job) - before, row.bytes);
	}
}

TEST(job_memory, counts_every_node_of_a_query)
{
	const struct {
		const char *query;
		uint32_t bytes;
	} rows[] = {
			{"[]", 400},
			{"{}", 800},
			{"[null]", 400 + 16},
			{"[1,true]", 400 + 112 + 112},
			{R"(["22F189"])", 400 + 112 + 6},
			{R"({"id":"18FEDA00","signal":[{"factor":1}]})", 800 + 3 + 112 + 8 + 7 + 400 + 800 + 7 + 112},
			{"[[[[{}]]]]", 4 * 400 + 800},
	};
	for (const auto &row : rows)
		EXPECT_EQ(memory_of_query(row.query), sizeof(diag_job) + row.bytes) << row.query;
}

// The sanitizers bring their own allocator, which counts nothing.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

static std::string list_of(const std::string &element, int count)
{
	std::string list = "[" + element;
	for (int i = 1; i < count; i++)
		list += "," + element;
	return list + "]";
}

// Not less than what the C library has given out for the copy that a job keeps, and not many times that.
TEST(job_memory, of_a_query_is_about_what_it_takes)
{
	const std::string long_text(500, 'x');
	const std::string elements[] = {"{}", "[]", "0", "null", "1.5", "true", "\"\"", "\"" + long_text + "\"",
			R"({"name":"major","start_bit":"0","bitlength":"8"})", "[[[]]]", "{\"" + long_text + "\":0}"};
	for (const std::string &element : elements) {
		SCOPED_TRACE(element.substr(0, 40));
		constexpr int count = 10'000;
		const std::string text = list_of(element, count);
		json_object *document = json_tokener_parse(text.c_str());
		json_object *copy = nullptr;
		size_t before = mallinfo2().uordblks;
		EXPECT_EQ(json_object_deep_copy(document, &copy, nullptr), 0);
		size_t taken = mallinfo2().uordblks - before;
		json_object_put(copy);
		json_object_put(document);

		uint32_t reckoned = memory_of_query(text);
		EXPECT_GE(reckoned, taken);
		EXPECT_LT(reckoned, taken * 3);
	}
}

#endif

TEST(job_memory, ends_at_the_largest_number)
{
	char text[] = "text";
	transport_cfg cfg = {};
	cfg.phy_req_id_text = text;
	diag_job job = {};
	job.dtc_data_length = UINT32_MAX;
	job.transport = &cfg;

	EXPECT_EQ(job_memory(&job), UINT32_MAX);
}
