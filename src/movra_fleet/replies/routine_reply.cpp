#include "movra_fleet/replies/routine_reply.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/hex.h"
#include "movra_fleet/common/uds_command.h"
#include "movra_fleet/replies/reply_envelope.h"
#include "scoped.h"

namespace
{

using owned_command = scoped<uds_command, free_uds_command>;

uds_command *take_first_command(diag_job *job)
{
	uds_command *command = job->commands;
	job->commands = command->next;
	command->next = nullptr;
	return command;
}

void add_service(json_object *element, const uds_command *command)
{
	char service[8] = "";
	unsigned sid = command->request_length > 0 ? command->request[0] : 0;
	(void)snprintf(service, sizeof service, "0x%02X", sid); // four characters
	(void)reply_add_text(element, "service", service);
}

// The response as hexadecimal text, "-" when there is none; NULL when memory is short.
char *response_text(const uds_command *command)
{
	return command->response_length != 0 ? bytes_to_hex_string(command->response, command->response_length)
										 : strdup("-");
}

// One element of the reply. Short of memory a member, or the whole of it, is left out.
json_object *command_element(const uds_command *command, const char *response)
{
	owned_json element(json_object_new_object());
	if (!element)
		return nullptr;
	add_service(element.get(), command);
	(void)reply_add_text(element.get(), "requested-time", command->requested_time);
	(void)reply_add_text(element.get(), "responded-time", command->responded_time);
	(void)reply_add_text(element.get(), "response-data", response);
	(void)reply_add_text(element.get(), "error", command->error != nullptr ? command->error : "Command not executed");
	return element.release();
}

void append(json_object *array, json_object *element)
{
	owned_json owned(element);
	if (array != nullptr && owned && json_object_array_add(array, owned.get()) == 0)
		(void)owned.release(); // the array's now
}

// The list of elements, or NULL when memory is short; the commands are consumed all the same.
json_object *take_commands(diag_job *job)
{
	owned_json array(json_object_new_array());
	while (job->commands != nullptr) {
		owned_command command(take_first_command(job));
		scoped<char, free> response(response_text(command.get()));
		if (!response) {
			FLEET_ERR("Could not get string");
			break;
		}
		append(array.get(), command_element(command.get(), response.get()));
	}
	return array.release();
}

}

int send_routine_reply(agent_ctx *ctx, diag_job *job)
{
	owned_json body(json_object_new_object());
	if (!body) {
		FLEET_ERR("Could not create JSON 'body' message");
		return -1;
	}
	// One text for both members: kept as it is.
	if (reply_add(body.get(), "routine-response", take_commands(job)) != 0 ||
			reply_add_text(body.get(), "targetAddress", job->target_address) != 0) {
		FLEET_ERR("Could not add 'uds' to JSON");
		return -1;
	}
	return reply_send(ctx, job, body.release(), &report_texts);
}
