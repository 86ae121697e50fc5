#include "dtc_names.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::HasSubstr;

TEST(dtc_report, has_a_short_name_a_number_and_what_it_needs)
{
	const struct {
		const char *name;
		unsigned number;
		const char *agent_name;
		const char *options;
	} rows[] = {
			{"count-by-status-mask", 0x01, "UDS_REPORT_NO_DTC_BY_STATUS_MASK", "--status-mask"},
			{"by-status-mask", 0x02, "UDS_REPORT_DTC_BY_STATUS_MASK", "--status-mask"},
			{"snapshot-list", 0x03, "UDS_REPORT_DTC_SNAPSHOT_IDENTIFICATION", ""},
			{"snapshot-by-dtc", 0x04, "UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER", "--dtc and --record"},
			{"stored-data-by-record", 0x05, "UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER", "--record"},
			{"extended-data-by-dtc", 0x06, "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER", "--dtc and --record"},
			{"count-by-severity", 0x07, "UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD", "--status-mask and --severity"},
			{"by-severity", 0x08, "UDS_REPORT_DTC_BY_SEVERITY_MASK_RECORD", "--status-mask and --severity"},
			{"severity-of-dtc", 0x09, "UDS_REPORT_SEVERITY_INFORMATION_OF_DTC", "--dtc"},
			{"supported", 0x0A, "UDS_REPORT_SUPPORTED_DTCS", ""},
			{"first-test-failed", 0x0B, "UDS_REPORT_FIRST_TEST_FAILED_DTC", ""},
			{"first-confirmed", 0x0C, "UDS_REPORT_FIRST_CONFIRMED_DTC", ""},
			{"most-recent-test-failed", 0x0D, "UDS_REPORT_MOST_RECENT_TEST_FAILED_DTC", ""},
			{"most-recent-confirmed", 0x0E, "UDS_REPORT_MOST_RECENT_CONFIRMED_DTC", ""},
			{"mirror-by-status-mask", 0x0F, "UDS_REPORT_MIRROR_MR_DTC_BY_STATUS_MASK", "--status-mask"},
			{"mirror-extended-data-by-dtc", 0x10, "UDS_REPORT_MIRROR_MR_DTC_EXT_DATA_RECORD_BY_DTC",
					"--dtc and --record"},
			{"mirror-count-by-status-mask", 0x11, "UDS_REPORT_NO_MIRROR_MR_DTC_BY_STATUS_MASK", "--status-mask"},
			{"emissions-count-by-status-mask", 0x12, "UDS_REPORT_NO_EMISSION_OBD_DTC_BY_STATUS_MASK", "--status-mask"},
			{"emissions-by-status-mask", 0x13, "UDS_REPORT_EMISSION_OBD_DTC_BY_STATUS_MASK", "--status-mask"},
			{"fault-detection-counters", 0x14, "UDS_REPORT_DTC_FAULT_DETECTION_COUNTER", ""},
			{"permanent", 0x15, "UDS_REPORT_DTC_WITH_PERMANENT_STATUS", ""},
			{"extended-data-by-record", 0x16, "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_RECORD_NUMBER", "--record"},
			{"memory-by-status-mask", 0x17, "UDS_REPORT_USER_DEF_MR_DTC_BY_STATUS_MASK", "--status-mask and --memory"},
	};
	unsigned number = 0;
	for (const auto &row : rows) {
		SCOPED_TRACE(row.name);
		const dtc_report *report = dtc_report_by_name(row.name);
		ASSERT_NE(report, nullptr);
		EXPECT_EQ(report->number, row.number);
		EXPECT_EQ(report->number, ++number);
		EXPECT_STREQ(report->agent_name, row.agent_name);
		EXPECT_EQ(dtc_report_by_agent_name(row.agent_name), report);
		EXPECT_EQ(dtc_need_options(report->needs), row.options);
		EXPECT_THAT(dtc_report_names(), HasSubstr(row.name));
		EXPECT_THAT(dtc_report_help(), HasSubstr(std::string("\n  ") + row.name + " "));
	}
	EXPECT_EQ(number, 23u);
}

