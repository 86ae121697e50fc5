#include "unit/request_intake/intake_fixture.h"

#include <sched.h>

#include "movrabus/movrabus.h"
#include "support/fail_nth.h"
#include "support/verbosity_scope.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

static_assert(std::is_same_v<mobus_message_cb, decltype(&handle_bus_message)>);

namespace
{

class bus_message : public intake_test
{
};

class request_dispatch : public intake_test
{
};

}

TEST_F(bus_message, without_a_text_is_reported)
{
	for (size_t length : {5, 0}) {
		log.clear();
		EXPECT_EQ(handle_bus_message(nullptr, length, sender, ctx), 0);
		EXPECT_EQ(log.messages(), (strings{"msg is NULL"}));
	}
	EXPECT_TRUE(log.has_line("ERR", "movra_fleet", "msg is NULL"));
}

TEST_F(bus_message, of_length_0_is_not_parsed)
{
	EXPECT_EQ(handle_bus_message(request_text().text().c_str(), 0, sender, ctx), 0);

	EXPECT_EQ(log.messages(), (strings{"len is 0"}));
	EXPECT_TRUE(log.has_line("ERR", "movra_fleet", "len is 0"));
	EXPECT_EQ(ctx->pending_jobs, nullptr);
}

TEST_F(bus_message, is_logged_with_its_sender_and_queued)
{
	std::string text = request_text().text();
	receive(text);

	EXPECT_TRUE(log.has_line("INFO", "movra_fleet", "Received msg from ASKER : " + text));
	ASSERT_NE(ctx->pending_jobs, nullptr);
	EXPECT_STREQ(ctx->pending_jobs->source_address, "ASKER");
}

TEST_F(bus_message, that_is_no_json_is_reported_with_its_text)
{
	for (const char *text : {"{", "", "null", "{\"reply-id\":}", "hello", "\xff\xfe"}) {
		SCOPED_TRACE(text);
		log.clear();
		receive(text);
		EXPECT_EQ(log.messages("ERR"), (strings{std::string("Could not parse JSON message ") + text}));
		EXPECT_EQ(scratch(), std::string("Could not parse JSON message ") + text);
	}
}

TEST_F(bus_message, that_is_no_json_is_cut_at_the_scratch_buffer)
{
	receive("{" + std::string(1000, 'x'));

	std::string expected = "Could not parse JSON message {" + std::string(1000, 'x');
	expected.resize(255);
	EXPECT_EQ(log.messages("ERR"), (strings{expected}));
	EXPECT_EQ(scratch(), expected);
}

TEST_F(bus_message, is_read_up_to_an_embedded_zero)
{
	std::string text = request_text().text();
	std::string longer = text + std::string(1, '\0') + "garbage";
	EXPECT_EQ(handle_bus_message(longer.data(), longer.size() + 1, sender, ctx), 0);

	EXPECT_EQ(ctx->pending_job_count, 1u);
}

TEST_F(bus_message, leaves_the_scratch_text_alone_when_it_is_accepted)
{
	receive("no json");
	std::string before = scratch();

	receive(request_text().text());

	EXPECT_EQ(ctx->pending_job_count, 1u);
	EXPECT_EQ(scratch(), before);
}

TEST_F(bus_message, takes_the_address_from_a_first_entry_that_is_a_name)
{
	struct {
		std::vector<fake_bus::address> source;
		const char *address; // NULL: none
	} rows[] = {
			{{fake_bus::unit("U"), fake_bus::group("G")}, "U"},
			{{fake_bus::group("G"), fake_bus::unit("U")}, "G"},
			{{fake_bus::special(0), fake_bus::unit("U")}, nullptr},
			{{fake_bus::special(0xDEAD)}, nullptr},
			{{{7, "x"}}, nullptr},
			{{}, nullptr},
	};
	for (const auto &row : rows) {
		std::string shown = row.address != nullptr ? row.address : "(null)";
		SCOPED_TRACE(shown);
		log.clear();
		fake_bus::free_list(sender);
		sender = fake_bus::make_list(row.source);
		receive(request_text().text());
		EXPECT_STREQ(ctx->pending_jobs->source_address, row.address);
		EXPECT_THAT(log.messages("INFO").front(), testing::StartsWith("Received msg from " + shown + " : {"));
		drop_pending();
	}
}

