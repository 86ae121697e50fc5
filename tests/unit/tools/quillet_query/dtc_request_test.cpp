#include "dtc_request.h"

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bench_file.h"

using testing::HasSubstr;

static dtc_options engine(const std::string &report)
{
	dtc_options options;
	options.transport.ecu = "7E0:7E8";
	options.transport.interface_name = "can0";
	options.report = report;
	return options;
}

static std::string built(const dtc_options &options)
{
	std::string request;
	ecu_names names;
	std::string error;
	return build_dtc_request(options, "req-1", request, names, error) ? request : "refused: " + error;
}

static std::string refusal(const dtc_options &options)
{
	std::string request = "untouched";
	ecu_names names;
	std::string error;
	EXPECT_FALSE(build_dtc_request(options, "req-1", request, names, error));
	EXPECT_EQ(request, "untouched");
	return error;
}

TEST(dtc_request, has_the_form_that_agents_read)
{
	dtc_options options = engine("by-status-mask");
	options.status_mask = "test-failed,confirmed";

	EXPECT_EQ(built(options),
			R"({"reply-id":"req-1","type":"movra.quillet-query","body":{"targetAddress":"7E0","mode":"CAN",)"
			R"("can":{"ifname":"can0","phy-req-id":"7E0","phy-resp-id":"7E8","st-min":"0","bsize":"8"},)"
			R"("uds":{"SID":"19","subfunction":"UDS_REPORT_DTC_BY_STATUS_MASK","data-record":{"type":"STATUS_MASK",)"
			R"("record":["UDS_STATUS_MASK_TEST_FAILED","UDS_STATUS_MASK_CONFIRMED_DTC"]}}}})");
}

// Every argument is given the same value in each row; a report takes those that it needs.
TEST(dtc_request, carries_the_data_that_each_report_needs)
{
	const std::string mask = R"("data-record":{"type":"STATUS_MASK","record":["UDS_STATUS_MASK_CONFIRMED_DTC"]})";
	const std::string both = R"("data-record":{"type":"RECORD","record":"A008"})";
	const std::string dtc_and_record = R"("data-record":{"type":"DTC_AND_RECORD","record":"01234502"})";
	const std::string record = R"("data-record":{"type":"RECORD","record":"02"})";
	const struct {
		const char *report;
		const char *options; // s status mask, v severity, d DTC, r record, m memory
		std::string uds;
	} rows[] = {
			{"count-by-status-mask", "s", R"("UDS_REPORT_NO_DTC_BY_STATUS_MASK",)" + mask},
			{"by-status-mask", "s", R"("UDS_REPORT_DTC_BY_STATUS_MASK",)" + mask},
			{"snapshot-list", "", R"("UDS_REPORT_DTC_SNAPSHOT_IDENTIFICATION")"},
			{"snapshot-by-dtc", "dr", R"("UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER",)" + dtc_and_record},
			{"stored-data-by-record", "r", R"("UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER",)" + record},
			{"extended-data-by-dtc", "dr", R"("UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER",)" + dtc_and_record},
			{"count-by-severity", "sv", R"("UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD",)" + both},
			{"by-severity", "sv", R"("UDS_REPORT_DTC_BY_SEVERITY_MASK_RECORD",)" + both},
			{"severity-of-dtc", "d",
					R"("UDS_REPORT_SEVERITY_INFORMATION_OF_DTC","data-record":{"type":"DTC","record":"012345"})"},
			{"supported", "", R"("UDS_REPORT_SUPPORTED_DTCS")"},
			{"first-test-failed", "", R"("UDS_REPORT_FIRST_TEST_FAILED_DTC")"},
			{"first-confirmed", "", R"("UDS_REPORT_FIRST_CONFIRMED_DTC")"},
			{"most-recent-test-failed", "", R"("UDS_REPORT_MOST_RECENT_TEST_FAILED_DTC")"},
			{"most-recent-confirmed", "", R"("UDS_REPORT_MOST_RECENT_CONFIRMED_DTC")"},
			{"mirror-by-status-mask", "s", R"("UDS_REPORT_MIRROR_MR_DTC_BY_STATUS_MASK",)" + mask},
			{"mirror-extended-data-by-dtc", "dr",
					R"("UDS_REPORT_MIRROR_MR_DTC_EXT_DATA_RECORD_BY_DTC",)" + dtc_and_record},
			{"mirror-count-by-status-mask", "s", R"("UDS_REPORT_NO_MIRROR_MR_DTC_BY_STATUS_MASK",)" + mask},
			{"emissions-count-by-status-mask", "s", R"("UDS_REPORT_NO_EMISSION_OBD_DTC_BY_STATUS_MASK",)" + mask},
			{"emissions-by-status-mask", "s", R"("UDS_REPORT_EMISSION_OBD_DTC_BY_STATUS_MASK",)" + mask},
			{"fault-detection-counters", "", R"("UDS_REPORT_DTC_FAULT_DETECTION_COUNTER")"},
			{"permanent", "", R"("UDS_REPORT_DTC_WITH_PERMANENT_STATUS")"},
			{"extended-data-by-record", "r", R"("UDS_REPORT_DTC_EXT_DATA_RECORD_BY_RECORD_NUMBER",)" + record},
			{"memory-by-status-mask", "sm",
					R"("UDS_REPORT_USER_DEF_MR_DTC_BY_STATUS_MASK","data-record":{"type":"RECORD","record":"0801"})"},
	};
	static_assert(sizeof(rows) / sizeof(rows[0]) == 23);
	const struct {
		char letter;
		std::string dtc_options::*field;
		const char *value;
	} arguments[] = {
			{'s', &dtc_options::status_mask, "confirmed"},
			{'v', &dtc_options::severity, "maintenance-only,check-immediately"},
			{'d', &dtc_options::dtc, "P0123-45"},
			{'r', &dtc_options::record, "2"},
			{'m', &dtc_options::memory, "0x01"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.report);
		dtc_options options = engine(row.report);
		for (const auto &argument : arguments) {
			if (strchr(row.options, argument.letter) != nullptr)
				options.*argument.field = argument.value;
		}
		EXPECT_THAT(built(options), HasSubstr(R"("uds":{"SID":"19","subfunction":)" + row.uds + "}}}"));

		for (const auto &argument : arguments) {
			SCOPED_TRACE(argument.letter);
			dtc_options changed = options;
			const bool needed = strchr(row.options, argument.letter) != nullptr;
			changed.*argument.field = needed ? "" : argument.value;
			EXPECT_THAT(refusal(changed),
					HasSubstr(std::string(row.report) + (needed ? " needs --" : " does not take --")));
		}
	}
}

