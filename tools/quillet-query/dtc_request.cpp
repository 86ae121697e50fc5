#include "dtc_request.h"

#include "dtc_names.h"
#include "hex_text.h"

namespace
{

constexpr uint8_t every_record = 0xFF;

unsigned given_needs(const dtc_options &options)
{
	unsigned given = needs_nothing;
	given |= options.status_mask.empty() ? 0u : needs_status_mask;
	given |= options.severity.empty() ? 0u : needs_severity_mask;
	given |= options.dtc.empty() ? 0u : needs_dtc;
	given |= options.record.empty() ? 0u : needs_record;
	given |= options.memory.empty() ? 0u : needs_memory;
	return given;
}

const dtc_report *find_report(const dtc_options &options, std::string &error)
{
	const dtc_report *report = dtc_report_by_name(options.report);
	if (report == nullptr) {
		error = "there is no report \"" + options.report + "\"; the reports are " + dtc_report_names();
		return nullptr;
	}
	const unsigned given = given_needs(options);
	if ((report->needs & ~given) != 0) {
		error = "the report " + options.report + " needs " + dtc_need_options(report->needs & ~given);
		return nullptr;
	}
	if ((given & ~report->needs) != 0) {
		error = "the report " + options.report + " does not take " + dtc_need_options(given & ~report->needs);
		return nullptr;
	}
	return report;
}

struct dtc_values {
	uint8_t status_mask = 0;
	uint8_t severity = 0;
	uint32_t dtc = 0;
	uint8_t record = 0;
	uint8_t memory = 0;
};

bool parse_record(const std::string &text, uint8_t &record)
{
	record = every_record;
	return text == "all" || parse_hex_byte(text, record);
}

bool parse_values(const dtc_options &options, dtc_values &values, std::string &error)
{
	if (!options.status_mask.empty() && !parse_status_mask(options.status_mask, values.status_mask, error))
		return false;
	if (!options.severity.empty() && !parse_severity_mask(options.severity, values.severity, error))
		return false;
	if (!options.dtc.empty() && !parse_dtc(options.dtc, values.dtc))
		error = "--dtc \"" + options.dtc +
				"\" is no DTC; write P0123-45, or its three bytes in hexadecimal, as in 012345";
	else if (!options.record.empty() && !parse_record(options.record, values.record))
		error = "--record \"" + options.record + "\" is neither a byte in hexadecimal, as in 01, nor all";
	else if (!options.memory.empty() && !parse_hex_byte(options.memory, values.memory))
		error = "--memory \"" + options.memory + "\" is not a byte in hexadecimal, as in 01";
	else
		return true;
	return false;
}

json_pointer record_object(const char *type, json_object *record)
{
	json_pointer object(json_object_new_object());
	add_text(object.get(), "type", type);
	json_object_object_add(object.get(), "record", record);
	return object;
}

// A mask goes by its bits' names where it can. One without any bit cannot, nor one that is not alone.
json_pointer data_record(const dtc_report &report, const dtc_values &values)
{
	if (report.needs == needs_status_mask && values.status_mask != 0) {
		json_object *names = json_object_new_array();
		for (const std::string &name : agent_status_names(values.status_mask))
			json_object_array_add(names, json_object_new_string(name.c_str()));
		return record_object("STATUS_MASK", names);
	}
	std::string bytes;
	if ((report.needs & needs_dtc) != 0)
		bytes += hex_of(static_cast<uint8_t>(values.dtc >> 16)) + hex_of(static_cast<uint8_t>(values.dtc >> 8)) +
				hex_of(static_cast<uint8_t>(values.dtc));
	if ((report.needs & needs_record) != 0)
		bytes += hex_of(values.record);
	if ((report.needs & needs_severity_mask) != 0)
		bytes += hex_of(values.severity);
	if ((report.needs & needs_status_mask) != 0)
		bytes += hex_of(values.status_mask);
	if ((report.needs & needs_memory) != 0)
		bytes += hex_of(values.memory);
	const char *dtc_type = (report.needs & needs_record) != 0 ? "DTC_AND_RECORD" : "DTC";
	return record_object((report.needs & needs_dtc) != 0 ? dtc_type : "RECORD", json_object_new_string(bytes.c_str()));
}

} // namespace

bool build_dtc_request(const dtc_options &options, const std::string &reply_id, std::string &request, ecu_names &names,
		std::string &error)
{
	const dtc_report *report = find_report(options, error);
	dtc_values values;
	request_target target;
	if (report == nullptr || !parse_values(options, values, error) || !find_target(options.transport, target, error))
		return false;
	json_pointer uds(json_object_new_object());
	add_text(uds.get(), "SID", "19");
	add_text(uds.get(), "subfunction", report->agent_name);
	if (report->needs != needs_nothing)
		json_object_object_add(uds.get(), "data-record", data_record(*report, values).release());
	names = target.names;
	request = request_text(reply_id, std::move(target), "uds", std::move(uds));
	return true;
}
