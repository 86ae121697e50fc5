#include "movra_fleet/request_intake/routine_commands.h"

#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/hex.h"
#include "movra_fleet/common/request_number.h"
#include "movra_fleet/common/uds_command.h"
#include "movra_fleet/request_intake/request_field.h"
#include "movra_fleet/request_intake/security_settings.h"
#include "scoped.h"
#include "tervUtils.h"

namespace
{

constexpr uint8_t security_access_sid = 0x27; // ISO 14229-1
constexpr size_t assembly_size = 1024;        // the longest request
constexpr int hexadecimal = 16;
constexpr int decimal = 10;

enum command_result { command_added, list_ended, request_dropped };

void put_document(json_object *document)
{
	(void)json_object_put(document); // says only whether it was the last reference
}

using held_document = scoped<json_object, put_document>;

// NULL when the key is missing, is no string, or is empty.
const char *optional_text(json_object *element, const char *key)
{
	const char *text = nullptr;
	if (json_get_path(element, json_type_string, &text, key, nullptr) != 0 || *text == '\0')
		return nullptr;
	return text;
}

size_t append_data(const char *text, uint8_t *output, size_t capacity)
{
	if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
		text += 2;
	return hex_string_to_bytes(text, output, capacity);
}

// The request's bytes: service, sub-function, data; 0, logged, for a command without a service.
size_t assemble_request(json_object *element, uint8_t buffer[assembly_size])
{
	const char *service = nullptr;
	if (json_get_path(element, json_type_string, &service, "service", nullptr) != 0) {
		FLEET_TEXT(LOG_ERR, "service not found in JSON message");
		return 0;
	}
	size_t length = 0;
	buffer[length++] = static_cast<uint8_t>(request_number(service, hexadecimal));
	if (const char *subfn = optional_text(element, "subfn"); subfn != nullptr)
		buffer[length++] = static_cast<uint8_t>(request_number(subfn, hexadecimal));
	if (const char *data = optional_text(element, "data"); data != nullptr)
		length += append_data(data, buffer + length, assembly_size - length);
	return length;
}

uds_command *new_command(json_object *element)
{
	uint8_t buffer[assembly_size] = {};
	size_t length = assemble_request(element, buffer);
	if (length == 0)
		return nullptr;

	scoped<uds_command, free_uds_command> command(static_cast<uds_command *>(calloc(1, sizeof(uds_command))));
	if (command)
		command->request = static_cast<uint8_t *>(calloc(1, length));
	if (!command || command->request == nullptr) {
		FLEET_TEXT(LOG_ERR, "Memory Allocation failed");
		return nullptr;
	}
	memcpy(command->request, buffer, length);
	command->request_length = static_cast<uint32_t>(length);
	if (const char *timer = optional_text(element, "timer"); timer != nullptr)
		command->timer = request_number(timer, decimal);
	return command.release();
}

// The settings are the same for every command of a request: they are read for the first one.
bool ensure_security(json_object *request, diag_job *job)
{
	if (job->security != nullptr)
		return true;
	json_object *copy = nullptr;
	int found = json_get_path(request, json_type_object, &copy, "body", "routine", "security_access", nullptr);
	held_document settings(copy);
	if (found != 0 || !field_has_type(request, {"body", "routine", "security_access"}, json_type_object)) {
		FLEET_TEXT(LOG_ERR, "No security_access property");
		return false;
	}
	if (parse_security_config(job, settings.get()) != 0) {
		FLEET_TEXT(LOG_ERR, "Failed to parse Security information");
		return false;
	}
	return true;
}

command_result append_command(json_object *request, json_object *element, diag_job *job, uds_command ***tail)
{
	scoped<uds_command, free_uds_command> command(new_command(element));
	if (!command)
		return request_dropped;
	if (command->request[0] == security_access_sid && !ensure_security(request, job))
		return list_ended;
	**tail = command.release();
	*tail = &(**tail)->next;
	job->command_count += 1;
	return command_added;
}

}

int parse_routine(json_object *request, diag_job *job)
{
	json_object *copy = nullptr;
	if (json_get_path(request, json_type_array, &copy, "body", "routine", "commands", nullptr) != 0) {
		FLEET_TEXT(LOG_ERR, "No Command property");
		return -1;
	}
	held_document elements(copy);
	size_t count = json_object_array_length(elements.get());
	if (count > pending_commands_limit) { // before anything is made of them
		FLEET_TEXT(LOG_ERR, "too many pending requests");
		return -1;
	}
	uds_command **tail = &job->commands;
	command_result result = command_added;
	for (size_t i = 0; i < count && result == command_added; i++)
		result = append_command(request, json_object_array_get_idx(elements.get(), i), job, &tail);
	return result == request_dropped ? -1 : 0;
}
