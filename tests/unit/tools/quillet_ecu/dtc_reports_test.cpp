// The reports of ReadDTCInformation, byte by byte, and ClearDiagnosticInformation.
#include <cctype>

#include <gmock/gmock.h>

#include "dtc_reports.h"
#include "server_fixture.h"

namespace
{

// Requests and answers as they are written in the field, "19 02 08".
bytes hex(const std::string &text)
{
	bytes read;
	std::string digits;
	for (const char digit : text)
		if (std::isxdigit(static_cast<unsigned char>(digit)) != 0)
			digits += digit;
	EXPECT_EQ(digits.size() % 2, 0u) << text;
	for (size_t at = 0; at + 1 < digits.size(); at += 2)
		read.push_back(static_cast<uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
	return read;
}

struct exchange {
	const char *what;
	const char *request;
	const char *answer;
};

class dtc_reports : public server_fixture
{
protected:
	// The warning indicator bit (80) is set in a code, but is not available.
	void SetUp() override
	{
		describe(R"("sessions": [{"id": "03"}], "fault_memory": {
			"status_availability": "7F",
			"dtcs": [
				{"id": "111111", "status": "09", "severity": "40", "functional_unit": "10", "permanent": true,
					"fault_detection_counter": "7F",
					"snapshots": [
						{"record": "01", "data": [{"id": "0100", "value": "AABB"}, {"id": "0101", "text": "x"}]},
						{"record": "02", "data": [{"id": "0100", "value": "0001"}]},
						{"record": "03"}],
					"stored_data": [{"record": "01", "data": [{"id": "0100", "value": "55"}]}],
					"extended_data": [
						{"record": "01", "value": "05"}, {"record": "90", "value": "0028"}, {"record": "02"}]},
				{"id": "222222", "status": "AC", "severity": "80", "functional_unit": "11", "emission": true,
					"fault_detection_counter": "7F",
					"snapshots": [{"record": "01", "data": [{"id": "0100", "value": "7F"}]}],
					"stored_data": [{"record": "02", "data": [{"id": "0101", "value": "66"}]}, {"record": "03"}],
					"extended_data": [{"record": "01", "value": "02"}]},
				{"id": "333333", "status": "24", "severity": "20", "functional_unit": "12", "emission": true,
					"fault_detection_counter": "32"},
				{"id": "444444", "status": "50", "severity": "20", "fault_detection_counter": "FF"}],
			"mirror_memory": [
				{"id": "111111", "status": "28", "extended_data": [{"record": "01", "value": "09"}]},
				{"id": "555555", "status": "20"}],
			"user_memories": [
				{"selection": "18", "dtcs": [{"id": "111111", "status": "08"}, {"id": "666666", "status": "04"}]},
				{"selection": "19"}]})");
	}

	void run(const std::vector<exchange> &rows)
	{
		for (const exchange &row : rows) {
			SCOPED_TRACE(row.what);
			EXPECT_EQ(ask(hex(row.request)), hex(row.answer));
		}
	}

	void describe_empty_memory()
	{
		describe(R"("fault_memory": {"user_memories": [{"selection": "18"}]})");
	}
};

// One answer with content for every report, in the order of their numbers.
const exchange each_report[] = {
		{"number by status mask", "19 01 08", "59 01 7F 01 0002"},
		{"by status mask", "19 02 08", "59 02 7F 111111 09 222222 2C"},
		{"snapshot identification", "19 03", "59 03 111111 01 111111 02 222222 01"},
		{"snapshot record by number", "19 04 111111 01", "59 04 111111 09 01 02 0100 AABB 0101 78"},
		{"stored data by record number", "19 05 02", "59 05 02 222222 2C 01 0101 66"},
		{"extended data by number", "19 06 111111 01", "59 06 111111 09 01 05"},
		{"number by severity mask", "19 07 C0 08", "59 07 7F 01 0002"},
		{"by severity mask", "19 08 20 04", "59 08 7F 20 12 333333 24"},
		{"severity of one code", "19 09 222222", "59 09 7F 80 11 222222 2C"},
		{"supported codes", "19 0A", "59 0A 7F 111111 09 222222 2C 333333 24 444444 50"},
		{"first test failed", "19 0B", "59 0B 7F 111111 09"},
		{"first confirmed", "19 0C", "59 0C 7F 111111 09"},
		{"most recent test failed", "19 0D", "59 0D 7F 333333 24"},
		{"most recent confirmed", "19 0E", "59 0E 7F 222222 2C"},
		{"mirror memory by status mask", "19 0F 28", "59 0F 7F 111111 28 555555 20"},
		{"mirror memory's extended data", "19 10 111111 01", "59 10 111111 28 01 09"},
		{"number in the mirror memory", "19 11 08", "59 11 7F 01 0001"},
		{"number of emission codes", "19 12 08", "59 12 7F 01 0001"},
		{"emission codes", "19 13 0C", "59 13 7F 222222 2C 333333 24"},
		{"fault detection counters", "19 14", "59 14 333333 32"},
		{"permanent codes", "19 15", "59 15 7F 111111 09"},
		{"extended data by record number", "19 16 01", "59 16 01 111111 09 05 222222 2C 02"},
		{"user memory by status mask", "19 17 04 18", "59 17 18 7F 666666 04"},
};
static_assert(std::size(each_report) == 23);

TEST_F(dtc_reports, are_answered_in_the_format_of_each)
{
	run({std::begin(each_report), std::end(each_report)});
}

TEST_F(dtc_reports, are_answered_when_addressed_functionally)
{
	for (const exchange &row : each_report) {
		SCOPED_TRACE(row.what);
		EXPECT_EQ(ask(hex(row.request), UDS_FUNCTIONAL), hex(row.answer));
	}
}

TEST_F(dtc_reports, are_refused_when_a_byte_is_missing_or_left_over)
{
	for (const exchange &row : each_report) {
		SCOPED_TRACE(row.what);
		bytes request = hex(row.request);
		request.push_back(0x00);
		EXPECT_EQ(ask(request), hex("7F 19 13"));
		request.resize(request.size() - 2);
		EXPECT_EQ(ask(request), hex("7F 19 13"));
	}
}

TEST_F(dtc_reports, are_empty_when_there_is_nothing_to_tell)
{
	run({{"number by status mask", "19 01 00", "59 01 7F 01 0000"},
			{"by status mask", "19 02 40 ", "59 02 7F 444444 50"},
			{"by an unavailable status bit", "19 02 80", "59 02 7F"}, {"no status bit", "19 02 00", "59 02 7F"},
			{"no snapshot of a code", "19 04 444444 FF", "59 04 444444 50"},
			{"a snapshot record that is empty", "19 04 111111 03", "59 04 111111 09"},
			{"a stored data record that is empty", "19 05 03", "59 05 03"},
			{"no extended data of a code", "19 06 444444 FF", "59 06 444444 50"},
			{"no emission data of a code", "19 06 222222 FE", "59 06 222222 2C"},
			{"an extended data record that is empty", "19 06 111111 02", "59 06 111111 09"},
			{"number by a severity", "19 07 1F FF", "59 07 7F 01 0000"},
			{"a severity without the status", "19 08 80 10", "59 08 7F"}, {"mirror memory", "19 0F 01", "59 0F 7F"},
			{"no extended data in the mirror memory", "19 10 555555 FF", "59 10 555555 20"},
			{"number in the mirror memory", "19 11 01", "59 11 7F 01 0000"},
			{"number of emission codes", "19 12 01", "59 12 7F 01 0000"}, {"emission codes", "19 13 01", "59 13 7F"},
			{"extended data by a record that is empty", "19 16 02", "59 16 02"},
			{"user memory without a match", "19 17 01 18", "59 17 18 7F"},
			{"user memory without codes", "19 17 FF 19", "59 17 19 7F"}});
}

TEST_F(dtc_reports, are_empty_for_an_empty_memory)
{
	describe_empty_memory();
	run({{"number by status mask", "19 01 FF", "59 01 FF 01 0000"}, {"by status mask", "19 02 FF", "59 02 FF"},
			{"snapshot identification", "19 03", "59 03"}, {"all stored data", "19 05 FF", "59 05 FF"},
			{"number by severity", "19 07 FF FF", "59 07 FF 01 0000"}, {"by severity", "19 08 FF FF", "59 08 FF"},
			{"supported", "19 0A", "59 0A FF"}, {"first test failed", "19 0B", "59 0B FF"},
			{"first confirmed", "19 0C", "59 0C FF"}, {"most recent test failed", "19 0D", "59 0D FF"},
			{"most recent confirmed", "19 0E", "59 0E FF"}, {"mirror memory", "19 0F FF", "59 0F FF"},
			{"number in the mirror memory", "19 11 FF", "59 11 FF 01 0000"},
			{"number of emission codes", "19 12 FF", "59 12 FF 01 0000"}, {"emission codes", "19 13 FF", "59 13 FF"},
			{"fault detection counters", "19 14", "59 14"}, {"permanent codes", "19 15", "59 15 FF"},
			{"user memory", "19 17 FF 18", "59 17 18 FF"}});
}

TEST_F(dtc_reports, tell_all_records_at_once)
{
	run({{"snapshots", "19 04 111111 FF", "59 04 111111 09 01 02 0100 AABB 0101 78 02 01 0100 0001"},
			{"stored data", "19 05 FF", "59 05 01 111111 09 01 0100 55 02 222222 2C 01 0101 66"},
			{"extended data", "19 06 111111 FF", "59 06 111111 09 01 05 90 0028"},
			{"emission-related extended data", "19 06 111111 FE", "59 06 111111 09 90 0028"},
			{"extended data in the mirror memory", "19 10 111111 FF", "59 10 111111 28 01 09"}});
}

TEST_F(dtc_reports, are_refused_for_what_does_not_exist)
{
	run({{"snapshots of an unknown code", "19 04 123456 FF", "7F 19 31"},
			{"an unknown snapshot record", "19 04 111111 04", "7F 19 31"},
			{"another code's snapshot record", "19 04 222222 02", "7F 19 31"},
			{"an unknown stored data record", "19 05 04", "7F 19 31"},
			{"extended data of an unknown code", "19 06 123456 FF", "7F 19 31"},
			{"an unknown extended data record", "19 06 111111 03", "7F 19 31"},
			{"the severity of an unknown code", "19 09 123456", "7F 19 31"},
			{"a code that is not in the mirror memory", "19 10 222222 01", "7F 19 31"},
			{"an unknown record of the mirror memory", "19 10 111111 02", "7F 19 31"},
			{"a record that no code has", "19 16 03", "7F 19 31"}, {"all records by number", "19 16 FF", "7F 19 31"},
			{"an unknown user memory", "19 17 FF 20", "7F 19 31"}});
}

TEST_F(dtc_reports, beyond_the_last_are_not_supported)
{
	run({{"none", "19", "7F 19 13"}, {"00", "19 00", "7F 19 12"},
			{"a user memory's snapshots", "19 18 111111 01 18", "7F 19 12"}, {"the last number", "19 7F", "7F 19 12"}});
	EXPECT_FALSE(dtc_report_exists(0x00));
	EXPECT_TRUE(dtc_report_exists(0x01));
	EXPECT_TRUE(dtc_report_exists(0x17));
	EXPECT_FALSE(dtc_report_exists(0x18));
}

TEST_F(dtc_reports, are_offered_as_the_description_says)
{
	describe(R"("fault_memory": {"reports": ["02", "0A"]})");
	run({{"offered", "19 02 FF", "59 02 FF"}, {"offered too", "19 0A", "59 0A FF"},
			{"not offered", "19 01 FF", "7F 19 12"}, {"not offered, nor long enough", "19 01", "7F 19 12"}});
}

TEST_F(dtc_reports, tell_the_format_of_the_codes)
{
	describe(R"("fault_memory": {"format": "04"})");
	run({{"number", "19 01 FF", "59 01 FF 04 0000"}});
}

TEST_F(dtc_reports, count_beyond_one_byte)
{
	std::string dtcs;
	for (int number = 0; number < 300; number++)
		dtcs += (number == 0 ? "" : ",") + std::string(R"({"status": "01", "id": ")") +
				std::to_string(100000 + number) + R"("})";
	describe(R"("fault_memory": {"dtcs": [)" + dtcs + "]}");
	run({{"number", "19 01 01", "59 01 FF 01 012C"}});
	EXPECT_EQ(ask(hex("19 0A")).size(), 3u + 300u * 4u);
}

