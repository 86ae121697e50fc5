// One row per report: what its request carries, which codes it is about, and how it tells them. A report with nothing
// to tell is answered positively; a code, a record or a memory that does not exist is refused with 31.
#include "dtc_reports.h"

#include <algorithm>
#include <array>

namespace
{

// Bits of the status byte.
constexpr uint32_t test_failed = 0x01;
constexpr uint32_t confirmed = 0x08;
constexpr uint32_t not_completed_since_clear = 0x10;
constexpr uint32_t failed_since_clear = 0x20;
constexpr uint32_t not_completed_this_cycle = 0x40;

constexpr uint32_t all_groups = 0xFFFFFF;
constexpr uint32_t all_records = 0xFF;
constexpr uint32_t emission_records = 0xFE; // those from 90 to EF, of the extended data only
constexpr uint32_t emission_record_least = 0x90;

// A fault detection counter from 1 to 126 is on its way to a failed test; 127 has arrived.
constexpr uint32_t prefailed_most = 0x7E;

struct report_row;

// A request for a report, and the answer that is being written.
struct report {
	const fault_memory *memory;
	const report_row *row;
	std::span<const uint8_t> data; // what follows the sub-function, as long as the row says
	std::vector<uint8_t> *answer;
};

using dtc_list = std::vector<dtc_description>;
using selector = bool (*)(const report &report, const dtc_description &dtc);

struct report_row {
	uint8_t number;
	size_t data_length;
	const dtc_list *(*list)(const report &report); // NULL: there is no such memory
	selector selects;
	uds_nrc (*write)(const report &report, const dtc_list &list);
};

uint32_t number_at(std::span<const uint8_t> bytes)
{
	return static_cast<uint32_t>(bytes[0] << 16 | bytes[1] << 8 | bytes[2]);
}

void append_number(std::vector<uint8_t> *bytes, uint32_t number, int width)
{
	for (int shift = (width - 1) * 8; shift >= 0; shift -= 8)
		bytes->push_back(static_cast<uint8_t>(number >> shift));
}

// A server neither tells nor compares the status bits that it does not have.
uint32_t status_of(const report &report, const dtc_description &dtc)
{
	return dtc.status & report.memory->status_availability;
}

const dtc_list *primary(const report &report)
{
	return &report.memory->dtcs;
}

const dtc_list *mirror(const report &report)
{
	return &report.memory->mirror;
}

const dtc_list *user_defined(const report &report)
{
	for (const user_memory_description &memory : report.memory->user_memories)
		if (memory.selection == report.data[1])
			return &memory.dtcs;
	return nullptr;
}

bool every(const report &, const dtc_description &)
{
	return true;
}

bool by_status(const report &report, const dtc_description &dtc)
{
	return (status_of(report, dtc) & report.data[0]) != 0;
}

bool by_severity(const report &report, const dtc_description &dtc)
{
	return (dtc.severity & report.data[0]) != 0 && (status_of(report, dtc) & report.data[1]) != 0;
}

bool by_number(const report &report, const dtc_description &dtc)
{
	return dtc.id == number_at(report.data);
}

bool emission_by_status(const report &report, const dtc_description &dtc)
{
	return dtc.emission && by_status(report, dtc);
}

// A test that has failed since the last clearing counts, also when it passes by now.
bool has_failed(const report &report, const dtc_description &dtc)
{
	return (status_of(report, dtc) & (test_failed | failed_since_clear)) != 0;
}

bool is_confirmed(const report &report, const dtc_description &dtc)
{
	return (status_of(report, dtc) & confirmed) != 0;
}

bool is_prefailed(const report &, const dtc_description &dtc)
{
	return dtc.fault_detection_counter >= 1 && dtc.fault_detection_counter <= prefailed_most;
}

bool is_permanent(const report &, const dtc_description &dtc)
{
	return dtc.permanent;
}

void append_availability(const report &report)
{
	append_number(report.answer, report.memory->status_availability, 1);
}

void append_dtc_and_status(const report &report, const dtc_description &dtc)
{
	append_number(report.answer, dtc.id, 3);
	append_number(report.answer, status_of(report, dtc), 1);
}

void append_parameters(const report &report, const dtc_snapshot &snapshot)
{
	append_number(report.answer, static_cast<uint32_t>(snapshot.data.size()), 1);
	for (const dtc_parameter &parameter : snapshot.data) {
		append_number(report.answer, parameter.id, 2);
		append(report.answer, parameter.value);
	}
}

uds_nrc write_count(const report &report, const dtc_list &list)
{
	const auto count = std::count_if(
			list.begin(), list.end(), [&](const dtc_description &dtc) { return report.row->selects(report, dtc); });
	append_availability(report);
	append_number(report.answer, report.memory->format, 1);
	append_number(report.answer, static_cast<uint32_t>(count), 2);
	return NRC_NONE;
}

uds_nrc write_list(const report &report, const dtc_list &list)
{
	append_availability(report);
	for (const dtc_description &dtc : list)
		if (report.row->selects(report, dtc))
			append_dtc_and_status(report, dtc);
	return NRC_NONE;
}

uds_nrc write_first(const report &report, const dtc_list &list)
{
	append_availability(report);
	const auto found = std::find_if(
			list.begin(), list.end(), [&](const dtc_description &dtc) { return report.row->selects(report, dtc); });
	if (found != list.end())
		append_dtc_and_status(report, *found);
	return NRC_NONE;
}

uds_nrc write_most_recent(const report &report, const dtc_list &list)
{
	append_availability(report);
	const auto found = std::find_if(
			list.rbegin(), list.rend(), [&](const dtc_description &dtc) { return report.row->selects(report, dtc); });
	if (found != list.rend())
		append_dtc_and_status(report, *found);
	return NRC_NONE;
}

uds_nrc write_user_list(const report &report, const dtc_list &list)
{
	append_number(report.answer, report.data[1], 1); // which memory
	return write_list(report, list);
}

uds_nrc write_severities(const report &report, const dtc_list &list)
{
	append_availability(report);
	for (const dtc_description &dtc : list) {
		if (!report.row->selects(report, dtc))
			continue;
		append_number(report.answer, dtc.severity, 1);
		append_number(report.answer, dtc.functional_unit, 1);
		append_dtc_and_status(report, dtc);
	}
	return NRC_NONE;
}

// The same for the one code that the request names, which must exist.
uds_nrc write_severity(const report &report, const dtc_list &list)
{
	const size_t before = report.answer->size();
	const uds_nrc nrc = write_severities(report, list);
	return report.answer->size() == before + 1 ? NRC_REQUEST_OUT_OF_RANGE : nrc;
}

uds_nrc write_counters(const report &report, const dtc_list &list)
{
	for (const dtc_description &dtc : list) {
		if (!report.row->selects(report, dtc))
			continue;
		append_number(report.answer, dtc.id, 3);
		append_number(report.answer, dtc.fault_detection_counter, 1);
	}
	return NRC_NONE;
}

uds_nrc write_snapshot_identification(const report &report, const dtc_list &list)
{
	for (const dtc_description &dtc : list)
		for (const dtc_snapshot &snapshot : dtc.snapshots) {
			if (snapshot.data.empty())
				continue;
			append_number(report.answer, dtc.id, 3);
			append_number(report.answer, snapshot.record, 1);
		}
	return NRC_NONE;
}

const dtc_description *named_dtc(const report &report, const dtc_list &list)
{
	const auto found =
			std::find_if(list.begin(), list.end(), [&](const dtc_description &dtc) { return by_number(report, dtc); });
	return found != list.end() ? &*found : nullptr;
}

uds_nrc write_snapshots_of_dtc(const report &report, const dtc_list &list)
{
	const dtc_description *dtc = named_dtc(report, list);
	if (dtc == nullptr)
		return NRC_REQUEST_OUT_OF_RANGE;
	const uint32_t wanted = report.data[3];
	bool known = wanted == all_records;
	append_dtc_and_status(report, *dtc);
	for (const dtc_snapshot &snapshot : dtc->snapshots) {
		if (wanted != all_records && wanted != snapshot.record)
			continue;
		known = true;
		if (snapshot.data.empty())
			continue;
		append_number(report.answer, snapshot.record, 1);
		append_parameters(report, snapshot);
	}
	return known ? NRC_NONE : NRC_REQUEST_OUT_OF_RANGE;
}

void append_stored_data(const report &report, const dtc_description &dtc, const dtc_snapshot &stored)
{
	append_number(report.answer, stored.record, 1);
	append_dtc_and_status(report, dtc);
	append_parameters(report, stored);
}

// A record without stored data is told by its number alone.
uds_nrc write_stored_data(const report &report, const dtc_list &list)
{
	const uint32_t wanted = report.data[0];
	const size_t before = report.answer->size();
	bool known = wanted == all_records;
	for (const dtc_description &dtc : list)
		for (const dtc_snapshot &stored : dtc.stored_data) {
			if (wanted != all_records && wanted != stored.record)
				continue;
			known = true;
			if (!stored.data.empty())
				append_stored_data(report, dtc, stored);
		}
	if (report.answer->size() == before)
		append_number(report.answer, wanted, 1);
	return known ? NRC_NONE : NRC_REQUEST_OUT_OF_RANGE;
}

bool wants_extended_data(uint32_t wanted, uint32_t record)
{
	return wanted == all_records || wanted == record || (wanted == emission_records && record >= emission_record_least);
}

uds_nrc write_extended_data_of_dtc(const report &report, const dtc_list &list)
{
	const dtc_description *dtc = named_dtc(report, list);
	if (dtc == nullptr)
		return NRC_REQUEST_OUT_OF_RANGE;
	const uint32_t wanted = report.data[3];
	bool known = wanted == all_records || wanted == emission_records;
	append_dtc_and_status(report, *dtc);
	for (const dtc_extended_data &extended : dtc->extended_data) {
		if (!wants_extended_data(wanted, extended.record))
			continue;
		known = true;
		if (extended.value.empty())
			continue;
		append_number(report.answer, extended.record, 1);
		append(report.answer, extended.value);
	}
	return known ? NRC_NONE : NRC_REQUEST_OUT_OF_RANGE;
}

uds_nrc write_extended_data_of_record(const report &report, const dtc_list &list)
{
	const uint32_t wanted = report.data[0];
	bool known = false;
	append_number(report.answer, wanted, 1);
	for (const dtc_description &dtc : list)
		for (const dtc_extended_data &extended : dtc.extended_data) {
			if (extended.record != wanted)
				continue;
			known = true;
			if (extended.value.empty())
				continue;
			append_dtc_and_status(report, dtc);
			append(report.answer, extended.value);
		}
	return known ? NRC_NONE : NRC_REQUEST_OUT_OF_RANGE;
}

constexpr std::array<report_row, 23> reports = {{
		{0x01, 1, primary, by_status, write_count},
		{0x02, 1, primary, by_status, write_list},
		{0x03, 0, primary, every, write_snapshot_identification},
		{0x04, 4, primary, every, write_snapshots_of_dtc},
		{0x05, 1, primary, every, write_stored_data},
		{0x06, 4, primary, every, write_extended_data_of_dtc},
		{0x07, 2, primary, by_severity, write_count},
		{0x08, 2, primary, by_severity, write_severities},
		{0x09, 3, primary, by_number, write_severity},
		{0x0A, 0, primary, every, write_list},
		{0x0B, 0, primary, has_failed, write_first},
		{0x0C, 0, primary, is_confirmed, write_first},
		{0x0D, 0, primary, has_failed, write_most_recent},
		{0x0E, 0, primary, is_confirmed, write_most_recent},
		{0x0F, 1, mirror, by_status, write_list},
		{0x10, 4, mirror, every, write_extended_data_of_dtc},
		{0x11, 1, mirror, by_status, write_count},
		{0x12, 1, primary, emission_by_status, write_count},
		{0x13, 1, primary, emission_by_status, write_list},
		{0x14, 0, primary, is_prefailed, write_counters},
		{0x15, 0, primary, is_permanent, write_list},
		{0x16, 1, primary, every, write_extended_data_of_record},
		{0x17, 2, user_defined, by_status, write_user_list},
}};
static_assert(reports.size() == 23 && reports.back().number == 0x17, "one row per report, in the order of its number");

const report_row *find_report(uint32_t number)
{
	return number >= 1 && number <= reports.size() ? &reports[number - 1] : nullptr;
}

bool offers(const fault_memory &memory, uint32_t number)
{
	const auto &offered = memory.reports;
	return offered.empty() || std::find(offered.begin(), offered.end(), number) != offered.end();
}

// What the mirror memory and the user memories hold stays, and a permanent code stays one.
void clear(dtc_description *dtc)
{
	dtc->status = not_completed_since_clear | not_completed_this_cycle;
	dtc->fault_detection_counter = 0;
	for (auto *records : {&dtc->snapshots, &dtc->stored_data})
		for (dtc_snapshot &record : *records)
			record.data.clear();
	for (dtc_extended_data &extended : dtc->extended_data)
		extended.value.clear();
}

} // namespace

