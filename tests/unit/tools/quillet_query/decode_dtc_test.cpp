#include "decode_dtc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hex_text.h"

using testing::ElementsAre;
using lines = std::vector<std::string>;

static lines decoded(const std::string &report, const std::string &data)
{
	std::vector<uint8_t> bytes;
	EXPECT_TRUE(parse_hex_bytes(data, bytes)) << data;
	const dtc_report *found = dtc_report_by_name(report);
	if (found == nullptr)
		return {"no report " + report};
	// A copy of its exact size, so that a byte read behind the answer is one outside of its memory.
	return decode_dtc_answer(*found, std::vector<uint8_t>(bytes));
}

static const char *const reports_of_a_count[] = {
		"count-by-status-mask", "count-by-severity", "mirror-count-by-status-mask", "emissions-count-by-status-mask"};
static const char *const reports_of_a_list[] = {"by-status-mask", "supported", "first-test-failed", "first-confirmed",
		"most-recent-test-failed", "most-recent-confirmed", "mirror-by-status-mask", "emissions-by-status-mask",
		"permanent"};
static const char *const reports_of_extended_data[] = {"extended-data-by-dtc", "mirror-extended-data-by-dtc"};
static const char *const reports_of_severities[] = {"by-severity", "severity-of-dtc"};

TEST(decoded_count, tells_number_mask_and_format)
{
	for (const char *report : reports_of_a_count) {
		SCOPED_TRACE(report);
		EXPECT_THAT(decoded(report, "2F010102"),
				ElementsAre("258 DTCs; supported status bits 2F; format of DTCs: ISO 14229-1"));
		EXPECT_THAT(decoded(report, "FF000001"),
				ElementsAre("1 DTC; supported status bits FF; format of DTCs: SAE J2012-DA, format 00"));
	}
}

TEST(decoded_count, tells_what_is_missing_or_left_over)
{
	for (const char *report : reports_of_a_count) {
		SCOPED_TRACE(report);
		EXPECT_THAT(decoded(report, ""), ElementsAre("the answer is cut short: no data"));
		EXPECT_THAT(decoded(report, "2F0101"), ElementsAre("the answer is cut short: 2F0101"));
		EXPECT_EQ(decoded(report, "2F010000AB").back(), "left over, not a whole entry: AB");
	}
}

TEST(decoded_list, has_each_dtc_with_its_status)
{
	for (const char *report : reports_of_a_list) {
		SCOPED_TRACE(report);
		EXPECT_THAT(decoded(report, "FF01234509C1008780"),
				ElementsAre("2 DTCs; supported status bits FF", "P0123-45 (012345) status 09: test-failed, confirmed",
						"U0100-87 (C10087) status 80: warning-indicator"));
		EXPECT_THAT(decoded(report, "7F9A2B3C00"),
				ElementsAre("1 DTC; supported status bits 7F", "B1A2B-3C (9A2B3C) status 00: none"));
	}
}

TEST(decoded_list, may_be_empty)
{
	for (const char *report : reports_of_a_list)
		EXPECT_THAT(decoded(report, "FF"), ElementsAre("0 DTCs; supported status bits FF")) << report;
}

TEST(decoded_list, tells_what_is_missing_or_left_over)
{
	for (const char *report : reports_of_a_list) {
		SCOPED_TRACE(report);
		EXPECT_THAT(decoded(report, ""), ElementsAre("the answer is cut short: no data"));
		EXPECT_THAT(decoded(report, "FF012345"),
				ElementsAre("0 DTCs; supported status bits FF", "left over, not a whole entry: 012345"));
		EXPECT_THAT(decoded(report, "FF01234509C1"),
				ElementsAre("1 DTC; supported status bits FF", "P0123-45 (012345) status 09: test-failed, confirmed",
						"left over, not a whole entry: C1"));
	}
}

