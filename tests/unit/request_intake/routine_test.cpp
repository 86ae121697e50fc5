#include "unit/request_intake/intake_fixture.h"

#include "support/fail_nth.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

class routine : public intake_test
{
protected:
	std::vector<bytes> commands(const std::string &list, const std::string &more = "")
	{
		drop_pending();
		log.clear();
		return commands_of(queued(routine_request(list, more)));
	}
	bytes single(const std::string &command)
	{
		std::vector<bytes> all = commands("[" + command + "]");
		EXPECT_EQ(all.size(), 1u);
		return all.empty() ? bytes() : all[0];
	}
	uint32_t timer(const std::string &text)
	{
		single(R"({"service":"10","timer":)" + text + "}");
		return ctx->pending_jobs->commands->timer;
	}
};

}

TEST_F(routine, reads_commands_in_order_with_their_count)
{
	EXPECT_THAT(commands(R"([{"service":"10","subfn":"03"},{"service":"22","data":"F190"},{"service":"3E"}])"),
			ElementsAre(bytes{0x10, 0x03}, bytes{0x22, 0xF1, 0x90}, bytes{0x3E}));
	EXPECT_EQ(ctx->pending_jobs->command_count, 3u);
	EXPECT_EQ(ctx->pending_command_count, 3u);
	EXPECT_THAT(log.messages("ERR"), IsEmpty());
}

TEST_F(routine, assembles_service_sub_function_and_data)
{
	struct {
		const char *command;
		bytes request;
	} rows[] = {
			{R"({"service":"31","subfn":"01","data":"0xFF00"})", {0x31, 0x01, 0xFF, 0x00}},
			{R"({"service":"31","subfn":"","data":"0xFF00"})", {0x31, 0xFF, 0x00}},
			{R"({"service":"31","subfn":"01","data":"0XFF00"})", {0x31, 0x01, 0xFF, 0x00}},
			{R"({"service":"31","subfn":"01","data":"fF0a"})", {0x31, 0x01, 0xFF, 0x0A}},
			{R"({"service":"31","subfn":"01","data":""})", {0x31, 0x01}},
			{R"({"service":"31","subfn":"01","data":"0x"})", {0x31, 0x01}},
			{R"({"service":"31","subfn":"01"})", {0x31, 0x01}},
			{R"({"service":"31"})", {0x31}},
			{R"({"service":"0x31","subfn":"0x81"})", {0x31, 0x81}},
			{R"({"service":"131","subfn":"201"})", {0x31, 0x01}}, // the low 8 bits
			{R"({"service":"","subfn":"1"})", {0x00, 0x01}},
			{R"({"service":"zz","subfn":"zz"})", {0x00, 0x00}},
			{R"({"service":"31","data":"F"})", {0x31, 0x0F}},
			{R"({"service":"31","data":"zz11"})", {0x31, 0x00, 0x11}},
			{R"({"service":"31","subfn":1,"data":2,"timer":3})", {0x31}}, // other types count as absent
			{R"({"service":"31","subfn":null,"data":null,"timer":null})", {0x31}},
			{R"({"service":"31","subfn":{},"data":[],"timer":true})", {0x31}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.command);
		EXPECT_EQ(single(row.command), row.request);
	}
}

TEST_F(routine, tells_each_optional_key_that_is_missing_at_info)
{
	single(R"({"service":"10"})");

	strings missing;
	for (const log_record &record : log.records())
		if (record.source == "tervUtils")
			missing.push_back(record.level + " " + record.message);
	EXPECT_EQ(missing,
			(strings{R"(INFO No subfn property in { "service": "10" })",
					R"(INFO No data property in { "service": "10" })",
					R"(INFO No timer property in { "service": "10" })"}));
}

TEST_F(routine, bounds_the_data_to_the_assembly_buffer)
{
	std::string data(2 * 5000, 'A');
	bytes with_subfn = single(R"({"service":"36","subfn":"1","data":")" + data + "\"}");
	EXPECT_EQ(with_subfn.size(), 1024u);
	EXPECT_EQ(with_subfn.back(), 0xAA);

	EXPECT_EQ(single(R"({"service":"36","data":"0x)" + data + "\"}").size(), 1024u);
	EXPECT_EQ(single(R"({"service":"36","data":")" + data.substr(0, 2 * 1023) + "\"}").size(), 1024u);
	EXPECT_EQ(single(R"({"service":"36","data":")" + data.substr(0, 2 * 1022) + "\"}").size(), 1023u);
}

TEST_F(routine, reads_the_timer_in_decimal)
{
	struct {
		const char *text;
		uint32_t timer;
	} rows[] = {
			{R"("5")", 5},
			{R"("010")", 10},
			{R"("0x10")", 0},
			{R"("")", 0},
			{R"("soon")", 0},
			{R"(5)", 0},
			{R"("4294967295")", 0xFFFFFFFF},
			{R"("4294967296")", 0xFFFFFFFF}, // as on a 32-bit unit
			{R"("99999999999999999999999")", 0xFFFFFFFF},
			{R"("-1")", 0xFFFFFFFF},
			{R"("-2")", 0xFFFFFFFE},
			{R"("-4294967296")", 0xFFFFFFFF},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		EXPECT_EQ(timer(row.text), row.timer);
	}
}

TEST_F(routine, leaves_the_outcome_of_a_command_empty)
{
	single(R"({"service":"10"})");

	const uds_command *command = ctx->pending_jobs->commands;
	EXPECT_EQ(command->error, nullptr);
	EXPECT_EQ(command->response_length, 0u);
	EXPECT_STREQ(command->requested_time, "");
	EXPECT_STREQ(command->responded_time, "");
	EXPECT_EQ(command->timer, 0u);
}

