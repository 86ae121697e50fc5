#include "movra_fleet/replies/dtc_report.h"

#include <gtest/gtest.h>

#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "support/captured_output.h"
#include "support/connected_agent.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"

namespace
{

using texts = std::vector<std::string>;
using byte_run = std::vector<uint8_t>;

class dtc_report : public testing::Test
{
protected:
	dtc_report()
	{
		job->sid = 0x19;
		job->dtc_subfunction = 0x02;
	}
	~dtc_report() override
	{
		free_job_contents(job);
		free(job);
	}
	int send()
	{
		output.clear();
		return send_dtc_response_to_bridge(agent.ctx, job);
	}
	transport_cfg *ecu(uint32_t phy_req_id)
	{
		return add_test_transport(job, phy_req_id);
	}
	static void answer(transport_cfg *cfg, const byte_run &bytes)
	{
		free(cfg->answer);
		cfg->answer = static_cast<uint8_t *>(calloc(1, bytes.size() + 1));
		if (!bytes.empty())
			memcpy(cfg->answer, bytes.data(), bytes.size());
		cfg->answer_length = static_cast<uint32_t>(bytes.size());
	}
	// The elements of "data-record" in the last reply.
	static std::string records()
	{
		std::string text = fake_bus::last_sent().text;
		size_t begin = text.find('[');
		return text.substr(begin, text.find(']') + 1 - begin);
	}

	captured_output output;
	connected_agent agent;
	diag_job *job = new_test_job();
};

}

TEST_F(dtc_report, is_the_answer_without_its_header_in_the_envelope)
{
	answer(ecu(0x7E0), {0x59, 0x02, 0xFF, 0x12, 0x34, 0x56, 0x09});

	EXPECT_EQ(send(), 0);

	ASSERT_EQ(fake_bus::sent().size(), 1u);
	EXPECT_EQ(fake_bus::last_sent().text,
			"{ \"type\": \"movra.quillet-query-update\", \"reply-to\": \"req-42\", \"body\": { \"uds\": { \"resp\": "
			"\"0x59\", \"subfunction\": \"UDS_REPORT_DTC_BY_STATUS_MASK\", \"data-record\": [ { \"phy-req-id\": "
			"\"7E0\", \"data\": \"FF12345609\" } ] }, \"targetAddress\": \"7E0\" } }");
	EXPECT_EQ(fake_bus::last_sent().destination, std::vector<fake_bus::address>{fake_bus::unit("FLEET-1")});
	EXPECT_EQ(output.messages("ERR"), texts{});
}

TEST_F(dtc_report, shows_each_answer_as_the_ecu_gave_it)
{
	const struct {
		const char *what;
		byte_run bytes;
		const char *data;
	} rows[] = {
			{"a refusal whole", {0x7F, 0x19, 0x31}, "7F1931"},
			{"a refusal of one byte", {0x7F}, "7F"},
			{"a positive answer of its header only", {0x59, 0x02}, ""},
			{"another service's answer", {0x62, 0xF1, 0x90, 0x41}, "9041"},
			{"upper case", {0x59, 0x02, 0xAB, 0xCD}, "ABCD"},
	};
	transport_cfg *cfg = ecu(0x7E0);
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		answer(cfg, row.bytes);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(records(), "[ { \"phy-req-id\": \"7E0\", \"data\": \"" + std::string(row.data) + "\" } ]");
		EXPECT_NE(fake_bus::last_sent().text.find("\"resp\": \"0x59\""), std::string::npos);
	}
}

TEST_F(dtc_report, carries_the_longest_answer_whole)
{
	byte_run longest(8191, 0xA5);
	answer(ecu(0x7E0), longest);
	EXPECT_EQ(send(), 0);
	std::string data;
	for (size_t i = 2; i < longest.size(); ++i)
		data += "A5";
	EXPECT_EQ(records(), "[ { \"phy-req-id\": \"7E0\", \"data\": \"" + data + "\" } ]");
}

TEST_F(dtc_report, lists_the_ecus_that_answered_in_their_order)
{
	answer(ecu(0x7E2), {0x59, 0x02, 0x02});
	ecu(0x7E1); // silent
	answer(ecu(0x7E3), {});
	answer(ecu(0x7E4), {0x00, 0x02, 0x03});
	answer(ecu(0x7E5), {0x59}); // too short for its header
	answer(ecu(0x7E0), {0x7F, 0x19, 0x22});

	EXPECT_EQ(send(), 0);

	EXPECT_EQ(records(),
			"[ { \"phy-req-id\": \"7E2\", \"data\": \"02\" }, { \"phy-req-id\": \"7E0\", \"data\": \"7F1922\" } ]");
	EXPECT_EQ(output.messages("ERR"), texts{});
}

TEST_F(dtc_report, says_at_dbg_whose_answer_it_looks_for)
{
	verbosity_scope level(LOG_DBG);
	answer(ecu(0x7E0), {0x59, 0x02});
	transport_cfg *nameless = ecu(0x7E1);
	free(nameless->phy_req_id_text);
	nameless->phy_req_id_text = nullptr;

	EXPECT_EQ(send(), 0);

	texts looked;
	for (const std::string &line : output.messages("DBG"))
		if (line.find("checking for ") == 0)
			looked.push_back(line);
	EXPECT_EQ(looked, (texts{"checking for phy-req-id 7E0 ...", "checking for phy-req-id nill ..."}));
}

TEST_F(dtc_report, leaves_the_answers_where_they_are)
{
	transport_cfg *cfg = ecu(0x7E0);
	answer(cfg, {0x59, 0x02, 0xFF});
	const uint8_t *before = cfg->answer;
	EXPECT_EQ(send(), 0);
	EXPECT_EQ(cfg->answer, before);
	EXPECT_EQ(cfg->answer_length, 3u);
}

