#include "movra_fleet/request_intake/dtc_request.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "movra_fleet/common/dtc_tables.h"
#include "support/captured_output.h"
#include "support/fail_nth.h"

namespace
{

using byte_run = std::vector<uint8_t>;
using texts = std::vector<std::string>;

struct json_deleter {
	void operator()(json_object *object) const
	{
		json_object_put(object);
	}
};
using json = std::unique_ptr<json_object, json_deleter>;

json parse(const std::string &text)
{
	json object(json_tokener_parse(text.c_str()));
	EXPECT_TRUE(object != nullptr || text == "null") << text;
	return object;
}

// A function of the module at work on a job of its own.
struct outcome {
	int result = 0;
	uint32_t subfunction = 0;
	byte_run data = {};
	uint32_t length = 0;
	texts errors = {};
	texts news = {};
	int valid = 0; // validate_dtc_request afterwards
};

template <typename F>
outcome run(const std::string &text, F function)
{
	json object = parse(text);
	diag_job job = {};
	outcome made;
	{
		captured_output output;
		made.result = function(object.get(), &job);
		made.errors = output.messages("ERR");
		made.news = output.messages("INFO");
	}
	made.subfunction = job.dtc_subfunction;
	made.length = job.dtc_data_length;
	if (job.dtc_data != nullptr)
		made.data.assign(job.dtc_data, job.dtc_data + job.dtc_data_length);
	made.valid = validate_dtc_request(&job);
	free(job.dtc_data);
	return made;
}

// parse_dtc_request on a request with this body.uds.
outcome run_uds(const std::string &uds)
{
	return run("{\"body\": {\"uds\": " + uds + "}}", parse_dtc_request);
}

outcome run_report(const std::string &name, const std::string &record)
{
	return run_uds("{\"subfunction\": \"" + name + "\", \"data-record\": " + record + "}");
}

outcome run_mask(const std::string &names)
{
	return run_report("UDS_REPORT_DTC_BY_STATUS_MASK", "{\"type\": \"STATUS_MASK\", \"record\": " + names + "}");
}

const texts found = {"Subfunction found"};

texts found_and(texts more)
{
	more.insert(more.begin(), "Subfunction found");
	return more;
}

}

TEST(parse_dtc_request, turns_names_and_records_into_request_bytes)
{
	const struct {
		const char *what;
		const char *uds;
		uint32_t subfunction;
		byte_run data;
	} rows[] = {
			{"status mask names",
					R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK", "data-record": {"type": "STATUS_MASK",
						"record": ["UDS_STATUS_MASK_TEST_FAILED", "UDS_STATUS_MASK_CONFIRMED_DTC"]}})",
					0x02, {0x09}},
			{"DTC and record",
					R"({"subfunction": "UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER",
						"data-record": {"type": "DTC_AND_RECORD", "record": "12345601"}})",
					0x04, {0x12, 0x34, 0x56, 0x01}},
			{"DTC",
					R"({"subfunction": "UDS_REPORT_SEVERITY_INFORMATION_OF_DTC",
						"data-record": {"type": "DTC", "record": "12ab5F"}})",
					0x09, {0x12, 0xAB, 0x5F}},
			{"record",
					R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK",
						"data-record": {"type": "RECORD", "record": "FF"}})",
					0x02, {0xFF}},
			{"no record needed", R"({"subfunction": "UDS_REPORT_SUPPORTED_DTCS"})", 0x0A, {}},
			{"no record needed, one given",
					R"({"subfunction": "UDS_REPORT_SUPPORTED_DTCS", "data-record": {"type": "RECORD", "record": "FF"}})",
					0x0A, {}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		outcome made = run_uds(row.uds);
		EXPECT_EQ(made.result, 0);
		EXPECT_EQ(made.subfunction, row.subfunction);
		EXPECT_EQ(made.data, row.data);
		EXPECT_EQ(made.length, row.data.size());
		EXPECT_EQ(made.errors, found);
		EXPECT_EQ(made.news, texts{});
		EXPECT_EQ(made.valid, 0);
	}
}