TEST_F(bus_message, works_after_one_that_was_dropped)
{
	receive("{}");
	EXPECT_EQ(ctx->pending_job_count, 0u);
	receive(request_text().text());

	EXPECT_EQ(ctx->pending_job_count, 1u);
}

TEST_F(bus_message, gives_nothing_to_the_log_at_a_verbosity_below_its_level)
{
	verbosity_scope errors_only(LOG_ERR);
	receive(request_text().text());
	EXPECT_THAT(log.messages(), IsEmpty());
	verbosity_scope nothing(LOG_FATAL);
	receive("{}");

	EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(request_dispatch, copies_the_head_of_the_request_into_the_job)
{
	diag_job *job = queued(request_text());

	EXPECT_STREQ(job->reply_id, "r-1");
	EXPECT_STREQ(job->target_address, "0x10");
	EXPECT_STREQ(job->source_address, "ASKER");
	EXPECT_EQ(job->transport_type, 0);
	EXPECT_EQ(job->sid, 0);
	EXPECT_EQ(job->version_kind, VERSION_NONE);
	EXPECT_EQ(job->commands, nullptr);
	EXPECT_EQ(job->command_count, 0u);
	EXPECT_EQ(job->security, nullptr);
	ASSERT_NE(job->transport, nullptr);
	EXPECT_EQ(job->next, nullptr);
	EXPECT_THAT(log.messages("ERR"), IsEmpty());
}

TEST_F(request_dispatch, drops_a_request_with_a_required_text_missing_or_of_another_type)
{
	struct {
		std::string request_text::*member;
		const char *key;
		const char *text;
	} rows[] = {
			{&request_text::reply_id, "reply-id", "reply-id not found in JSON message"},
			{&request_text::target, "targetAddress", "target not found in JSON message"},
			{&request_text::type, "type", "No 'type' field found"},
			{&request_text::mode, "mode", "mode not found in JSON message"},
	};
	for (const auto &row : rows)
		for (const char *value : {"", "null", "1", "1.5", "true", "{}", "[]", "[\"CAN\"]", "{\"CAN\":\"CAN\"}"}) {
			SCOPED_TRACE(std::string(row.key) + " " + value);
			request_text request;
			request.*row.member = *value != '\0' ? "\"" + std::string(row.key) + "\":" + value : "";
			EXPECT_EQ(dropped(request), (strings{row.text}));
			EXPECT_EQ(scratch(), row.text);
			size_t told = *value == '\0' ? 1 : 0; // the key, when it is missing; not when it has another type
			EXPECT_EQ(log.messages("INFO").size(), told);
		}
}

TEST_F(request_dispatch, checks_in_order_and_reports_the_first_failure_only)
{
	request_text request;
	request.can = "";
	EXPECT_EQ(dropped(request), (strings{"'ifname' not found in JSON message", "CAN Configuration parsing failed"}));
	request.mode = "";
	EXPECT_EQ(dropped(request), (strings{"mode not found in JSON message"}));
	request.work = R"("routine":{})";
	EXPECT_EQ(dropped(request), (strings{"No Command property"}));
	request.work += R"(,"version":{})";
	EXPECT_EQ(dropped(request), (strings{"No version info available"}));
	request.work += R"(,"uds":{})";
	EXPECT_EQ(dropped(request), (strings{"SID not found in JSON message"}));
	request.type = "";
	EXPECT_EQ(dropped(request), (strings{"No 'type' field found"}));
	request.target = "";
	EXPECT_EQ(dropped(request), (strings{"target not found in JSON message"}));
	request.reply_id = "";
	EXPECT_EQ(dropped(request), (strings{"reply-id not found in JSON message"}));
}

TEST_F(request_dispatch, does_not_look_at_the_value_of_type)
{
	request_text request;
	request.type = R"("type":"")";

	EXPECT_EQ(dispatch(request), 0);
}

TEST_F(request_dispatch, drops_requests_that_are_no_objects)
{
	for (const char *text : {"[]", "[[[[]]]]", "5", "\"text\"", "true", "1e999", "-0.0"}) {
		SCOPED_TRACE(text);
		log.clear();
		EXPECT_EQ(dispatch(text), -1);
		EXPECT_EQ(log.messages("ERR"), (strings{"reply-id not found in JSON message"}));
	}
}

TEST_F(request_dispatch, drops_a_request_whose_body_is_no_object)
{
	for (const char *body : {"null", "1", "\"text\"", "[]", "[{\"targetAddress\":\"1\"}]"}) {
		SCOPED_TRACE(body);
		log.clear();
		EXPECT_EQ(dispatch(R"({"reply-id":"r","type":"t","body":)" + std::string(body) + "}"), -1);
		EXPECT_EQ(log.messages("ERR"), (strings{"target not found in JSON message"}));
	}
}

TEST_F(request_dispatch, drops_dtc_and_version_requests_that_it_cannot_use)
{
	struct {
		const char *what;
		const char *work;
		strings errors;
	} rows[] = {
			{"no SID", R"("uds":{"subfunction":"UDS_REPORT_SUPPORTED_DTCS"})", {"SID not found in JSON message"}},
			{"the SID is a number", R"("uds":{"SID":25,"subfunction":"UDS_REPORT_SUPPORTED_DTCS"})",
					{"SID not found in JSON message"}},
			{"uds is null", R"("uds":null)", {"SID not found in JSON message"}},
			{"uds is a text", R"("uds":"0x19")", {"SID not found in JSON message"}},
			{"another service", R"("uds":{"SID":"22"})", {"SID(0x22) not Supported"}},
			{"another service with a prefix", R"("uds":{"SID":"0x3E"})", {"SID(0x3E) not Supported"}},
			{"no digits", R"("uds":{"SID":""})", {"SID(0x00) not Supported"}},
			{"more than a byte", R"("uds":{"SID":"119"})", {"SID(0x119) not Supported"}},
			{"more than 32 bits", R"("uds":{"SID":"100000019"})", {"SID(0xFFFFFFFF) not Supported"}},
			{"no subfunction", R"("uds":{"SID":"19"})", {"Unable to get subfunction", "UDS info parsing failed"}},
			{"no record", R"("uds":{"SID":"19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK"})",
					{"Subfunction found", "Unable to get data-record", "UDS info parsing failed"}},
			{"an empty mask",
					R"("uds":{"SID":"19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK",
						"data-record":{"type":"STATUS_MASK","record":[]}})",
					{"Subfunction found", "Array size is zero", "Invalid mask", "Unable to expand record",
							"UDS info parsing failed"}},
			{"uds before version and routine", R"("routine":{"commands":[]},"version":{"uds":[]},"uds":{})",
					{"SID not found in JSON message"}},
			{"a version of nothing", R"("version":{})", {"No version info available"}},
			{"the version is a text", R"("version":"text")", {"No version info available"}},
			{"the version is null", R"("version":null)", {"No version info available"}},
			{"a UDS version that is an object", R"("version":{"uds":{"0":"22F189"}})", {"No version info available"}},
			{"a UDS version that is a text", R"("version":{"uds":"22F189"})", {"No version info available"}},
			{"a J1939 version that is an array", R"("version":{"j1939":[]})",
					{"'j1939' not found in version JSON message"}},
			{"a J1939 version that is null", R"("version":{"j1939":null})",
					{"'j1939' not found in version JSON message"}},
			{"version before routine", R"("version":{},"routine":{"commands":[]})", {"No version info available"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		request_text request;
		request.work = row.work;
		EXPECT_EQ(dropped(request), row.errors);
	}
}

TEST_F(request_dispatch, takes_a_dtc_request_with_its_bytes)
{
	for (const char *sid : {"19", "0x19", "0X19", "00000019"}) {
		SCOPED_TRACE(sid);
		request_text request;
		request.work = R"("uds":{"SID":")" + std::string(sid) + R"(","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK",
			"data-record":{"type":"RECORD","record":"FF"}})";
		diag_job *job = queued(request);
		ASSERT_NE(job, nullptr);
		EXPECT_EQ(job->sid, 0x19);
		EXPECT_EQ(job->dtc_subfunction, 0x02u);
		ASSERT_EQ(job->dtc_data_length, 1u);
		EXPECT_EQ(job->dtc_data[0], 0xFF);
		EXPECT_EQ(job->version_query, nullptr);
		EXPECT_EQ(job->commands, nullptr);
		drop_pending();
	}
}

