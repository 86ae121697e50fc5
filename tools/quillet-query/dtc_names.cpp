#include "dtc_names.h"

#include <cctype>
#include <cstdlib>

#include "hex_text.h"

namespace
{

constexpr unsigned needs_both_masks = needs_status_mask | needs_severity_mask;
constexpr unsigned needs_dtc_record = needs_dtc | needs_record;

// The sub-functions 0x01 to 0x17, in their order.
constexpr dtc_report reports[] = {
		{0x01, "count-by-status-mask", "UDS_REPORT_NO_DTC_BY_STATUS_MASK", needs_status_mask, dtc_layout::count},
		{0x02, "by-status-mask", "UDS_REPORT_DTC_BY_STATUS_MASK", needs_status_mask, dtc_layout::status_list},
		{0x03, "snapshot-list", "UDS_REPORT_DTC_SNAPSHOT_IDENTIFICATION", needs_nothing, dtc_layout::snapshot_list},
		{0x04, "snapshot-by-dtc", "UDS_REPORT_DTC_SNAPSHOT_RECORD_BY_DTC_NUMBER", needs_dtc_record,
				dtc_layout::snapshot_of_dtc},
		{0x05, "stored-data-by-record", "UDS_REPORT_DTC_STORED_DATA_BY_RECORD_NUMBER", needs_record,
				dtc_layout::stored_data},
		{0x06, "extended-data-by-dtc", "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_DTC_NUMBER", needs_dtc_record,
				dtc_layout::extended_of_dtc},
		{0x07, "count-by-severity", "UDS_REPORT_NO_DTC_BY_SEVERITY_MASK_RECORD", needs_both_masks, dtc_layout::count},
		{0x08, "by-severity", "UDS_REPORT_DTC_BY_SEVERITY_MASK_RECORD", needs_both_masks, dtc_layout::severity_list},
		{0x09, "severity-of-dtc", "UDS_REPORT_SEVERITY_INFORMATION_OF_DTC", needs_dtc, dtc_layout::severity_list},
		{0x0A, "supported", "UDS_REPORT_SUPPORTED_DTCS", needs_nothing, dtc_layout::status_list},
		{0x0B, "first-test-failed", "UDS_REPORT_FIRST_TEST_FAILED_DTC", needs_nothing, dtc_layout::status_list},
		{0x0C, "first-confirmed", "UDS_REPORT_FIRST_CONFIRMED_DTC", needs_nothing, dtc_layout::status_list},
		{0x0D, "most-recent-test-failed", "UDS_REPORT_MOST_RECENT_TEST_FAILED_DTC", needs_nothing,
				dtc_layout::status_list},
		{0x0E, "most-recent-confirmed", "UDS_REPORT_MOST_RECENT_CONFIRMED_DTC", needs_nothing, dtc_layout::status_list},
		{0x0F, "mirror-by-status-mask", "UDS_REPORT_MIRROR_MR_DTC_BY_STATUS_MASK", needs_status_mask,
				dtc_layout::status_list},
		{0x10, "mirror-extended-data-by-dtc", "UDS_REPORT_MIRROR_MR_DTC_EXT_DATA_RECORD_BY_DTC", needs_dtc_record,
				dtc_layout::extended_of_dtc},
		{0x11, "mirror-count-by-status-mask", "UDS_REPORT_NO_MIRROR_MR_DTC_BY_STATUS_MASK", needs_status_mask,
				dtc_layout::count},
		{0x12, "emissions-count-by-status-mask", "UDS_REPORT_NO_EMISSION_OBD_DTC_BY_STATUS_MASK", needs_status_mask,
				dtc_layout::count},
		{0x13, "emissions-by-status-mask", "UDS_REPORT_EMISSION_OBD_DTC_BY_STATUS_MASK", needs_status_mask,
				dtc_layout::status_list},
		{0x14, "fault-detection-counters", "UDS_REPORT_DTC_FAULT_DETECTION_COUNTER", needs_nothing,
				dtc_layout::fault_counters},
		{0x15, "permanent", "UDS_REPORT_DTC_WITH_PERMANENT_STATUS", needs_nothing, dtc_layout::status_list},
		{0x16, "extended-data-by-record", "UDS_REPORT_DTC_EXT_DATA_RECORD_BY_RECORD_NUMBER", needs_record,
				dtc_layout::extended_by_record},
		{0x17, "memory-by-status-mask", "UDS_REPORT_USER_DEF_MR_DTC_BY_STATUS_MASK", needs_status_mask | needs_memory,
				dtc_layout::memory_status_list},
};
static_assert(sizeof(reports) / sizeof(reports[0]) == 23, "every report that agents send");

struct bit_row {
	const char *name;
	const char *agent_name; // NULL where requests have none
};

// By bit number of the DTC status byte.
constexpr bit_row status_bits[] = {
		{"test-failed", "UDS_STATUS_MASK_TEST_FAILED"},
		{"test-failed-this-cycle", "UDS_STATUS_MASK_TEST_FAILED_THIS_OP_CYCLE"},
		{"pending", "UDS_STATUS_MASK_PENDING_DTC"},
		{"confirmed", "UDS_STATUS_MASK_CONFIRMED_DTC"},
		{"not-completed-since-clear", "UDS_STATUS_MASK_TEST_NOT_COMPLETED_SINCE_LAST_CLEAR"},
		{"failed-since-clear", "UDS_STATUS_MASK_TEST_FAILED_SINCE_LAST_CLEAR"},
		{"not-completed-this-cycle", "UDS_STATUS_MASK_TEST_NOT_COMPLETED_THIS_OP_CYCLE"},
		{"warning-indicator", "UDS_STATUS_MASK_WARNING_INDICATOR_REQUESTED"},
};
static_assert(sizeof(status_bits) / sizeof(status_bits[0]) == 8);

// By bit number of the severity byte: the DTC class below, the severity above.
constexpr bit_row severity_bits[] = {
		{"class-0", nullptr},
		{"class-1", nullptr},
		{"class-2", nullptr},
		{"class-3", nullptr},
		{"class-4", nullptr},
		{"maintenance-only", nullptr},
		{"check-at-next-halt", nullptr},
		{"check-immediately", nullptr},
};
static_assert(sizeof(severity_bits) / sizeof(severity_bits[0]) == 8);

using bit_table = const bit_row (&)[8];

// By DTCFormatIdentifier.
constexpr const char *format_names[] = {
		"SAE J2012-DA, format 00",
		"ISO 14229-1",
		"SAE J1939-73",
		"ISO 11992-4",
		"SAE J2012-DA, format 04",
};
static_assert(sizeof(format_names) / sizeof(format_names[0]) == 5);

struct need_row {
	unsigned need;
	const char *option;
};

constexpr need_row need_rows[] = {
		{needs_status_mask, "--status-mask"},
		{needs_severity_mask, "--severity"},
		{needs_dtc, "--dtc"},
		{needs_record, "--record"},
		{needs_memory, "--memory"},
};
static_assert(sizeof(need_rows) / sizeof(need_rows[0]) == 5);

std::string bit_names(uint8_t bits, bit_table table)
{
	std::string text;
	for (unsigned bit = 0; bit < 8; bit++) {
		if ((bits >> bit & 1u) != 0)
			text += (text.empty() ? "" : ", ") + std::string(table[bit].name);
	}
	return text.empty() ? "none" : text;
}

bool find_bit(const std::string &name, bit_table table, unsigned &mask)
{
	for (unsigned bit = 0; bit < 8; bit++) {
		if (name == table[bit].name) {
			mask |= 1u << bit;
			return true;
		}
	}
	return false;
}

bool parse_mask(const std::string &text, bit_table table, const char *option, uint8_t &mask, std::string &error)
{
	if (parse_hex_byte(text, mask))
		return true;
	if (text == "all") {
		mask = 0xFF;
		return true;
	}
	unsigned bits = 0;
	for (const std::string &name : split(text, ',')) {
		if (find_bit(name, table, bits))
			continue;
		error = std::string(option) + ": there is no bit \"" + name + "\"; give one byte in hexadecimal, all, or " +
				"names with commas between them: " + bit_names(0xFF, table);
		return false;
	}
	mask = static_cast<uint8_t>(bits);
	return true;
}

} // namespace