TEST_F(dtc_reports, are_refused_when_longer_than_the_transport_carries)
{
	const std::string value(2 * 4100, '0');
	const std::string record = R"({"record": "0)";
	describe(R"("fault_memory": {"dtcs": [{"id": "111111", "status": "01", "extended_data": [)" + record +
			R"(1", "value": ")" + value + R"("}, )" + record + R"(2", "value": ")" + value + R"("}]}]})");
	EXPECT_EQ(ask(hex("19 06 111111 01")).size(), 6u + 1u + 4100u);
	EXPECT_EQ(ask(hex("19 06 111111 FF")), hex("7F 19 14"));
}

TEST_F(dtc_reports, keep_what_others_will_answer_to_themselves_when_addressed_functionally)
{
	const struct {
		const char *what;
		const char *request;
		const char *answer;
	} rows[] = {
			{"not supported", "19 18", ""},
			{"unknown code", "19 04 123456 FF", ""},
			{"unknown group to clear", "14 123456", ""},
			{"wrong length", "19 02", "7F 19 13"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		EXPECT_EQ(ask(hex(row.request), UDS_FUNCTIONAL), hex(row.answer));
	}
}

TEST_F(dtc_reports, are_not_sent_when_they_are_to_be_suppressed)
{
	run({{"suppressed", "19 82 08", ""}, {"suppressed, but refused", "19 84 123456 01", "7F 19 31"}});
}

TEST_F(dtc_reports, need_a_fault_memory)
{
	describe(R"("resets": ["01"])");
	run({{"read", "19 0A", "7F 19 11"}, {"clear", "14 FFFFFF", "7F 14 11"}});
}

TEST_F(dtc_reports, are_restricted_like_any_service)
{
	describe(R"("sessions": [{"id": "03"}], "fault_memory": {},
		"services": [{"service": "19", "sessions": ["03"]}, {"service": "14", "sessions": ["03"]}])");
	run({{"read", "19 0A", "7F 19 7F"}, {"clear", "14 FFFFFF", "7F 14 7F"},
			{"enter the session", "10 03", "50 03 0032 01F4"}, {"read there", "19 0A", "59 0A FF"},
			{"clear there", "14 FFFFFF", "54"}});
}

TEST_F(dtc_reports, can_be_refused_and_silenced_one_by_one)
{
	describe(R"("fault_memory": {}, "overrides": [
		{"request": "190280", "whole": true, "negative": "22"}, {"request": "1901", "silent": true}])");
	EXPECT_EQ(ask(hex("19 02 80"), UDS_FUNCTIONAL), hex("7F 19 22"));
	run({{"another mask", "19 02 08", "59 02 FF"}, {"silent", "19 01 08", ""}});
}