TEST(decoded_list, holds_as_many_dtcs_as_an_answer_can)
{
	std::string data = "FF";
	for (unsigned count = 0; count < 2047; count++)
		data += "01234508";
	const lines out = decoded("by-status-mask", data);
	ASSERT_EQ(out.size(), 2048u);
	EXPECT_EQ(out[0], "2047 DTCs; supported status bits FF");
	EXPECT_EQ(out[2047], "P0123-45 (012345) status 08: confirmed");
}

TEST(decoded_memory_list, tells_the_memory_too)
{
	EXPECT_THAT(decoded("memory-by-status-mask", "02FF01234508"),
			ElementsAre("memory 02; 1 DTC; supported status bits FF", "P0123-45 (012345) status 08: confirmed"));
	EXPECT_THAT(decoded("memory-by-status-mask", "02FF"), ElementsAre("memory 02; 0 DTCs; supported status bits FF"));
	EXPECT_THAT(decoded("memory-by-status-mask", "02"), ElementsAre("the answer is cut short: 02"));
	EXPECT_THAT(decoded("memory-by-status-mask", ""), ElementsAre("the answer is cut short: no data"));
	EXPECT_EQ(decoded("memory-by-status-mask", "02FF0123").back(), "left over, not a whole entry: 0123");
}

TEST(decoded_snapshot_list, has_each_dtc_with_a_record_number)
{
	EXPECT_THAT(decoded("snapshot-list", "0123450101234502C10087FE"),
			ElementsAre("3 snapshot records", "P0123-45 (012345) snapshot record 01",
					"P0123-45 (012345) snapshot record 02", "U0100-87 (C10087) snapshot record FE"));
	EXPECT_THAT(decoded("snapshot-list", ""), ElementsAre("0 snapshot records"));
	EXPECT_THAT(decoded("snapshot-list", "012345010123"),
			ElementsAre(
					"1 snapshot record", "P0123-45 (012345) snapshot record 01", "left over, not a whole entry: 0123"));
}

TEST(decoded_snapshot, has_dtc_status_and_data)
{
	EXPECT_THAT(decoded("snapshot-by-dtc", "01234509010201000BB8F190AA"),
			ElementsAre("P0123-45 (012345) status 09: test-failed, confirmed",
					"snapshot record 01, 2 identifiers: 01000BB8F190AA"));
	EXPECT_THAT(decoded("snapshot-by-dtc", "012345090101"),
			ElementsAre("P0123-45 (012345) status 09: test-failed, confirmed",
					"snapshot record 01, 1 identifier: no data"));
	EXPECT_THAT(decoded("snapshot-by-dtc", "01234508"),
			ElementsAre("P0123-45 (012345) status 08: confirmed", "no snapshot data"));
	EXPECT_THAT(decoded("snapshot-by-dtc", "0123450801"),
			ElementsAre("P0123-45 (012345) status 08: confirmed", "snapshot record 01: cut short"));
	EXPECT_THAT(decoded("snapshot-by-dtc", "012345"), ElementsAre("the answer is cut short: 012345"));
	EXPECT_THAT(decoded("snapshot-by-dtc", ""), ElementsAre("the answer is cut short: no data"));
}

TEST(decoded_stored_data, has_record_dtc_status_and_data)
{
	EXPECT_THAT(decoded("stored-data-by-record", "0101234508010100AB"),
			ElementsAre("stored data record 01", "P0123-45 (012345) status 08: confirmed",
					"stored data, 1 identifier: 0100AB"));
	EXPECT_THAT(decoded("stored-data-by-record", "01"), ElementsAre("stored data record 01: no data"));
	EXPECT_THAT(decoded("stored-data-by-record", "01012345"),
			ElementsAre("stored data record 01", "left over, not a whole entry: 012345"));
	EXPECT_THAT(decoded("stored-data-by-record", "0101234508"),
			ElementsAre("stored data record 01", "P0123-45 (012345) status 08: confirmed", "stored data: cut short"));
	EXPECT_THAT(decoded("stored-data-by-record", ""), ElementsAre("the answer is cut short: no data"));
}

