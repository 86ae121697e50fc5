#include "decode_reply.h"

#include <gtest/gtest.h>

static const std::string one_ecu = R"({"body":{"targetAddress":"7E0","can":{"phy-req-id":"7E0"},"uds":{"SID":"19"}}})";
static const std::string three_ecus = R"({"body":{"targetAddress":"-1",
	"can":[{"phy-req-id":"7E0"},{"phy-req-id":"7E1"},{"phy-req-id":"18DA10F1"}],"uds":{"SID":"19"}}})";
static const ecu_names bench = {{"7E0", "engine"}, {"7E1", "transmission"}, {"18DA10F1", "body"}};

static std::string dtc_reply(const std::string &answers, const std::string &report = "UDS_REPORT_DTC_BY_STATUS_MASK")
{
	return R"({"type":"movra.quillet-query-update","reply-to":"req-1","body":{"uds":{"resp":"0x59","subfunction":")" +
			report + R"(","data-record":[)" + answers + R"(]},"targetAddress":"-1"}})";
}

TEST(decoded_dtc_reply, has_the_dtcs_of_the_ecu)
{
	EXPECT_EQ(decode_reply(one_ecu, dtc_reply(R"({"phy-req-id":"7E0","data":"FF01234509"})"), {}),
			"report by-status-mask\n"
			"ECU 7E0: 1 DTC; supported status bits FF\n"
			"  P0123-45 (012345) status 09: test-failed, confirmed\n");
}

TEST(decoded_dtc_reply, tells_who_refused_and_who_was_silent)
{
	EXPECT_EQ(
			decode_reply(three_ecus,
					dtc_reply(R"({"phy-req-id":"7E0","data":"FF"},{"phy-req-id":"18DA10F1","data":"7F1922"})"), bench),
			"report by-status-mask\n"
			"ECU 7E0 engine: 0 DTCs; supported status bits FF\n"
			"ECU 7E1 transmission: no answer\n"
			"ECU 18DA10F1 body: refused: NRC 22 conditionsNotCorrect\n");
}

TEST(decoded_dtc_reply, takes_a_first_byte_of_7f_for_a_refusal_only_when_it_is_one)
{
	EXPECT_EQ(decode_reply(one_ecu, dtc_reply(R"({"phy-req-id":"7E0","data":"7F01234508"})"), {}),
			"report by-status-mask\n"
			"ECU 7E0: 1 DTC; supported status bits 7F\n"
			"  P0123-45 (012345) status 08: confirmed\n");
	EXPECT_EQ(decode_reply(one_ecu, dtc_reply(R"({"phy-req-id":"7E0","data":"7F19"})"), {}),
			"report by-status-mask\n"
			"ECU 7E0: 0 DTCs; supported status bits 7F\n"
			"  left over, not a whole entry: 19\n");
}

TEST(decoded_dtc_reply, tells_an_answer_of_an_ecu_that_was_not_asked)
{
	EXPECT_EQ(decode_reply(one_ecu, dtc_reply(R"({"phy-req-id":"7E1","data":"FF"})"), {}),
			"report by-status-mask\n"
			"ECU 7E0: no answer\n"
			"ECU 7E1: 0 DTCs; supported status bits FF\n");
}

TEST(decoded_dtc_reply, gives_ecus_that_share_an_identifier_an_answer_each)
{
	const std::string twice = R"({"body":{"can":[{"phy-req-id":"7E0"},{"phy-req-id":"7E0"}],"uds":{}}})";
	EXPECT_EQ(
			decode_reply(twice, dtc_reply(R"({"phy-req-id":"7E0","data":"F0"},{"phy-req-id":"7E0","data":"0F"})"), {}),
			"report by-status-mask\n"
			"ECU 7E0: 0 DTCs; supported status bits F0\n"
			"ECU 7E0: 0 DTCs; supported status bits 0F\n");
}