TEST_F(dtc_reports, tell_nothing_more_after_everything_was_cleared)
{
	run({{"clear", "14 FFFFFF", "54"}, {"status", "19 02 FF", "59 02 7F 111111 50 222222 50 333333 50 444444 50"},
			{"snapshot identification", "19 03", "59 03"}, {"snapshots", "19 04 111111 01", "59 04 111111 50"},
			{"stored data", "19 05 01", "59 05 01"}, {"extended data", "19 06 111111 FF", "59 06 111111 50"},
			{"severity stays", "19 09 222222", "59 09 7F 80 11 222222 50"}, {"first test failed", "19 0B", "59 0B 7F"},
			{"most recent confirmed", "19 0E", "59 0E 7F"}, {"counters", "19 14", "59 14"},
			{"extended data by record", "19 16 01", "59 16 01"}});
}

TEST_F(dtc_reports, of_other_memories_stay_when_everything_was_cleared)
{
	run({{"clear", "14 FFFFFF", "54"}, {"mirror memory", "19 0F 28", "59 0F 7F 111111 28 555555 20"},
			{"its extended data", "19 10 111111 01", "59 10 111111 28 01 09"},
			{"permanent codes", "19 15", "59 15 7F 111111 50"},
			{"user memory", "19 17 0C 18", "59 17 18 7F 111111 08 666666 04"}});
}