bool dtc_report_exists(uint32_t report)
{
	return find_report(report) != nullptr;
}

uds_nrc uds_serve_read_dtc(const uds_request &request)
{
	const fault_memory &memory = request.server->faults;
	const uint8_t number = sub_function(request);
	const report_row *row = find_report(number);
	if (row == nullptr || !offers(memory, number))
		return NRC_SUB_FUNCTION_NOT_SUPPORTED;
	if (request.bytes.size() != row->data_length + 2)
		return NRC_INCORRECT_LENGTH;
	const report report = {&memory, row, request.bytes.subspan(2), request.positive};
	const dtc_list *list = row->list(report);
	if (list == nullptr)
		return NRC_REQUEST_OUT_OF_RANGE;
	*request.positive = {0x59, number};
	const uds_nrc nrc = row->write(report, *list);
	return nrc == NRC_NONE && request.positive->size() > longest_pdu ? NRC_RESPONSE_TOO_LONG : nrc;
}

uds_nrc uds_serve_clear_dtc(const uds_request &request)
{
	if (request.bytes.size() != 4)
		return NRC_INCORRECT_LENGTH;
	const uint32_t group = number_at(request.bytes.subspan(1));
	bool known = group == all_groups;
	for (dtc_description &dtc : request.server->faults.dtcs) {
		if (group != all_groups && group != dtc.id)
			continue;
		known = true;
		clear(&dtc);
	}
	*request.positive = {0x54};
	return known ? NRC_NONE : NRC_REQUEST_OUT_OF_RANGE;
}