TEST_F(routine, with_an_empty_list_is_queued_without_commands)
{
	EXPECT_THAT(commands("[]"), IsEmpty());
}

TEST_F(routine, is_dropped_when_its_commands_are_missing_or_no_list)
{
	for (const char *work : {R"("routine":{})", R"("routine":{"commands":{}})", R"("routine":{"commands":null})",
				 R"("routine":{"commands":"10 03"})", R"("routine":null)", R"("routine":[])", R"("routine":7)"}) {
		SCOPED_TRACE(work);
		request_text request;
		request.work = work;
		EXPECT_EQ(dropped(request), (strings{"No Command property"}));
	}
}

TEST_F(routine, is_dropped_whole_when_a_command_has_no_service)
{
	for (const char *command : {"{}", R"({"subfn":"01"})", R"({"service":16})", R"({"service":null})",
				 R"({"service":["10"]})", "null", "5", "[]", R"("10")"}) {
		SCOPED_TRACE(command);
		EXPECT_EQ(dropped(routine_request(R"([{"service":"10"},)" + std::string(command) + R"(,{"service":"3E"}])")),
				(strings{"service not found in JSON message"}));
		EXPECT_EQ(scratch(), "service not found in JSON message");
	}
}

TEST_F(routine, reads_the_security_settings_for_a_security_access)
{
	EXPECT_THAT(commands(R"([{"service":"10"},{"service":"27","subfn":"11"},{"service":"3E"}])", security_access),
			ElementsAre(bytes{0x10}, bytes{0x27, 0x11}, bytes{0x3E}));
	const security_access_config *security = ctx->pending_jobs->security;
	ASSERT_NE(security, nullptr);
	EXPECT_EQ(security->level, 0x11u);
	EXPECT_STREQ(security->script, "S");
	EXPECT_STREQ(security->location, "/opt/key");
}

TEST_F(routine, does_not_read_the_security_settings_without_a_security_access)
{
	EXPECT_THAT(commands(R"([{"service":"22","data":"27"}])", R"("security_access":{})"), SizeIs(1));

	EXPECT_EQ(ctx->pending_jobs->security, nullptr);
	EXPECT_THAT(log.messages("ERR"), IsEmpty());
}

TEST_F(routine, reads_the_security_settings_once_for_several_security_accesses)
{
	fail_nth copies("strdup", 0);
	EXPECT_THAT(commands(R"([{"service":"27","subfn":"1"},{"service":"27","subfn":"2"}])", security_access), SizeIs(2));

	EXPECT_EQ(ctx->pending_jobs->security->level, 0x11u);
	EXPECT_EQ(copies.calls(), 6u); // three texts of the head, one of the transport, script and location
}

TEST_F(routine, keeps_the_commands_before_a_security_access_without_settings)
{
	EXPECT_THAT(commands(R"([{"service":"10"},{"service":"27"},{"service":"3E"}])"), ElementsAre(bytes{0x10}));

	EXPECT_EQ(log.messages("ERR"), (strings{"No security_access property"}));
	EXPECT_EQ(ctx->pending_jobs->command_count, 1u);
	EXPECT_EQ(ctx->pending_jobs->security, nullptr);
}

TEST_F(routine, keeps_the_commands_before_a_security_access_with_incomplete_settings)
{
	EXPECT_THAT(
			commands(R"([{"service":"10"},{"service":"27"},{"service":"3E"}])", R"("security_access":{"level":"1"})"),
			ElementsAre(bytes{0x10}));

	EXPECT_EQ(
			log.messages("ERR"), (strings{"script not found in JSON message", "Failed to parse Security information"}));
	EXPECT_EQ(ctx->pending_jobs->security, nullptr);
}

TEST_F(routine, goes_on_with_the_checks_after_the_list_ended_early)
{
	request_text request = routine_request(R"([{"service":"27"},{"no":"service"}])");
	request.mode = R"("mode":"LIN")";

	EXPECT_EQ(dropped(request), (strings{"No security_access property", "LIN Transport type not supported yet!!"}));
}

TEST_F(routine, takes_security_settings_of_another_type_for_missing_ones)
{
	for (const char *settings : {"null", "[]", "\"text\"", "5"}) {
		SCOPED_TRACE(settings);
		// Nor are settings that lie one object too high taken in their place.
		std::string more =
				R"("level":"11","script":"S","location":"/opt/key","security_access":)" + std::string(settings);
		EXPECT_THAT(commands(R"([{"service":"10"},{"service":"27"}])", more), ElementsAre(bytes{0x10}));
		EXPECT_EQ(log.messages("ERR"), (strings{"No security_access property"}));
	}
}

TEST_F(routine, is_dropped_when_it_alone_has_more_commands_than_may_wait)
{
	std::string list = R"([{"service":"10"})";
	for (uint32_t i = 0; i < pending_commands_limit; i++)
		list += R"(,{"service":"3E"})";

	EXPECT_EQ(dropped(routine_request(list + "]")), (strings{"too many pending requests"}));
}

TEST_F(routine, is_dropped_when_its_commands_do_not_fit_beside_those_that_wait)
{
	ctx->pending_command_count = pending_commands_limit - 2;
	EXPECT_EQ(dispatch(routine_request(R"([{"service":"10"},{"service":"10"},{"service":"10"}])")), -1);
	EXPECT_EQ(log.messages("ERR"), (strings{"too many pending requests"}));

	EXPECT_EQ(dispatch(routine_request(R"([{"service":"10"},{"service":"10"}])")), 0);
}
