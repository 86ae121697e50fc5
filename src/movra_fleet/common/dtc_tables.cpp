#include "movra_fleet/common/dtc_tables.h"

#include <cstddef>
#include <cstring>

#include "movra_fleet/common/agent_log.h"

namespace
{

constexpr uint32_t refused = UINT32_MAX; // no data length makes such a request a valid one

struct report_type {
	const char *name;
	bool record;          // a request carries a data record
	uint32_t data_length; // bytes after the sub-function
};

// By sub-function number. Entry 0 has no name; the last two have names but are not sent.
constexpr report_type report_types[] = {
		{"", true, refused},
		{"UDS_REPORT_NO_DTC_BY_STATUS_MASK", true, 1},
		{"UDS_REPORT_DTC_BY_STATUS_MASK", true, 1},
		{"UDS_REPORT_DTC_SNAPSHOT_IDENTIFICATION", false, 0},
		{"UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER", true, 4},
		{"UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER", true, 1},
		{"UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER", true, 4},
		{"UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD", true, 2},
		{"UDS_REPORT_DTC_BY_SEVERITY_MASK_RECORD", true, 2},
		{"UDS_REPORT_SEVERITY_INFORMATION_OF_DTC", true, 3},
		{"UDS_REPORT_SUPPORTED_DTCS", false, 0},
		{"UDS_REPORT_FIRST_TEST_FAILED_DTC", false, 0},
		{"UDS_REPORT_FIRST_CONFIRMED_DTC", false, 0},
		{"UDS_REPORT_MOST_RECENT_TEST_FAILED_DTC", false, 0},
		{"UDS_REPORT_MOST_RECENT_CONFIRMED_DTC", false, 0},
		{"UDS_REPORT_MIRROR_MR_DTC_BY_STATUS_MASK", true, 1},
		{"UDS_REPORT_MIRROR_MR_DTC_EXT_DATA_RECORD_BY_DTC", true, 4},
		{"UDS_REPORT_NO_MIRROR_MR_DTC_BY_STATUS_MASK", true, 1},
		{"UDS_REPORT_NO_EMISSION_OBD_DTC_BY_STATUS_MASK", true, 1},
		{"UDS_REPORT_EMISSION_OBD_DTC_BY_STATUS_MASK", true, 1},
		{"UDS_REPORT_DTC_FAULT_DETECTION_COUNTER", false, 0},
		{"UDS_REPORT_DTC_WITH_PERMANENT_STATUS", false, 0},
		{"UDS_REPORT_DTC_EXT_DATA_RECORD_BY_RECORD_NUMBER", true, 1},
		{"UDS_REPORT_USER_DEF_MR_DTC_BY_STATUS_MASK", true, 2},
		{"UDS_REPORT_USER_DEF_MR_DTC_SNAP_REC_BY_DTC", true, refused},
		{"UDS_REPORT_USER_DEF_MR_DTC_EXT_DATA_REC_BY_DTC", true, refused},
};
constexpr uint32_t report_type_count = sizeof report_types / sizeof *report_types;
static_assert(report_type_count == 26);

// By bit number of the DTC status byte (ISO 14229-1, DTCStatusMask).
constexpr const char *dtc_status_mask_names[] = {
		"UDS_STATUS_MASK_TEST_FAILED",
		"UDS_STATUS_MASK_TEST_FAILED_THIS_OP_CYCLE",
		"UDS_STATUS_MASK_PENDING_DTC",
		"UDS_STATUS_MASK_CONFIRMED_DTC",
		"UDS_STATUS_MASK_TEST_NOT_COMPLETED_SINCE_LAST_CLEAR",
		"UDS_STATUS_MASK_TEST_FAILED_SINCE_LAST_CLEAR",
		"UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE",
		"UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED",
};
constexpr size_t status_mask_count = sizeof dtc_status_mask_names / sizeof *dtc_status_mask_names;
static_assert(status_mask_count == 8);

}

const char *dtc_report_type_name(uint32_t number)
{
	return number != 0 && number < report_type_count ? report_types[number].name : nullptr;
}

uint32_t dtc_report_type_from_name(const char *name)
{
	for (uint32_t number = 1; number < report_type_count; ++number) {
		if (strcmp(report_types[number].name, name) != 0)
			continue;
		FLEET_TEXT(LOG_ERR, "Subfunction found"); // an error by its level only: kept as it is
		return number;
	}
	return 0;
}

bool dtc_report_type_needs_record(uint32_t number)
{
	return number >= report_type_count || report_types[number].record;
}

uint8_t dtc_status_mask_bit(const char *name)
{
	for (size_t bit = 0; bit < status_mask_count; ++bit)
		if (strcmp(dtc_status_mask_names[bit], name) == 0)
			return static_cast<uint8_t>(1u << bit);
	return 0;
}

int validate_dtc_request(const diag_job *job)
{
	uint32_t length =
			job->dtc_subfunction < report_type_count ? report_types[job->dtc_subfunction].data_length : refused;
	return length != refused && job->dtc_data_length == length ? 0 : -1;
}