TEST(dtc_report, is_not_found_by_another_name)
{
	for (const char *name : {"", "by-status", "BY-STATUS-MASK", "02", "UDS_REPORT_DTC_BY_STATUS_MASK"})
		EXPECT_EQ(dtc_report_by_name(name), nullptr) << name;
	for (const char *name : {"", "by-status-mask", "UDS_REPORT_USER_DEF_MR_DTC_SNAP_REC_BY_DTC"})
		EXPECT_EQ(dtc_report_by_agent_name(name), nullptr) << name;
}

TEST(status_mask, is_read_from_names_or_hexadecimal_digits)
{
	const struct {
		const char *text;
		unsigned mask;
	} rows[] = {
			{"test-failed", 0x01},
			{"test-failed-this-cycle", 0x02},
			{"pending", 0x04},
			{"confirmed", 0x08},
			{"not-completed-since-clear", 0x10},
			{"failed-since-clear", 0x20},
			{"not-completed-this-cycle", 0x40},
			{"warning-indicator", 0x80},
			{"confirmed,test-failed", 0x09},
			{"pending,pending", 0x04},
			{"all", 0xFF},
			{"FF", 0xFF},
			{"0x2f", 0x2F},
			{"8", 0x08},
			{"0", 0x00},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		uint8_t mask = 0x5A;
		std::string error;
		EXPECT_TRUE(parse_status_mask(row.text, mask, error)) << error;
		EXPECT_EQ(mask, row.mask);
	}
}

TEST(status_mask, that_has_an_unknown_name_is_refused_with_the_names_there_are)
{
	const struct {
		const char *text;
		const char *says;
	} rows[] = {
			{"confirm", "no bit \"confirm\""},
			{"confirmed,", "no bit \"\""},
			{"confirmed, pending", "no bit \" pending\""},
			{"100", "no bit \"100\""},
			{"0x", "no bit \"0x\""},
			{"all,pending", "no bit \"all\""},
			{"check-immediately", "no bit \"check-immediately\""},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		uint8_t mask = 0x5A;
		std::string error;
		EXPECT_FALSE(parse_status_mask(row.text, mask, error));
		EXPECT_THAT(error, HasSubstr(row.says));
		EXPECT_THAT(error, HasSubstr("--status-mask"));
		EXPECT_THAT(error, HasSubstr("pending, confirmed"));
		EXPECT_EQ(mask, 0x5A);
	}
}

TEST(severity_mask, is_read_from_names_or_hexadecimal_digits)
{
	const struct {
		const char *text;
		unsigned mask;
	} rows[] = {
			{"class-0", 0x01},
			{"class-1", 0x02},
			{"class-2", 0x04},
			{"class-3", 0x08},
			{"class-4", 0x10},
			{"maintenance-only", 0x20},
			{"check-at-next-halt", 0x40},
			{"check-immediately", 0x80},
			{"check-at-next-halt,check-immediately", 0xC0},
			{"all", 0xFF},
			{"E0", 0xE0},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		uint8_t mask = 0;
		std::string error;
		EXPECT_TRUE(parse_severity_mask(row.text, mask, error)) << error;
		EXPECT_EQ(mask, row.mask);
	}
	uint8_t mask = 0;
	std::string error;
	EXPECT_FALSE(parse_severity_mask("pending", mask, error));
	EXPECT_THAT(error, HasSubstr("--severity: there is no bit \"pending\""));
}

TEST(bit_text, names_the_bits_that_are_set)
{
	EXPECT_EQ(status_text(0x00), "none");
	EXPECT_EQ(status_text(0x09), "test-failed, confirmed");
	EXPECT_EQ(status_text(0xFF),
			"test-failed, test-failed-this-cycle, pending, confirmed, not-completed-since-clear, failed-since-clear, "
			"not-completed-this-cycle, warning-indicator");
	EXPECT_EQ(severity_text(0xA2), "class-1, maintenance-only, check-immediately");
}