const dtc_report *dtc_report_by_name(const std::string &name)
{
	for (const dtc_report &report : reports) {
		if (name == report.name)
			return &report;
	}
	return nullptr;
}

const dtc_report *dtc_report_by_agent_name(const std::string &name)
{
	for (const dtc_report &report : reports) {
		if (name == report.agent_name)
			return &report;
	}
	return nullptr;
}

std::string dtc_report_names()
{
	std::string text;
	for (const dtc_report &report : reports)
		text += (text.empty() ? "" : ", ") + std::string(report.name);
	return text;
}

std::string dtc_report_help()
{
	std::string text = "Reports and what they need:\n";
	for (const dtc_report &report : reports) {
		std::string name = report.name;
		name.resize(32, ' ');
		text += "  " + name + dtc_need_options(report.needs) + "\n";
	}
	text += "Status bits: " + status_text(0xFF) + "\n";
	text += "Severities: " + severity_text(0xFF);
	return text;
}

std::string dtc_need_options(unsigned needs)
{
	std::string text;
	for (const need_row &row : need_rows) {
		if ((needs & row.need) != 0)
			text += (text.empty() ? "" : " and ") + std::string(row.option);
	}
	return text;
}

bool parse_status_mask(const std::string &text, uint8_t &mask, std::string &error)
{
	return parse_mask(text, status_bits, "--status-mask", mask, error);
}