TEST_F(request_dispatch, ignores_version_and_routine_beside_uds)
{
	request_text request;
	request.work = R"("version":{"uds":["22F189"]},"routine":{"commands":[{"service":"22"}]},
		"uds":{"SID":"19","subfunction":"UDS_REPORT_SUPPORTED_DTCS"})";
	diag_job *job = queued(request);
	ASSERT_NE(job, nullptr);
	EXPECT_EQ(job->dtc_subfunction, 0x0Au);
	EXPECT_EQ(job->version_kind, VERSION_NONE);
	EXPECT_EQ(job->version_query, nullptr);
	EXPECT_EQ(job->commands, nullptr);
}

TEST_F(request_dispatch, takes_a_version_request_with_a_copy_of_its_query)
{
	struct {
		const char *what;
		const char *version;
		int32_t kind;
		const char *query;
	} rows[] = {
			{"by UDS", R"({"uds":["22F189",1,null]})", VERSION_UDS, R"([ "22F189", 1, null ])"},
			{"by UDS, nothing", R"({"uds":[]})", VERSION_UDS, "[ ]"},
			{"J1939", R"({"j1939":{"ifname":"can0"}})", VERSION_J1939, R"({ "ifname": "can0" })"},
			{"J1939, nothing", R"({"j1939":{}})", VERSION_J1939, "{ }"},
			{"both: by UDS", R"({"j1939":{},"uds":["22F189"]})", VERSION_UDS, R"([ "22F189" ])"},
			{"a UDS query that is no list, and J1939", R"({"uds":{},"j1939":{"id":"1"}})", VERSION_J1939,
					R"({ "id": "1" })"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		request_text request;
		request.work = R"("routine":{"commands":[{"service":"22"}]},"version":)" + std::string(row.version);
		diag_job *job = queued(request);
		ASSERT_NE(job, nullptr);
		EXPECT_EQ(job->version_kind, row.kind);
		EXPECT_STREQ(json_object_to_json_string(job->version_query), row.query);
		EXPECT_EQ(job->commands, nullptr);
		EXPECT_EQ(log.messages("ERR"), strings{});
		drop_pending();
	}
}

TEST_F(request_dispatch, drops_a_version_request_whose_query_cannot_be_copied)
{
	struct {
		const char *version;
		const char *text;
	} rows[] = {
			{R"({"uds":["22F189"]})", "'uds' not found in version JSON message"},
			{R"({"j1939":{"ifname":"can0"}})", "'j1939' not found in version JSON message"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.version);
		request_text request;
		request.work = R"("version":)" + std::string(row.version);
		fail_nth failure("json_object_deep_copy", 1);
		EXPECT_EQ(dropped(request), strings{row.text});
		EXPECT_TRUE(failure.fired());
	}
}

TEST_F(request_dispatch, accepts_only_the_mode_can)
{
	for (const char *mode : {"can", "Can", "CAN ", "", "DoIP"}) {
		SCOPED_TRACE(mode);
		request_text request;
		request.mode = R"("mode":")" + std::string(mode) + "\"";
		std::string text = std::string(mode) + " Transport type not supported yet!!";
		EXPECT_EQ(dropped(request), (strings{text}));
		EXPECT_EQ(scratch(), text + "\n");
	}
}