TEST_F(dtc_report, is_not_sent_without_an_answer)
{
	for (int ecus : {0, 1, 2}) {
		SCOPED_TRACE(ecus);
		if (ecus > 0)
			ecu(0x7E0);
		EXPECT_EQ(send(), -1);
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Invalid Array"));
		EXPECT_EQ(output.messages().size(), 1u);
		EXPECT_EQ(fake_bus::sent().size(), 0u);
	}
}

TEST_F(dtc_report, needs_the_name_of_its_report)
{
	const struct {
		uint32_t subfunction;
		const char *text;
	} rows[] = {
			{0x00, "Could not find substring for 00"},
			{26, "Could not find substring for 1A"},
			{0xFF, "Could not find substring for FF"},
			{0x100, "Could not find substring for 100"},
	};
	answer(ecu(0x7E0), {0x59, 0x02});
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		job->dtc_subfunction = row.subfunction;
		EXPECT_EQ(send(), -1);
		EXPECT_EQ(output.messages("ERR"), texts{row.text});
		EXPECT_EQ(fake_bus::sent().size(), 0u);
	}
}

TEST_F(dtc_report, names_the_report_by_its_low_byte)
{
	answer(ecu(0x7E0), {0x59, 0x02});
	job->dtc_subfunction = 0x1234560A;
	EXPECT_EQ(send(), 0);
	EXPECT_NE(fake_bus::last_sent().text.find("\"UDS_REPORT_SUPPORTED_DTCS\""), std::string::npos);
}

TEST_F(dtc_report, is_dropped_with_its_line_when_a_step_fails)
{
	const struct {
		const char *function;
		unsigned nth;
		texts errors;
	} rows[] = {
			{"json_object_new_object", 1, {"COuld not create JSON 'uds' message"}},
			{"json_object_new_object", 2, {"Unable to add", "Invalid Array"}},
			{"json_object_new_object", 3, {"Could not create JSON 'body' message"}},
			{"json_object_new_object", 4, {"COuld not create JSON message"}},
			{"json_object_new_array", 1, {"Invalid Array"}},
			{"json_object_array_add", 1, {"Unable to add", "Invalid Array"}},
			{"json_object_new_string", 1, {"Could not add 'resp' to JSON"}},
			{"json_object_new_string", 2, {"Could not add 'subfunction' to JSON"}},
			{"json_object_new_string", 3, {"Unable to add", "Invalid Array"}},
			{"json_object_new_string", 4, {"Unable to add", "Invalid Array"}},
			{"json_object_new_string", 5, {"Could not add 'uds' to JSON"}},
			{"json_object_new_string", 6, {"Could not add 'type' to JSON"}},
			{"json_object_new_string", 7, {"Could not add 'reply-to' to JSON"}},
			{"json_object_object_add", 1, {"Could not add 'resp' to JSON"}},
			{"json_object_object_add", 2, {"Could not add 'subfunction' to JSON"}},
			{"json_object_object_add", 3, {"Unable to add", "Invalid Array"}},
			{"json_object_object_add", 4, {"Unable to add", "Invalid Array"}},
			{"json_object_object_add", 5, {"Could not add 'data-record' to JSON"}},
			{"json_object_object_add", 6, {"Could not add 'uds' to JSON"}},
			{"json_object_object_add", 7, {"Could not add 'uds' to JSON"}},
			{"json_object_object_add", 8, {"Could not add 'type' to JSON"}},
			{"json_object_object_add", 9, {"Could not add 'reply-to' to JSON"}},
			{"json_object_object_add", 10, {"Could not add 'body' to JSON"}},
			{"calloc", 1, {"Memory Allocation failed 4", "Could not allocate memory", "Invalid Array"}},
	};
	answer(ecu(0x7E0), {0x59, 0x02, 0xFF});
	for (const auto &row : rows) {
		SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.nth));
		fail_nth failure(row.function, row.nth);
		EXPECT_EQ(send(), -1);
		EXPECT_TRUE(failure.fired());
		EXPECT_EQ(output.messages("ERR"), row.errors);
		EXPECT_EQ(fake_bus::sent().size(), 0u);
	}
}

TEST_F(dtc_report, has_no_other_step_that_can_fail)
{
	const struct {
		const char *function;
		unsigned calls;
	} rows[] = {{"json_object_new_object", 4}, {"json_object_new_array", 1}, {"json_object_array_add", 1},
			{"json_object_new_string", 7}, {"json_object_object_add", 10}};
	answer(ecu(0x7E0), {0x59, 0x02, 0xFF});
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		fail_nth count(row.function, 0);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(count.calls(), row.calls);
	}
}

TEST_F(dtc_report, goes_out_with_the_answers_before_the_one_that_failed)
{
	const struct {
		const char *function;
		unsigned nth;
		const char *text;
	} rows[] = {
			{"json_object_new_object", 3, "Unable to add"},
			{"json_object_new_string", 5, "Unable to add"},
			{"json_object_array_add", 2, "Unable to add"},
			{"calloc", 2, "Could not allocate memory"},
	};
	for (uint32_t id : {0x7E0u, 0x7E1u, 0x7E2u})
		answer(ecu(id), {0x59, 0x02, 0xFF});
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		fail_nth failure(row.function, row.nth);
		EXPECT_EQ(send(), 0);
		EXPECT_EQ(records(), "[ { \"phy-req-id\": \"7E0\", \"data\": \"FF\" } ]");
		EXPECT_EQ(output.messages("ERR").back(), row.text);
	}
}