TEST(parse_dtc_request, logs_each_failure_and_refuses)
{
	const struct {
		const char *what;
		const char *uds;
		texts errors;
	} rows[] = {
			{"no subfunction", R"({})", {"Unable to get subfunction"}},
			{"subfunction is a number", R"({"subfunction": 2})", {"Unable to get subfunction"}},
			{"subfunction is a number in a text", R"({"subfunction": "0x02"})", {"Unable to get subfunction"}},
			{"subfunction is empty", R"({"subfunction": ""})", {"Unable to get subfunction"}},
			{"subfunction has another case", R"({"subfunction": "uds_report_supported_dtcs"})",
					{"Unable to get subfunction"}},
			{"subfunction has a blank", R"({"subfunction": " UDS_REPORT_SUPPORTED_DTCS"})",
					{"Unable to get subfunction"}},
			{"uds is a text", R"("UDS_REPORT_SUPPORTED_DTCS")", {"Unable to get subfunction"}},
			{"no record", R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK"})",
					found_and({"Unable to get data-record"})},
			{"record is a text",
					R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK", "data-record": "FF", "type": "RECORD",
						"record": "FF"})",
					found_and({"Unable to get data-record"})},
			{"record is null", R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK", "data-record": null})",
					found_and({"Unable to get data-record"})},
			{"record is an array", R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK", "data-record": []})",
					found_and({"Unable to get data-record"})},
			{"record has no type", R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK", "data-record": {}})",
					found_and({"Unable to get 'type'", "Unable to expand record"})},
			{"record has an unknown type",
					R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK", "data-record": {"type": "status_mask"}})",
					found_and({"Unable to expand record"})},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		outcome made = run_uds(row.uds);
		EXPECT_EQ(made.result, -1);
		EXPECT_EQ(made.errors, row.errors);
		EXPECT_EQ(made.data, byte_run{});
	}
}

TEST(parse_dtc_request, shows_the_request_when_a_key_is_missing)
{
	EXPECT_EQ(run_uds(R"({"subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK"})").news,
			texts{R"(No data-record property in { "body": { "uds": { "subfunction": "UDS_REPORT_DTC_BY_STATUS_MASK" } } })"});
}