TEST_F(request_dispatch, drops_a_request_whose_can_settings_are_not_complete)
{
	request_text request;
	request.can = R"("can":{"ifname":"can0","phy-req-id":"7E0"})";

	EXPECT_EQ(dropped(request), (strings{"phy-resp-id not found in JSON message", "CAN Configuration parsing failed"}));
	EXPECT_EQ(scratch(), "CAN Configuration parsing failed");
}

TEST_F(request_dispatch, reads_the_work_before_the_mode)
{
	request_text request = routine_request("1");
	request.mode = "";

	EXPECT_EQ(dropped(request), (strings{"No Command property"}));
}

TEST_F(request_dispatch, queues_jobs_oldest_first)
{
	for (const char *id : {"a", "b", "c"}) {
		request_text request;
		request.reply_id = R"("reply-id":")" + std::string(id) + "\"";
		EXPECT_EQ(dispatch(request), 0);
	}

	diag_job *first = ctx->pending_jobs;
	EXPECT_STREQ(first->reply_id, "a");
	EXPECT_STREQ(first->next->reply_id, "b");
	EXPECT_STREQ(first->next->next->reply_id, "c");
	EXPECT_EQ(first->next->next->next, nullptr);
}

TEST_F(request_dispatch, keeps_copies_only)
{
	json_object *request = json_tokener_parse(routine_request(R"([{"service":"3E"}])").text().c_str());
	EXPECT_EQ(dispatch_request(request, sender, ctx), 0);
	EXPECT_EQ(json_object_put(request), 1); // the last reference

	EXPECT_STREQ(ctx->pending_jobs->reply_id, "r-1");
	EXPECT_THAT(commands_of(ctx->pending_jobs), testing::ElementsAre(bytes{0x3E}));
}