TEST(agent_status_names, are_the_names_that_agents_know_the_bits_by)
{
	EXPECT_THAT(agent_status_names(0x00), ElementsAre());
	EXPECT_THAT(agent_status_names(0x09), ElementsAre("UDS_STATUS_MASK_TEST_FAILED", "UDS_STATUS_MASK_CONFIRMED_DTC"));
	EXPECT_THAT(agent_status_names(0xFF),
			ElementsAre("UDS_STATUS_MASK_TEST_FAILED", "UDS_STATUS_MASK_TEST_FAILED_THIS_OP_CYCLE",
					"UDS_STATUS_MASK_PENDING_DTC", "UDS_STATUS_MASK_CONFIRMED_DTC",
					"UDS_STATUS_MASK_TEST_NOT_COMPLETED_SINCE_LAST_CLEAR",
					"UDS_STATUS_MASK_TEST_FAILED_SINCE_LAST_CLEAR", "UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE",
					"UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED"));
}

TEST(dtc_number, is_read_and_shown_in_sae_form_and_in_hexadecimal)
{
	const struct {
		const char *sae;
		const char *hex;
		uint32_t dtc;
	} rows[] = {
			{"P0123-45", "012345", 0x012345},
			{"P0000-00", "000000", 0x000000},
			{"P3FFF-1C", "3FFF1C", 0x3FFF1C},
			{"C0035-00", "403500", 0x403500},
			{"B1A2B-3C", "9A2B3C", 0x9A2B3C},
			{"U0100-87", "C10087", 0xC10087},
			{"U3FFF-FF", "FFFFFF", 0xFFFFFF},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.sae);
		uint32_t dtc = 1;
		EXPECT_TRUE(parse_dtc(row.sae, dtc));
		EXPECT_EQ(dtc, row.dtc);
		dtc = 1;
		EXPECT_TRUE(parse_dtc(row.hex, dtc));
		EXPECT_EQ(dtc, row.dtc);
		EXPECT_EQ(sae_text(row.dtc), row.sae);
		EXPECT_EQ(dtc_text(row.dtc), std::string(row.sae) + " (" + row.hex + ")");
	}
}

TEST(dtc_number, may_have_small_letters_and_a_prefix)
{
	uint32_t dtc = 0;
	EXPECT_TRUE(parse_dtc("b1a2b-3c", dtc));
	EXPECT_EQ(dtc, 0x9A2B3Cu);
	EXPECT_TRUE(parse_dtc("0x9a2b3c", dtc));
	EXPECT_EQ(dtc, 0x9A2B3Cu);
}

TEST(dtc_number, is_refused_in_any_other_form)
{
	for (const char *text : {"", "P0123", "P0123-4", "P0123-456", "P0123 45", "P4123-45", "X0123-45", "P012G-45",
				 "P0123-4G", "12345", "1234567", "01234G", "0x1234",
				 "\xC3\x9F"
				 "123-45",
				 "-12345"}) {
		uint32_t dtc = 7;
		EXPECT_FALSE(parse_dtc(text, dtc)) << text;
		EXPECT_EQ(dtc, 7u) << text;
	}
}

TEST(dtc_format, is_told_by_name)
{
	EXPECT_EQ(dtc_format_name(0), "SAE J2012-DA, format 00");
	EXPECT_EQ(dtc_format_name(1), "ISO 14229-1");
	EXPECT_EQ(dtc_format_name(2), "SAE J1939-73");
	EXPECT_EQ(dtc_format_name(3), "ISO 11992-4");
	EXPECT_EQ(dtc_format_name(4), "SAE J2012-DA, format 04");
	EXPECT_EQ(dtc_format_name(5), "reserved");
	EXPECT_EQ(dtc_format_name(0xFF), "reserved");
}