bool parse_severity_mask(const std::string &text, uint8_t &mask, std::string &error)
{
	return parse_mask(text, severity_bits, "--severity", mask, error);
}

std::string status_text(uint8_t status)
{
	return bit_names(status, status_bits);
}

std::string severity_text(uint8_t severity)
{
	return bit_names(severity, severity_bits);
}

std::vector<std::string> agent_status_names(uint8_t mask)
{
	std::vector<std::string> names;
	for (unsigned bit = 0; bit < 8; bit++) {
		if ((mask >> bit & 1u) != 0)
			names.push_back(status_bits[bit].agent_name);
	}
	return names;
}

bool parse_dtc(const std::string &text, uint32_t &dtc)
{
	const bool prefixed = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0;
	std::string digits = prefixed ? text.substr(2) : text;
	uint32_t system = 0;
	if (text.size() == 8 && text[5] == '-') {
		const size_t letter = std::string("PCBU").find(static_cast<char>(toupper(text[0])));
		if (letter == std::string::npos || text[1] < '0' || text[1] > '3')
			return false;
		system = static_cast<uint32_t>(letter) << 22;
		digits = text.substr(1, 4) + text.substr(6);
	}
	if (digits.size() != 6 || !is_hex(digits))
		return false;
	dtc = system | static_cast<uint32_t>(strtoul(digits.c_str(), nullptr, 16));
	return true;
}

std::string sae_text(uint32_t dtc)
{
	const uint8_t high = static_cast<uint8_t>(dtc >> 16);
	const std::string number = hex_of(static_cast<uint8_t>(high & 0x3F)) + hex_of(static_cast<uint8_t>(dtc >> 8));
	return "PCBU"[high >> 6] + number + "-" + hex_of(static_cast<uint8_t>(dtc));
}

std::string dtc_text(uint32_t dtc)
{
	const std::vector<uint8_t> bytes = {
			static_cast<uint8_t>(dtc >> 16), static_cast<uint8_t>(dtc >> 8), static_cast<uint8_t>(dtc)};
	return sae_text(dtc) + " (" + hex_of(bytes) + ")";
}

std::string dtc_format_name(uint8_t format)
{
	return format < sizeof(format_names) / sizeof(format_names[0]) ? format_names[format] : "reserved";
}