TEST_F(request_dispatch, refuses_a_job_beyond_the_limit_and_takes_one_again_when_there_is_room)
{
	request_text request;
	for (uint32_t i = 0; i < pending_jobs_limit; i++)
		ASSERT_EQ(dispatch(request), 0);
	log.clear();

	EXPECT_EQ(dispatch(request), -1);
	EXPECT_EQ(log.messages("ERR"), (strings{"too many pending requests"}));
	EXPECT_EQ(ctx->pending_job_count, pending_jobs_limit);

	diag_job *head = pending_jobs_head(ctx);
	pending_jobs_remove(ctx, head);
	free_job_contents(head);
	free(head);
	EXPECT_EQ(dispatch(request), 0);
}

TEST_F(request_dispatch, takes_a_job_off_again_that_the_pool_refuses)
{
	EXPECT_EQ(dispatch(request_text()), 0); // an older one stays
	log.clear();
	fail_nth failure("calloc", 3); // the job, its transport, the pool's entry

	EXPECT_EQ(dispatch(request_text()), -1);

	EXPECT_TRUE(failure.fired());
	EXPECT_EQ(log.messages("ERR"), (strings{"request could not be queued"}));
	EXPECT_EQ(ctx->pending_job_count, 1u);
	EXPECT_EQ(ctx->pending_jobs->next, nullptr);
}

TEST_F(request_dispatch, drops_the_request_whichever_allocation_fails)
{
	request_text request =
			routine_request(R"([{"service":"10","subfn":"3"},{"service":"27","subfn":"1"}])", security_access);
	for (const char *function : {"calloc", "strdup"})
		for (unsigned nth = 1;; ++nth) {
			SCOPED_TRACE(std::string(function) + " " + std::to_string(nth));
			log.clear();
			fail_nth failure(function, nth);
			int result = dispatch(request);
			if (!failure.fired()) {
				EXPECT_EQ(result, 0);
				EXPECT_EQ(nth, *function == 'c' ? 9u : 7u);
				drop_pending();
				break;
			}
			bool security = nth == (*function == 'c' ? 6u : 4u) || (*function == 's' && nth == 5);
			EXPECT_EQ(result, security ? 0 : -1); // without settings the list ends before the command
			EXPECT_FALSE(log.messages("ERR").empty());
			EXPECT_EQ(ctx->pending_job_count, security ? 1u : 0u);
			EXPECT_EQ(commands_of(ctx->pending_jobs).size(), security ? 1u : 0u);
			drop_pending();
		}
}

TEST_F(request_dispatch, reports_memory_that_is_short)
{
	fail_nth failure("calloc", 1);

	EXPECT_EQ(dropped(request_text()), (strings{"Memory Allocation failed"}));
}

TEST_F(request_dispatch, causes_one_worker_run_for_each_job)
{
	agent_ctx *live = agent_ctx_new();
	ASSERT_EQ(threadpool_init(&live->pool, 1), 0);
	fake_ecu ecu;
	ecu.answers({{0x50, 0x03}, {0x7E, 0x00}});
	for (const char *service : {"10", "3E"}) {
		json_object *request =
				json_tokener_parse(routine_request(R"([{"service":")" + std::string(service) + "\"}]").text().c_str());
		EXPECT_EQ(dispatch_request(request, sender, live), 0);
		json_object_put(request);
	}
	while (pending_jobs_head(live) != nullptr)
		sched_yield();
	threadpool_destroy(live->pool);
	agent_ctx_free(live);

	EXPECT_EQ(ecu.requests(), (std::vector<fake_bytes>{{0x10}, {0x3E}}));
}
