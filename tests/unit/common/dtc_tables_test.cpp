#include "movra_fleet/common/dtc_tables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/captured_output.h"

TEST(dtc_tables, names_every_report_type_by_its_sub_function_number)
{
	const struct {
		uint32_t number;
		const char *name;
	} rows[] = {
			{0x01, "UDS_REPORT_NO_DTC_BY_STATUS_MASK"},
			{0x02, "UDS_REPORT_DTC_BY_STATUS_MASK"},
			{0x03, "UDS_REPORT_DTC_SNAPSHOT_IDENTIFICATION"},
			{0x04, "UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER"},
			{0x05, "UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER"},
			{0x06, "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER"},
			{0x07, "UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD"},
			{0x08, "UDS_REPORT_DTC_BY_SEVERITY_MASK_RECORD"},
			{0x09, "UDS_REPORT_SEVERITY_INFORMATION_OF_DTC"},
			{0x0A, "UDS_REPORT_SUPPORTED_DTCS"},
			{0x0B, "UDS_REPORT_FIRST_TEST_FAILED_DTC"},
			{0x0C, "UDS_REPORT_FIRST_CONFIRMED_DTC"},
			{0x0D, "UDS_REPORT_MOST_RECENT_TEST_FAILED_DTC"},
			{0x0E, "UDS_REPORT_MOST_RECENT_CONFIRMED_DTC"},
			{0x0F, "UDS_REPORT_MIRROR_MR_DTC_BY_STATUS_MASK"},
			{0x10, "UDS_REPORT_MIRROR_MR_DTC_EXT_DATA_RECORD_BY_DTC"},
			{0x11, "UDS_REPORT_NO_MIRROR_MR_DTC_BY_STATUS_MASK"},
			{0x12, "UDS_REPORT_NO_EMISSION_OBD_DTC_BY_STATUS_MASK"},
			{0x13, "UDS_REPORT_EMISSION_OBD_DTC_BY_STATUS_MASK"},
			{0x14, "UDS_REPORT_DTC_FAULT_DETECTION_COUNTER"},
			{0x15, "UDS_REPORT_DTC_WITH_PERMANENT_STATUS"},
			{0x16, "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_RECORD_NUMBER"},
			{0x17, "UDS_REPORT_USER_DEF_MR_DTC_BY_STATUS_MASK"},
			{0x18, "UDS_REPORT_USER_DEF_MR_DTC_SNAP_REC_BY_DTC"},
			{0x19, "UDS_REPORT_USER_DEF_MR_DTC_EXT_DATA_REC_BY_DTC"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		EXPECT_STREQ(dtc_report_type_name(row.number), row.name);
	}
}

TEST(dtc_tables, has_no_name_outside_of_the_table)
{
	for (uint32_t number : {0u, 26u, 27u, 0x100u, 0xFFFFFFFFu}) {
		SCOPED_TRACE(number);
		EXPECT_EQ(dtc_report_type_name(number), nullptr);
	}
}

TEST(dtc_tables, finds_every_report_type_by_its_name)
{
	for (uint32_t number = 1; number <= 25; ++number) {
		SCOPED_TRACE(number);
		captured_output output;
		EXPECT_EQ(dtc_report_type_from_name(dtc_report_type_name(number)), number);
		EXPECT_TRUE(output.has_line("ERR", "movra_fleet", "Subfunction found"));
		EXPECT_EQ(output.messages().size(), 1u);
	}
}

TEST(dtc_tables, finds_no_other_name)
{
	captured_output output;
	for (const char *name : {"", "0x02", "2", "uds_report_supported_dtcs", "UDS_REPORT_SUPPORTED_DTCS ",
				 " UDS_REPORT_SUPPORTED_DTCS", "UDS_REPORT_SUPPORTED_DTC", "UDS_REPORT_"}) {
		SCOPED_TRACE(name);
		EXPECT_EQ(dtc_report_type_from_name(name), 0u);
	}
	EXPECT_EQ(output.messages(), std::vector<std::string>{});
}

TEST(dtc_tables, needs_no_record_for_eight_report_types)
{
	for (uint32_t number : {0x03u, 0x0Au, 0x0Bu, 0x0Cu, 0x0Du, 0x0Eu, 0x14u, 0x15u}) {
		SCOPED_TRACE(number);
		EXPECT_FALSE(dtc_report_type_needs_record(number));
	}
}

TEST(dtc_tables, needs_a_record_for_all_others)
{
	for (uint32_t number : {0x00u, 0x01u, 0x02u, 0x04u, 0x05u, 0x06u, 0x07u, 0x08u, 0x09u, 0x0Fu, 0x10u, 0x11u, 0x12u,
				 0x13u, 0x16u, 0x17u, 0x18u, 0x19u, 0x1Au, 0x100u, 0xFFFFFFFFu}) {
		SCOPED_TRACE(number);
		EXPECT_TRUE(dtc_report_type_needs_record(number));
	}
}

TEST(dtc_tables, knows_the_bit_of_every_status_name)
{
	const struct {
		const char *name;
		uint8_t bit;
	} rows[] = {
			{"UDS_STATUS_MASK_TEST_FAILED", 1},
			{"UDS_STATUS_MASK_TEST_FAILED_THIS_OP_CYCLE", 2},
			{"UDS_STATUS_MASK_PENDING_DTC", 4},
			{"UDS_STATUS_MASK_CONFIRMED_DTC", 8},
			{"UDS_STATUS_MASK_TEST_NOT_COMPLETED_SINCE_LAST_CLEAR", 16},
			{"UDS_STATUS_MASK_TEST_FAILED_SINCE_LAST_CLEAR", 32},
			{"UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE", 64},
			{"UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED", 128},
			{"UDS_STATUS_MASK_", 0},
			{"uds_status_mask_test_failed", 0},
			{"", 0},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		EXPECT_EQ(dtc_status_mask_bit(row.name), row.bit);
	}
}

TEST(validate_dtc_request, demands_the_exact_data_length_of_each_report_type)
{
	// By sub-function number; -1: no length is accepted.
	const int lengths[] = {-1, 1, 1, 0, 4, 1, 4, 2, 2, 3, 0, 0, 0, 0, 0, 1, 4, 1, 1, 1, 0, 0, 1, 2, -1, -1, -1};
	for (uint32_t number = 0; number < std::size(lengths); ++number)
		for (int length = 0; length <= 8; ++length) {
			SCOPED_TRACE(testing::Message() << number << " with " << length);
			diag_job job = {};
			job.dtc_subfunction = number;
			job.dtc_data_length = static_cast<uint32_t>(length);
			EXPECT_EQ(validate_dtc_request(&job), length == lengths[number] ? 0 : -1);
		}
}

TEST(validate_dtc_request, refuses_what_is_beyond_all_tables)
{
	const struct {
		uint32_t subfunction, length;
	} rows[] = {{0, 0xFFFFFFFF}, {0x18, 0xFFFFFFFF}, {0x102, 1}, {0xFFFFFFFF, 0}, {0xFFFFFFFF, 0xFFFFFFFF}, {2, 257}};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::Message() << row.subfunction << " with " << row.length);
		diag_job job = {};
		job.dtc_subfunction = row.subfunction;
		job.dtc_data_length = row.length;
		EXPECT_EQ(validate_dtc_request(&job), -1);
	}
}
