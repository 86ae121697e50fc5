#include "movra_fleet/request_intake/dtc_request.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/dtc_tables.h"
#include "movra_fleet/common/hex.h"
#include "movra_fleet/request_intake/request_field.h"
#include "scoped.h"
#include "tervUtils.h"

namespace
{

void release_document(json_object *document)
{
	(void)json_object_put(document); // says only whether it was the last reference
}

using owned_json = scoped<json_object, release_document>;

int fail(const char *text)
{
	FLEET_TEXT(LOG_ERR, text);
	return -1;
}

int allocate_data(diag_job *job, size_t length)
{
	job->dtc_data = static_cast<uint8_t *>(calloc(std::max<size_t>(length, 1), 1));
	if (job->dtc_data == nullptr)
		return fail("Memory Allocation failed");
	job->dtc_data_length = static_cast<uint32_t>(length);
	return 0;
}

int parse_mask_record(json_object *record, diag_job *job)
{
	json_object *array = nullptr;
	if (json_get_path(record, json_type_array, &array, "record", nullptr) != 0)
		return fail("Unable to get 'record'");
	owned_json names(array);
	if (!names)
		return fail("Array is NULL");
	uint32_t mask = 0;
	if (parse_status_mask(names.get(), &mask) != 0)
		return fail("Invalid mask");
	if (allocate_data(job, 1) != 0)
		return -1;
	job->dtc_data[0] = static_cast<uint8_t>(mask);
	return 0;
}

// The single digit at the end of a text of odd length has no byte, and is ignored.
int parse_hex_record(json_object *record, diag_job *job)
{
	const char *text = nullptr;
	if (json_get_path(record, json_type_string, &text, "record", nullptr) != 0)
		return fail("Unable to get 'record'");
	if (allocate_data(job, strlen(text) / 2) != 0)
		return -1;
	size_t count = hex_string_to_bytes(text, job->dtc_data, job->dtc_data_length);
	return count == job->dtc_data_length ? 0 : fail("Unable to convert record");
}

struct record_type {
	const char *name;
	int (*parse)(json_object *record, diag_job *job);
};

constexpr record_type record_types[] = {
		{"STATUS_MASK", parse_mask_record},
		{"DTC", parse_hex_record},
		{"RECORD", parse_hex_record},
		{"DTC_AND_RECORD", parse_hex_record},
};
static_assert(sizeof record_types / sizeof *record_types == 4);

}

int parse_dtc_request(json_object *request, diag_job *job)
{
	const char *name = nullptr;
	if (json_get_path(request, json_type_string, &name, "body", "uds", "subfunction", nullptr) != 0)
		return fail("Unable to get subfunction");
	job->dtc_subfunction = dtc_report_type_from_name(name);
	if (job->dtc_subfunction == 0)
		return fail("Unable to get subfunction");
	if (!dtc_report_type_needs_record(job->dtc_subfunction))
		return 0;

	json_object *object = nullptr;
	int found = json_get_path(request, json_type_object, &object, "body", "uds", "data-record", nullptr);
	owned_json record(object);
	if (found != 0 || !field_has_type(request, {"body", "uds", "data-record"}, json_type_object))
		return fail("Unable to get data-record");
	return parse_data_record(record.get(), job) == 0 ? 0 : fail("Unable to expand record");
}

int parse_data_record(json_object *record, diag_job *job)
{
	const char *type = nullptr;
	if (json_get_path(record, json_type_string, &type, "type", nullptr) != 0)
		return fail("Unable to get 'type'");
	for (const record_type &row : record_types)
		if (strcmp(row.name, type) == 0)
			return row.parse(record, job);
	return -1;
}

int parse_status_mask(json_object *names, uint32_t *mask)
{
	if (names == nullptr)
		return fail("mask is NULL");
	if (!json_object_is_type(names, json_type_array))
		return fail("mask is not an array type");
	size_t count = json_object_array_length(names);
	if (count == 0)
		return fail("Array size is zero");

	uint32_t bits = 0;
	for (size_t i = 0; i < count; ++i) {
		const char *name = json_object_get_string(json_object_array_get_idx(names, i));
		if (name != nullptr) // a json null has no text
			bits |= dtc_status_mask_bit(name);
	}
	*mask = bits;
	return 0;
}