TEST_F(dtc_reports, of_other_codes_stay_when_one_was_cleared)
{
	run({{"clear", "14 111111", "54"}, {"status", "19 02 09", "59 02 7F 222222 2C"},
			{"snapshot identification", "19 03", "59 03 222222 01"},
			{"first confirmed", "19 0C", "59 0C 7F 222222 2C"}});
}

TEST_F(dtc_reports, stay_cleared_over_a_reset)
{
	describe(R"("resets": ["01"], "fault_memory": {"dtcs": [{"id": "111111", "status": "09"}]})");
	run({{"clear", "14 FFFFFF", "54"}, {"reset", "11 01", "51 01"}, {"status", "19 0A", "59 0A FF 111111 50"}});
}

TEST_F(dtc_reports, stay_when_clearing_is_refused)
{
	run({{"unknown group", "14 123456", "7F 14 31"}, {"a code of the mirror memory only", "14 555555", "7F 14 31"},
			{"no group", "14", "7F 14 13"}, {"half a group", "14 FFFF", "7F 14 13"},
			{"too long", "14 FFFFFF 00", "7F 14 13"}, {"status", "19 02 08", "59 02 7F 111111 09 222222 2C"}});
}

TEST_F(dtc_reports, of_a_cleared_empty_memory_are_empty)
{
	describe_empty_memory();
	run({{"clear", "14 FFFFFF", "54"}, {"status", "19 02 FF", "59 02 FF"}});
}

} // namespace