TEST(dtc_request, carries_a_mask_without_bits_as_a_byte)
{
	dtc_options options = engine("count-by-status-mask");
	options.status_mask = "00";

	EXPECT_THAT(built(options), HasSubstr(R"("data-record":{"type":"RECORD","record":"00"})"));
}

TEST(dtc_request, asks_for_every_record)
{
	dtc_options options = engine("snapshot-by-dtc");
	options.dtc = "C10087";
	options.record = "all";

	EXPECT_THAT(built(options), HasSubstr(R"("record":"C10087FF")"));
}

TEST(dtc_request, asks_all_ecus_of_a_bench)
{
	bench_file bench(R"({"bus": "vcan1", "functional_ids": ["7DF"], "ecus": [
		{"name": "engine", "request_id": "7e0", "response_id": "7E8"},
		{"name": "body", "request_id": "18DA10F1", "response_id": "18DAF110", "functional_ids": ["18DB33F1", "7DF"]}]})");
	dtc_options options;
	options.transport.bench = bench.path;
	options.report = "supported";
	std::string request;
	ecu_names names;
	std::string error;

	ASSERT_TRUE(build_dtc_request(options, "req-1", request, names, error)) << error;

	EXPECT_EQ(request,
			R"({"reply-id":"req-1","type":"movra.quillet-query","body":{"targetAddress":"-1","mode":"CAN","can":[)"
			R"({"ifname":"vcan1","phy-req-id":"7E0","phy-resp-id":"7E8","st-min":"0","bsize":"8","func-addr":"7DF"},)"
			R"({"ifname":"vcan1","phy-req-id":"18DA10F1","phy-resp-id":"18DAF110","st-min":"0","bsize":"8",)"
			R"("func-addr":"18DB33F1"}],"uds":{"SID":"19","subfunction":"UDS_REPORT_SUPPORTED_DTCS"}}})");
	EXPECT_EQ(names, (ecu_names{{"7E0", "engine"}, {"18DA10F1", "body"}}));
}