TEST(parse_data_record, asks_for_the_record_its_type_needs)
{
	const struct {
		const char *record;
		texts errors;
	} rows[] = {
			{R"({})", {"Unable to get 'type'"}},
			{R"({"type": 1, "record": "FF"})", {"Unable to get 'type'"}},
			{R"({"type": "", "record": "FF"})", {}},
			{R"({"type": "MASK", "record": "FF"})", {}},
			{R"({"type": "STATUS_MASK"})", {"Unable to get 'record'"}},
			{R"({"type": "STATUS_MASK", "record": "FF"})", {"Unable to get 'record'"}},
			{R"({"type": "STATUS_MASK", "record": []})", {"Array size is zero", "Invalid mask"}},
			{R"({"type": "DTC"})", {"Unable to get 'record'"}},
			{R"({"type": "DTC", "record": ["FF"]})", {"Unable to get 'record'"}},
			{R"({"type": "RECORD", "record": 12})", {"Unable to get 'record'"}},
			{R"({"type": "DTC_AND_RECORD", "record": null})", {"Unable to get 'record'"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.record);
		outcome made = run(row.record, parse_data_record);
		EXPECT_EQ(made.result, -1);
		EXPECT_EQ(made.errors, row.errors);
		EXPECT_EQ(made.data, byte_run{});
	}
}

TEST(parse_data_record, reads_hex_text_two_digits_at_a_time)
{
	const struct {
		const char *what;
		const char *text;
		byte_run data;
	} rows[] = {
			{"nothing", "", {}},
			{"mixed case", "1a2B", {0x1A, 0x2B}},
			{"no digits", "ZZ", {0x00}},
			{"one digit, then another character", "4Z", {0x04}},
			{"a trailing digit is left out", "123", {0x12}},
			{"a digit alone is left out", "7", {}},
			{"a prefix is a pair like any other", "0x12", {0x00, 0x12}},
	};
	for (const auto &row : rows)
		for (const char *type : {"DTC", "RECORD", "DTC_AND_RECORD"}) {
			SCOPED_TRACE(testing::Message() << type << ": " << row.what);
			outcome made = run(
					std::string("{\"type\": \"") + type + "\", \"record\": \"" + row.text + "\"}", parse_data_record);
			EXPECT_EQ(made.result, 0);
			EXPECT_EQ(made.data, row.data);
			EXPECT_EQ(made.length, row.data.size());
			EXPECT_EQ(made.errors, texts{});
		}
}

TEST(parse_data_record, takes_hex_text_of_any_length)
{
	outcome made = run("{\"type\": \"RECORD\", \"record\": \"" + std::string(200'001, 'F') + "\"}", parse_data_record);
	EXPECT_EQ(made.result, 0);
	EXPECT_EQ(made.data, byte_run(100'000, 0xFF));
}

TEST(parse_dtc_request, leaves_the_length_to_the_check_before_the_request_is_sent)
{
	outcome made = run_report("UDS_REPORT_DTC_BY_STATUS_MASK", R"({"type": "RECORD", "record": "FFFF"})");
	EXPECT_EQ(made.result, 0);
	EXPECT_EQ(made.data, (byte_run{0xFF, 0xFF}));
	EXPECT_EQ(made.valid, -1);
}

TEST(parse_dtc_request, takes_names_that_are_never_sent)
{
	const struct {
		const char *name;
		uint32_t number;
	} rows[] = {
			{"UDS_REPORT_USER_DEF_MR_DTC_SNAP_REC_BY_DTC", 0x18},
			{"UDS_REPORT_USER_DEF_MR_DTC_EXT_DATA_REC_BY_DTC", 0x19},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		outcome made = run_report(row.name, R"({"type": "RECORD", "record": "1234560102"})");
		EXPECT_EQ(made.result, 0);
		EXPECT_EQ(made.subfunction, row.number);
		EXPECT_EQ(made.valid, -1);
	}
}

TEST(parse_dtc_request, puts_status_mask_names_together)
{
	const struct {
		const char *what;
		const char *names;
		uint8_t mask;
	} rows[] = {
			{"one", R"(["UDS_STATUS_MASK_PENDING_DTC"])", 0x04},
			{"all",
					R"(["UDS_STATUS_MASK_TEST_FAILED", "UDS_STATUS_MASK_TEST_FAILED_THIS_OP_CYCLE",
						"UDS_STATUS_MASK_PENDING_DTC", "UDS_STATUS_MASK_CONFIRMED_DTC",
						"UDS_STATUS_MASK_TEST_NOT_COMPLETED_SINCE_LAST_CLEAR",
						"UDS_STATUS_MASK_TEST_FAILED_SINCE_LAST_CLEAR",
						"UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE",
						"UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED"])",
					0xFF},
			{"repeated", R"(["UDS_STATUS_MASK_CONFIRMED_DTC", "UDS_STATUS_MASK_CONFIRMED_DTC"])", 0x08},
			{"unknown ones are skipped", R"(["nothing", "UDS_STATUS_MASK_TEST_FAILED", ""])", 0x01},
			{"only unknown ones", R"(["nothing", "uds_status_mask_test_failed"])", 0x00},
			{"null, numbers and objects are skipped", R"([null, 8, {}, [], "UDS_STATUS_MASK_TEST_FAILED"])", 0x01},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		outcome made = run_mask(row.names);
		EXPECT_EQ(made.result, 0);
		EXPECT_EQ(made.data, byte_run{row.mask});
		EXPECT_EQ(made.valid, 0);
		EXPECT_EQ(made.errors, found);
	}
}

TEST(parse_dtc_request, refuses_an_empty_status_mask)
{
	outcome made = run_mask("[]");
	EXPECT_EQ(made.result, -1);
	EXPECT_EQ(made.errors, found_and({"Array size is zero", "Invalid mask", "Unable to expand record"}));
}

TEST(parse_status_mask, refuses_what_is_no_array_of_names)
{
	const struct {
		const char *text;
		const char *error;
	} rows[] = {
			{"null", "mask is NULL"},
			{"{}", "mask is not an array type"},
			{"\"UDS_STATUS_MASK_TEST_FAILED\"", "mask is not an array type"},
			{"[]", "Array size is zero"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		json names = parse(row.text);
		uint32_t mask = 0xA5;
		captured_output output;
		EXPECT_EQ(parse_status_mask(names.get(), &mask), -1);
		EXPECT_EQ(mask, 0xA5u);
		EXPECT_EQ(output.messages("ERR"), texts{row.error});
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", row.error));
	}
}

TEST(parse_dtc_request, fails_cleanly_when_memory_is_short)
{
	const char *records[] = {
			R"({"type": "STATUS_MASK", "record": ["UDS_STATUS_MASK_TEST_FAILED"]})",
			R"({"type": "RECORD", "record": "01"})",
	};
	for (const char *record : records) {
		SCOPED_TRACE(record);
		fail_nth failure("calloc", 1);
		outcome made = run_report("UDS_REPORT_DTC_BY_STATUS_MASK", record);
		EXPECT_TRUE(failure.fired());
		EXPECT_EQ(made.result, -1);
		EXPECT_EQ(made.length, 0u);
		EXPECT_EQ(made.errors, found_and({"Memory Allocation failed", "Unable to expand record"}));
	}
}
