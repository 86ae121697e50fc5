#include "request_builder.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json-c/json.h>

using testing::HasSubstr;

static routine_options vin_read()
{
	routine_options options;
	options.transport.ecu = "7E0:7E8";
	options.transport.interface_name = "vcan0";
	options.commands = {"10:03", "22:F190"};
	return options;
}

TEST(command_text, becomes_the_fields_of_a_command)
{
	const struct {
		const char *text;
		const char *service;
		const char *subfn;
		const char *data;
		const char *timer;
	} rows[] = {
			{"3E", "3E", "", "", ""},
			{"10:03", "10", "03", "", ""},
			{"22:F190", "22", "", "F190", ""},
			{"22::F190", "22", "", "F190", ""},
			{"31:01:FF00", "31", "01", "FF00", ""},
			{"31:01:FF00;timer=3", "31", "01", "FF00", "3"},
			{"3e:00;timer=0", "3e", "00", "", "0"},
			{"2E:F190AABB", "2E", "", "F190AABB", ""},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		command_fields fields;
		std::string error;
		ASSERT_TRUE(parse_command(row.text, fields, error)) << error;
		EXPECT_EQ(fields.service, row.service);
		EXPECT_EQ(fields.subfn, row.subfn);
		EXPECT_EQ(fields.data, row.data);
		EXPECT_EQ(fields.timer, row.timer);
	}
}

TEST(command_text, is_refused_when_it_is_not_whole_bytes)
{
	for (const char *text :
			{"", "1", "100", "XY", "10:3", "10:0G", "22:F19", "31:01:FF0", "31:0101:FF00", "31:01:FF00:00", "10:03;",
					"10:03;timer=", "10:03;timer=-1", "10:03;timer=2;timer=3", "10:03;pause=3", ";timer=3", "10: 03"}) {
		SCOPED_TRACE(text);
		command_fields fields;
		std::string error;
		EXPECT_FALSE(parse_command(text, fields, error));
		EXPECT_THAT(error, HasSubstr("\"" + std::string(text) + "\" is not SID"));
	}
}

TEST(command_text, may_have_1024_bytes_and_no_more)
{
	command_fields fields;
	std::string error;

	EXPECT_TRUE(parse_command("36:01:" + std::string(2 * 1022, 'A'), fields, error)) << error;
	EXPECT_FALSE(parse_command("36:01:" + std::string(2 * 1023, 'A'), fields, error));
}

TEST(routine_request, has_the_form_that_agents_read)
{
	routine_options options = vin_read();
	options.commands.push_back("31:01:FF00;timer=3");
	std::string request;
	std::string error;

	ASSERT_TRUE(build_routine_request(options, "req-1", request, error)) << error;

	EXPECT_EQ(request,
			"{\"reply-id\":\"req-1\",\"type\":\"movra.quillet-query\",\"body\":{\"targetAddress\":\"7E0\",\"mode\":"
			"\"CAN\","
			"\"can\":{\"ifname\":\"vcan0\",\"phy-req-id\":\"7E0\",\"phy-resp-id\":\"7E8\",\"st-min\":\"0\",\"bsize\":"
			"\"8\"},"
			"\"routine\":{\"commands\":[{\"service\":\"10\",\"subfn\":\"03\"},{\"service\":\"22\",\"data\":\"F190\"},"
			"{\"service\":\"31\",\"subfn\":\"01\",\"data\":\"FF00\",\"timer\":\"3\"}]}}}");
}

TEST(routine_request, carries_the_security_settings)
{
	routine_options options = vin_read();
	options.commands = {"27:01"};
	options.security_location = "/opt/keys";
	options.security_level = "3";
	options.security_script = "a \"quoted\" text";
	std::string request;
	std::string error;

	ASSERT_TRUE(build_routine_request(options, "req-1", request, error)) << error;

	EXPECT_THAT(request,
			HasSubstr("\"security_access\":{\"level\":\"3\",\"script\":\"a \\\"quoted\\\" text\","
					  "\"location\":\"/opt/keys\"}"));
}