TEST(decoded_dtc_reply, shows_answers_that_it_cannot_read)
{
	const struct {
		const char *data;
		const char *report;
		const char *text;
	} rows[] = {
			{R"("FF0")", "UDS_REPORT_SUPPORTED_DTCS", "report supported\nECU 7E0: not hexadecimal: FF0\n"},
			{R"("XY")", "UDS_REPORT_SUPPORTED_DTCS", "report supported\nECU 7E0: not hexadecimal: XY\n"},
			{R"("\u001b[2J")", "UDS_REPORT_SUPPORTED_DTCS", "report supported\nECU 7E0: not hexadecimal: \\x1B[2J\n"},
			{R"("")", "UDS_REPORT_SUPPORTED_DTCS", "report supported\nECU 7E0: the answer is cut short: no data\n"},
			{"7", "UDS_REPORT_SUPPORTED_DTCS", "report supported\nECU 7E0: the answer is cut short: no data\n"},
			{R"("ff01")", "UDS_REPORT_NEW", "report UDS_REPORT_NEW\nECU 7E0: FF01\n"},
			{R"("7F1931")", "UDS_REPORT_NEW", "report UDS_REPORT_NEW\nECU 7E0: refused: NRC 31 requestOutOfRange\n"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.data);
		const std::string answer = std::string(R"({"phy-req-id":"7E0","data":)") + row.data + "}";
		EXPECT_EQ(decode_reply(one_ecu, dtc_reply(answer, row.report), {}), row.text);
	}
}

TEST(decoded_dtc_reply, bears_members_that_are_missing)
{
	EXPECT_EQ(decode_reply(one_ecu, R"({"body":{"uds":{}}})", {}), "report \nECU 7E0: no answer\n");
	EXPECT_EQ(decode_reply(one_ecu, R"({"body":{"uds":{"subfunction":7,"data-record":{}}}})", {}),
			"report \nECU 7E0: no answer\n");
	EXPECT_EQ(decode_reply("{}", dtc_reply("1,null,{}"), {}),
			"report by-status-mask\n"
			"ECU : the answer is cut short: no data\n"
			"ECU : the answer is cut short: no data\n"
			"ECU : the answer is cut short: no data\n");
}

static std::string error_reply(const std::string &cause)
{
	return R"({"reply-to":"req-1","body":{"error":{"error-type":"UDS_NO_RESPONSE","uds-nrc":")" + cause + R"("}}})";
}

TEST(decoded_error_reply, has_the_cause)
{
	EXPECT_EQ(decode_reply(three_ecus, error_reply("Invalid UDS Information, check for data-record"), bench),
			"error UDS_NO_RESPONSE: Invalid UDS Information, check for data-record\n");
	EXPECT_EQ(decode_reply(one_ecu, R"({"body":{"error":{}}})", {}), "error : \n");
}

TEST(decoded_error_reply, names_the_ecus_when_all_were_silent)
{
	EXPECT_EQ(decode_reply(three_ecus, error_reply("send_dtc_response_to_bridge failed"), bench),
			"error UDS_NO_RESPONSE: send_dtc_response_to_bridge failed\n"
			"ECU 7E0 engine: no answer\n"
			"ECU 7E1 transmission: no answer\n"
			"ECU 18DA10F1 body: no answer\n");
	const std::string version = R"({"body":{"can":{"phy-req-id":"7E0"},"version":{"uds":["22F195"]}}})";
	EXPECT_EQ(decode_reply(version, error_reply("send_dtc_response_to_bridge failed"), {}),
			"error UDS_NO_RESPONSE: send_dtc_response_to_bridge failed\n");
}

static std::string routine_reply(const std::string &service, const std::string &data, const std::string &error)
{
	return R"({"service":")" + service + R"(","requested-time":"x","responded-time":"x","response-data":")" + data +
			R"(","error":")" + error + R"("})";
}

TEST(decoded_routine_reply, has_a_line_for_each_command)
{
	const std::string request = R"({"body":{"can":{"phy-req-id":"7E0"},"routine":{"commands":[
		{"service":"10","subfn":"03"},{"service":"22","data":"F190"},{"service":"22","data":"0100"},
		{"service":"31","subfn":"01","data":"0xFF00"},{"service":"3E","subfn":"00"},{"service":"11","subfn":"01"},
		{"service":"22","data":"F18C"}]}}})";
	const std::string reply = R"({"body":{"routine-response":[)" + routine_reply("0x10", "5003003201F4", "none") + "," +
			routine_reply("0x22", "62F190574F", "none") + "," + routine_reply("0x22", "6201000BB8", "none") + "," +
			routine_reply("0x31", "7F3122", "Negative response") + "," +
			routine_reply("0x3E", "5003", "Negative response") + "," +
			routine_reply("0x11", "-", "recv_diag_command failed") + "," +
			routine_reply("0x22", "-", "Command not executed") + "]}}";

	EXPECT_EQ(decode_reply(request, reply, {}),
			"1003: 5003003201F4\n"
			"22F190: 62F190574F \"WO\"\n"
			"220100: 6201000BB8\n"
			"3101FF00: 7F3122 refused: NRC 22 conditionsNotCorrect\n"
			"3E00: 5003 Negative response\n"
			"1101: recv_diag_command failed\n"
			"22F18C: Command not executed\n");
}

TEST(decoded_routine_reply, bears_members_that_are_missing)
{
	EXPECT_EQ(decode_reply("", R"({"body":{"routine-response":[]}})", {}), "no commands\n");
	EXPECT_EQ(decode_reply("[]", R"({"body":{"routine-response":[{},1,null]}})", {}), ":  \n:  \n:  \n");
	EXPECT_EQ(
			decode_reply("{}",
					R"({"body":{"routine-response":[{"service":"0x22","response-data":"62F1","error":"none"}]}})", {}),
			"22: 62F1\n");
}

TEST(decoded_version_reply, is_the_version)
{
	EXPECT_EQ(decode_reply("", R"({"body":{"version":"1.4.12","targetAddress":"7E0"}})", {}), "version 1.4.12\n");
	EXPECT_EQ(decode_reply("", R"({"body":{"version":"","targetAddress":"7E0"}})", {}), "version: an empty text\n");
	EXPECT_EQ(decode_reply("", R"({"body":{"version":"a\u001b\n\u00e4","targetAddress":"7E0"}})", {}),
			"version a\\x1B\\x0A\xC3\xA4\n");
}

TEST(decoded_reply, of_unknown_form_is_shown_as_it_is)
{
	for (const char *reply : {"hello", "[1]", "{}", R"({"body":7})", R"({"body":{"version":7}})",
				 R"({"body":{"error":"x"}})", R"({"body":{"uds":[]}})", R"({"body":{"routine-response":{}}})"})
		EXPECT_EQ(decode_reply(one_ecu, reply, {}), std::string("a reply of unknown form: ") + reply + "\n");
}
