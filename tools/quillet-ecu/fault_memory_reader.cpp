#include "fault_memory_reader.h"

#include <array>
#include <set>
#include <string>

#include "description.h"
#include "dtc_reports.h"

namespace
{

// FFFFFF is the group of all codes.
constexpr uint32_t dtc_most = 0xFFFFFE;

// FF asks for all records, and FE for the emissions-related ones among the extended data.
constexpr uint32_t snapshot_record_most = 0xFE;
constexpr uint32_t extended_record_most = 0xEF;

// The number of identifiers in a record is one byte of the answer.
constexpr size_t parameters_most = 255;

// Which numbers a list has had so far; one that comes twice is an error at its own place.
void check_fresh(
		json_reader *reader, const json_place &element, const char *name, uint32_t number, std::set<uint32_t> *seen)
{
	const json_place member = json_member(element, name);
	if (!seen->insert(number).second)
		json_expected(reader, member, "a number that is not there yet");
}

dtc_parameter read_parameter(json_reader *reader, const json_place &place)
{
	dtc_parameter parameter;
	if (!json_only(reader, place, {"id", "value", "text"}))
		return parameter;
	(void)json_hex(reader, place, "id", JSON_REQUIRED, 0xFFFF, &parameter.id); // the reader keeps the error
	(void)json_value(reader, place, longest_pdu, &parameter.value);
	return parameter;
}

dtc_snapshot read_snapshot(json_reader *reader, const json_place &place)
{
	dtc_snapshot snapshot;
	if (!json_only(reader, place, {"record", "data"}))
		return snapshot;
	(void)json_hex(reader, place, "record", JSON_REQUIRED, snapshot_record_most, &snapshot.record);
	(void)json_each(reader, place, "data", JSON_OPTIONAL, // the reader keeps the error
			[&](const json_place &element) { snapshot.data.push_back(read_parameter(reader, element)); });
	if (snapshot.data.size() > parameters_most)
		json_wrong(reader, json_member(place, "data"), "expected at most 255 identifiers");
	return snapshot;
}

void read_snapshots(json_reader *reader, const json_place &place, const char *name, std::set<uint32_t> *seen,
		std::vector<dtc_snapshot> *list)
{
	(void)json_each(reader, place, name, JSON_OPTIONAL, [&](const json_place &element) { // the reader keeps the error
		list->push_back(read_snapshot(reader, element));
		check_fresh(reader, element, "record", list->back().record, seen);
	});
}

dtc_extended_data read_extended_record(json_reader *reader, const json_place &place)
{
	dtc_extended_data extended;
	if (!json_only(reader, place, {"record", "value", "text"}))
		return extended;
	const bool numbered = json_hex(reader, place, "record", JSON_REQUIRED, extended_record_most, &extended.record);
	if (numbered && extended.record == 0)
		json_expected(reader, json_member(place, "record"), "a record from \"01\" to \"EF\"");
	if (json_member(place, "value").value != nullptr || json_member(place, "text").value != nullptr)
		(void)json_value(reader, place, longest_pdu, &extended.value); // the reader keeps the error
	return extended;
}

void read_extended_data(json_reader *reader, const json_place &place, dtc_description *dtc)
{
	std::set<uint32_t> seen;
	(void)json_each(reader, place, "extended_data", JSON_OPTIONAL, [&](const json_place &element) {
		dtc->extended_data.push_back(read_extended_record(reader, element));
		check_fresh(reader, element, "record", dtc->extended_data.back().record, &seen);
	});
}

void read_number_and_status(json_reader *reader, const json_place &place, dtc_description *dtc)
{
	(void)json_hex(reader, place, "id", JSON_REQUIRED, dtc_most, &dtc->id); // the reader keeps the error
	(void)json_hex(reader, place, "status", JSON_REQUIRED, 0xFF, &dtc->status);
}

// stored_records are those of the ECU so far.
dtc_description read_dtc(json_reader *reader, const json_place &place, std::set<uint32_t> *stored_records)
{
	dtc_description dtc;
	if (!json_only(reader, place,
				{"id", "status", "severity", "functional_unit", "fault_detection_counter", "emission", "permanent",
						"snapshots", "stored_data", "extended_data"}))
		return dtc;
	std::set<uint32_t> snapshot_records;
	read_number_and_status(reader, place, &dtc);
	(void)json_hex(reader, place, "severity", JSON_OPTIONAL, 0xFF, &dtc.severity); // the reader keeps the error
	(void)json_hex(reader, place, "functional_unit", JSON_OPTIONAL, 0xFF, &dtc.functional_unit);
	(void)json_hex(reader, place, "fault_detection_counter", JSON_OPTIONAL, 0xFF, &dtc.fault_detection_counter);
	(void)json_flag(reader, place, "emission", &dtc.emission);
	(void)json_flag(reader, place, "permanent", &dtc.permanent);
	read_snapshots(reader, place, "snapshots", &snapshot_records, &dtc.snapshots);
	read_snapshots(reader, place, "stored_data", stored_records, &dtc.stored_data);
	read_extended_data(reader, place, &dtc);
	return dtc;
}

void read_dtcs(json_reader *reader, const json_place &place, std::vector<dtc_description> *dtcs)
{
	std::set<uint32_t> ids;
	std::set<uint32_t> stored_records;
	(void)json_each(reader, place, "dtcs", JSON_OPTIONAL, [&](const json_place &element) { // the reader keeps the error
		dtcs->push_back(read_dtc(reader, element, &stored_records));
		check_fresh(reader, element, "id", dtcs->back().id, &ids);
	});
}

void read_mirror(json_reader *reader, const json_place &place, std::vector<dtc_description> *mirror)
{
	std::set<uint32_t> ids;
	(void)json_each(reader, place, "mirror_memory", JSON_OPTIONAL, [&](const json_place &element) {
		dtc_description dtc;
		if (!json_only(reader, element, {"id", "status", "extended_data"}))
			return;
		read_number_and_status(reader, element, &dtc);
		read_extended_data(reader, element, &dtc);
		check_fresh(reader, element, "id", dtc.id, &ids);
		mirror->push_back(dtc);
	});
}

user_memory_description read_user_memory(json_reader *reader, const json_place &place)
{
	user_memory_description memory;
	std::set<uint32_t> ids;
	if (!json_only(reader, place, {"selection", "dtcs"}))
		return memory;
	(void)json_hex(reader, place, "selection", JSON_REQUIRED, 0xFF, &memory.selection); // the reader keeps the error
	(void)json_each(reader, place, "dtcs", JSON_OPTIONAL, [&](const json_place &element) {
		dtc_description dtc;
		if (!json_only(reader, element, {"id", "status"}))
			return;
		read_number_and_status(reader, element, &dtc);
		check_fresh(reader, element, "id", dtc.id, &ids);
		memory.dtcs.push_back(dtc);
	});
	return memory;
}

void read_user_memories(json_reader *reader, const json_place &place, std::vector<user_memory_description> *memories)
{
	std::set<uint32_t> selections;
	(void)json_each(reader, place, "user_memories", JSON_OPTIONAL, [&](const json_place &element) {
		memories->push_back(read_user_memory(reader, element));
		check_fresh(reader, element, "selection", memories->back().selection, &selections);
	});
}

void read_reports(json_reader *reader, const json_place &place, std::vector<uint32_t> *reports)
{
	(void)json_hex_list(reader, place, "reports", 0x7F, reports); // the reader keeps the error
	for (const uint32_t report : *reports)
		if (!dtc_report_exists(report))
			json_expected(reader, json_member(place, "reports"), "reports from \"01\" to \"17\"");
}

} // namespace

void fault_memory_read(json_reader *reader, const json_place &ecu, fault_memory *memory)
{
	const json_place place = json_member(ecu, "fault_memory");
	if (place.value == nullptr ||
			!json_only(reader, place,
					{"status_availability", "format", "reports", "dtcs", "mirror_memory", "user_memories"}))
		return;
	memory->present = true;
	// Results are the members' own; the reader keeps the errors.
	(void)json_hex(reader, place, "status_availability", JSON_OPTIONAL, 0xFF, &memory->status_availability);
	(void)json_hex(reader, place, "format", JSON_OPTIONAL, 0xFF, &memory->format);
	read_reports(reader, place, &memory->reports);
	read_dtcs(reader, place, &memory->dtcs);
	read_mirror(reader, place, &memory->mirror);
	read_user_memories(reader, place, &memory->user_memories);
}