TEST(routine_request, is_refused_when_an_argument_makes_no_sense)
{
	const struct {
		void (*change)(routine_options &);
		const char *says;
	} rows[] = {
			{[](routine_options &options) { options.transport.ecu = "7E0"; }, "--ecu"},
			{[](routine_options &options) { options.transport.ecu = "7E0:7E8:1"; }, "--ecu"},
			{[](routine_options &options) { options.transport.ecu = "7E0:XYZ"; }, "--ecu"},
			{[](routine_options &options) { options.transport.ecu = "20000000:7E8"; }, "--ecu"},
			{[](routine_options &options) { options.transport.ecu = "100000000:7E8"; }, "--ecu"},
			{[](routine_options &options) { options.transport.interface_name = ""; }, "--interface"},
			{[](routine_options &options) { options.transport.st_min = "100"; }, "--st-min"},
			{[](routine_options &options) { options.transport.bsize = "x"; }, "--bsize"},
			{[](routine_options &options) { options.commands.clear(); }, "--command"},
			{[](routine_options &options) { options.commands = {"10:3"}; }, "10:3"},
			{[](routine_options &options) { options.commands = {"27:01"}; }, "--security-location"},
			{[](routine_options &options) {
				 options.security_location = "/keys";
				 options.security_level = "123";
			 },
					"--security-level"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.says);
		routine_options options = vin_read();
		row.change(options);
		std::string request = "untouched";
		std::string error;

		EXPECT_FALSE(build_routine_request(options, "req-1", request, error));

		EXPECT_THAT(error, HasSubstr(row.says));
		EXPECT_EQ(request, "untouched");
	}
}

TEST(routine_request, takes_29_bit_identifiers)
{
	routine_options options = vin_read();
	options.transport.ecu = "18DA10F1:18DAF110";
	std::string request;
	std::string error;

	ASSERT_TRUE(build_routine_request(options, "req-1", request, error)) << error;

	EXPECT_THAT(request, HasSubstr("\"phy-req-id\":\"18DA10F1\",\"phy-resp-id\":\"18DAF110\""));
}

TEST(adopted_request, keeps_its_own_reply_id)
{
	std::string request;
	std::string reply_id;
	std::string error;

	ASSERT_TRUE(adopt_request("{\"reply-id\":\"mine\",\"x\":[1,2]}", "", request, reply_id, error)) << error;

	EXPECT_EQ(reply_id, "mine");
	EXPECT_EQ(request, "{\"reply-id\":\"mine\",\"x\":[1,2]}");
}

TEST(adopted_request, gets_the_reply_id_of_the_command_line)
{
	std::string request;
	std::string reply_id;
	std::string error;

	ASSERT_TRUE(adopt_request("{\"reply-id\":\"mine\"}", "given", request, reply_id, error)) << error;

	EXPECT_EQ(reply_id, "given");
	EXPECT_EQ(request, "{\"reply-id\":\"given\"}");
}

TEST(adopted_request, gets_a_fresh_reply_id_when_it_has_none_that_is_a_text)
{
	for (const char *text : {"{\"body\":{}}", "{\"reply-id\":7,\"body\":{}}"}) {
		SCOPED_TRACE(text);
		std::string request;
		std::string reply_id;
		std::string error;

		ASSERT_TRUE(adopt_request(text, "", request, reply_id, error)) << error;

		EXPECT_EQ(reply_id.rfind("query-", 0), 0u);
		EXPECT_THAT(request, HasSubstr("\"reply-id\":\"" + reply_id + "\""));
	}
}

TEST(adopted_request, is_refused_when_it_is_not_a_json_object)
{
	const struct {
		const char *text;
		const char *says;
	} rows[] = {
			{"", "not JSON"},
			{"{\"a\":", "not JSON"},
			{"{\"a\" 1}", "at byte 5"},
			{"[1]", "not an object"},
			{"null", "not an object"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		std::string request;
		std::string reply_id;
		std::string error;
		EXPECT_FALSE(adopt_request(row.text, "", request, reply_id, error));
		EXPECT_THAT(error, HasSubstr(row.says));
	}
}

TEST(adopted_request, is_refused_when_something_follows_it)
{
	const std::string rows[] = {"{\"a\":1} {}", "{\"a\":1}}", "{\"a\":1}\nmore", std::string("{\"a\":1}\0more", 12)};
	for (const std::string &text : rows) {
		SCOPED_TRACE(text);
		std::string request;
		std::string reply_id;
		std::string error;

		EXPECT_FALSE(adopt_request(text, "", request, reply_id, error));
		EXPECT_THAT(error, HasSubstr("more follows the first JSON value, at byte "));
	}
}

TEST(adopted_request, may_have_blanks_around_it)
{
	std::string request;
	std::string reply_id;
	std::string error;

	EXPECT_TRUE(adopt_request("\n {\"reply-id\":\"mine\"} \t\r\n", "", request, reply_id, error)) << error;

	EXPECT_EQ(request, "{\"reply-id\":\"mine\"}");
}

TEST(fresh_reply_id, is_another_one_each_time)
{
	EXPECT_NE(fresh_reply_id(), fresh_reply_id());
}