TEST(decoded_extended_data, has_dtc_status_and_data)
{
	for (const char *report : reports_of_extended_data) {
		SCOPED_TRACE(report);
		EXPECT_THAT(decoded(report, "0123450890A1B2"),
				ElementsAre("P0123-45 (012345) status 08: confirmed", "extended data record 90: A1B2"));
		EXPECT_THAT(decoded(report, "0123450890"),
				ElementsAre("P0123-45 (012345) status 08: confirmed", "extended data record 90: no data"));
		EXPECT_THAT(
				decoded(report, "01234508"), ElementsAre("P0123-45 (012345) status 08: confirmed", "no extended data"));
		EXPECT_THAT(decoded(report, "0123"), ElementsAre("the answer is cut short: 0123"));
		EXPECT_THAT(decoded(report, ""), ElementsAre("the answer is cut short: no data"));
	}
}

TEST(decoded_extended_record, has_record_dtc_status_and_data)
{
	EXPECT_THAT(decoded("extended-data-by-record", "9001234508A1B2"),
			ElementsAre("extended data record 90", "P0123-45 (012345) status 08: confirmed",
					"its data, and DTCs that may follow: A1B2"));
	EXPECT_THAT(decoded("extended-data-by-record", "9001234508"),
			ElementsAre("extended data record 90", "P0123-45 (012345) status 08: confirmed", "no extended data"));
	EXPECT_THAT(decoded("extended-data-by-record", "90"), ElementsAre("extended data record 90: no DTC"));
	EXPECT_THAT(decoded("extended-data-by-record", "900123"),
			ElementsAre("extended data record 90", "left over, not a whole entry: 0123"));
	EXPECT_THAT(decoded("extended-data-by-record", ""), ElementsAre("the answer is cut short: no data"));
}

TEST(decoded_severities, have_the_functional_unit_and_the_status)
{
	for (const char *report : reports_of_severities) {
		SCOPED_TRACE(report);
		EXPECT_THAT(decoded(report, "FFA21001234508"),
				ElementsAre("1 DTC; supported status bits FF",
						"P0123-45 (012345) severity A2: class-1, maintenance-only, check-immediately; functional "
						"unit 10; status 08: confirmed"));
		EXPECT_THAT(decoded(report, "FF"), ElementsAre("0 DTCs; supported status bits FF"));
		EXPECT_THAT(decoded(report, "FFA210012345"),
				ElementsAre("0 DTCs; supported status bits FF", "left over, not a whole entry: A210012345"));
		EXPECT_THAT(decoded(report, ""), ElementsAre("the answer is cut short: no data"));
	}
}

TEST(decoded_fault_counters, are_numbers_with_a_sign)
{
	EXPECT_THAT(decoded("fault-detection-counters", "0123457FC1008780012346FF01234700"),
			ElementsAre("4 DTCs", "P0123-45 (012345) fault detection counter 127",
					"U0100-87 (C10087) fault detection counter -128", "P0123-46 (012346) fault detection counter -1",
					"P0123-47 (012347) fault detection counter 0"));
	EXPECT_THAT(decoded("fault-detection-counters", ""), ElementsAre("0 DTCs"));
	EXPECT_THAT(decoded("fault-detection-counters", "012345"),
			ElementsAre("0 DTCs", "left over, not a whole entry: 012345"));
}

// Under a sanitizer this reads nothing outside of the answer, wherever it ends.
TEST(decoded_answer, of_any_length_is_told_in_lines)
{
	for (const std::string &part : split(dtc_report_names(), ',')) {
		const std::string name = part.substr(part.find_first_not_of(' '));
		for (size_t length = 0; length < 40; length++) {
			SCOPED_TRACE(name + " " + std::to_string(length));
			const lines out = decoded(name, std::string(2 * length, '5'));
			ASSERT_FALSE(out.empty());
			EXPECT_FALSE(out[0].empty());
		}
	}
}