TEST(dtc_request, takes_another_interface_than_the_bench_names)
{
	bench_file bench(R"({"functional_ids": ["7DF"], "ecus": [
		{"name": "engine", "request_id": "7E0", "response_id": "7E8"}]})");
	dtc_options options;
	options.transport.bench = bench.path;
	options.transport.interface_name = "can7";
	options.report = "supported";

	EXPECT_THAT(built(options), HasSubstr(R"("ifname":"can7")"));
}

TEST(dtc_request, is_refused_when_the_bench_cannot_be_asked)
{
	bench_file without_functional(R"({"ecus": [{"name": "engine", "request_id": "7E0", "response_id": "7E8"}]})");
	bench_file wrong(R"({"ecus": [{"name": "engine", "request_id": "7G0", "response_id": "7E8"}]})");
	dtc_options options;
	options.report = "supported";

	options.transport.bench = without_functional.path;
	EXPECT_THAT(refusal(options), HasSubstr("engine has no functional identifier"));
	options.transport.bench = wrong.path;
	EXPECT_THAT(refusal(options), HasSubstr("$.ecus[0].request_id"));
	options.transport.bench = "/nowhere/bench.json";
	EXPECT_THAT(refusal(options), HasSubstr("/nowhere/bench.json"));
}

TEST(dtc_request, is_refused_for_a_bench_of_more_ecus_than_agents_take)
{
	for (unsigned count : {256u, 257u}) {
		SCOPED_TRACE(count);
		std::string list;
		for (unsigned index = 0; index < count; index++)
			list += (index == 0 ? "" : ",") + std::string("{\"name\":\"e") + std::to_string(index) +
					"\",\"request_id\":\"" + std::to_string(18000000 + index) + "\",\"response_id\":\"" +
					std::to_string(18100000 + index) + "\"}";
		bench_file bench("{\"functional_ids\":[\"7DF\"],\"ecus\":[" + list + "]}");
		dtc_options options;
		options.transport.bench = bench.path;
		options.report = "supported";
		if (count == 256)
			EXPECT_THAT(built(options), HasSubstr("\"phy-req-id\":\"18000255\""));
		else
			EXPECT_THAT(refusal(options), HasSubstr("a request can name 256 ECUs, it has 257"));
	}
}

TEST(dtc_request, is_refused_when_an_argument_makes_no_sense)
{
	const struct {
		void (*change)(dtc_options &);
		const char *says;
	} rows[] = {
			{[](dtc_options &options) { options.report = "everything"; }, "no report \"everything\"; the reports are "},
			{[](dtc_options &options) { options.dtc = "P01"; }, "--dtc \"P01\" is no DTC"},
			{[](dtc_options &options) { options.record = "100"; }, "--record \"100\" is neither"},
			{[](dtc_options &options) { options.record = "every"; }, "--record \"every\" is neither"},
			{[](dtc_options &options) { options.transport.ecu = "7E0"; }, "--ecu \"7E0\" is not"},
			{[](dtc_options &options) { options.transport.ecu = ""; }, "give either --ecu"},
			{[](dtc_options &options) { options.transport.bench = "b.json"; }, "give either --ecu"},
			{[](dtc_options &options) { options.transport.interface_name = ""; }, "--interface is empty"},
			{[](dtc_options &options) { options.transport.interface_name = std::string(128, 'c'); },
					"--interface has at most 127 characters"},
			{[](dtc_options &options) { options.transport.st_min = "x"; }, "--st-min"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.says);
		dtc_options options = engine("snapshot-by-dtc");
		options.dtc = "P0123-45";
		options.record = "01";
		row.change(options);
		EXPECT_THAT(refusal(options), HasSubstr(row.says));
	}
}

TEST(dtc_request, is_refused_when_a_mask_or_a_memory_makes_no_sense)
{
	dtc_options options = engine("memory-by-status-mask");
	options.status_mask = "bad";
	options.memory = "01";
	EXPECT_THAT(refusal(options), HasSubstr("--status-mask: there is no bit \"bad\""));

	options.status_mask = "FF";
	options.memory = "1x";
	EXPECT_THAT(refusal(options), HasSubstr("--memory \"1x\" is not a byte"));

	options = engine("by-severity");
	options.status_mask = "FF";
	options.severity = "severe";
	EXPECT_THAT(refusal(options), HasSubstr("--severity: there is no bit \"severe\""));
}
