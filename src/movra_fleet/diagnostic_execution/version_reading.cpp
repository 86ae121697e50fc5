#include "movra_fleet/diagnostic_execution/version_reading.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/hex.h"
#include "movra_fleet/common/uds.h"
#include "movra_fleet/common/utf8.h"
#include "movra_fleet/diagnostic_execution/channel.h"
#include "movra_fleet/diagnostic_execution/frame_reader.h"
#include "movra_fleet/diagnostic_execution/j1939_settings.h"
#include "movra_fleet/diagnostic_execution/running_channel.h"
#include "movra_fleet/replies/version_reply.h"
#include "scoped.h"

namespace
{

constexpr int answer_timeout_ms = 1000;
constexpr uint8_t read_data_response = 0x62; // ReadDataByIdentifier, positive
constexpr uint32_t read_data_header = 3;     // service and the two bytes of the identifier
constexpr size_t request_size = 2048;
constexpr uint32_t response_size = 1024;
constexpr size_t version_size = 1024;

// What the job's reply will say.
struct version_text {
	char text[version_size];
	bool obtained;
};

// One answer, zeros behind it up to the end and one beyond it, where the scan of a full buffer ends.
struct version_answer {
	uint8_t bytes[response_size + 1];
};

// The longest data that the rule below gives fit both buffers, as they are and as digits.
constexpr size_t longest_data = UINT8_MAX;
static_assert(read_data_header + longest_data <= response_size);
static_assert(2 * longest_data < version_size);

// How many bytes an answer's data have is told by the number of requests, not by the answer: kept as it is.
uint8_t data_length(json_object *query)
{
	return static_cast<uint8_t>(json_object_array_length(query) - read_data_header);
}

void take_version(const version_answer *answer, uint8_t length, version_text *version)
{
	const uint8_t *data = answer->bytes + read_data_header;
	if (is_valid_utf8(data, length)) {
		memcpy(version->text, data, length);
		version->text[length] = '\0';
	} else {
		version->text[0] = '\0';
		for (uint32_t i = 0; i < length; ++i)
			(void)snprintf(version->text + 2 * i, 3, "%02x", data[i]); // exactly two digits
	}
	version->obtained = true;
}

// Receives until the final answer. A chain of pending answers has no limit of its own; the agent's stop ends it.
int await_answer(agent_ctx *ctx, const transport_cfg *cfg, uint8_t sid, version_answer *answer)
{
	for (bool first = true;; first = false) {
		*answer = {};
		uint32_t length = response_size;
		if ((!first && agent_stop_requested(ctx)) ||
				recv_diag_command(cfg->handle, answer->bytes, &length, answer_timeout_ms, cfg->params.kind) < 0) {
			FLEET_ERR("recv_diag_command failed");
			return -1;
		}
		const uint8_t *bytes = answer->bytes;
		if (bytes[0] == (sid | uds_positive_response_bit))
			return 0;
		if (bytes[0] != uds_negative_response) {
			FLEET_ERR("Invalid Response %x %x %x\n", bytes[0], bytes[1], bytes[2]);
			return -1;
		}
		if (bytes[2] != uds_nrc_response_pending) {
			FLEET_ERR("Negative Response %x\n", bytes[1]); // the rejected SID, not the NRC: kept as it is
			return -1;
		}
		FLEET_LINE(LOG_INFO, "NRC: 0x%x: requestCorrectlyReceived-ResponsePending\n", bytes[2]);
	}
}

// Sends one request, given as hexadecimal text, and receives its answer.
int exchange(agent_ctx *ctx, const transport_cfg *cfg, const char *text, version_answer *answer)
{
	FLEET_LINE(LOG_D2BG, "Sending : %s to %X\n", text, cfg->params.phy_req_id);
	uint8_t request[request_size] = {};
	size_t length = std::min(strlen(text) / 2, sizeof request);
	(void)hex_string_to_bytes(text, request, length); // as many as there is text for
	if (send_diag_command(cfg->handle, request, static_cast<uint32_t>(length), cfg->params.kind) < 0) {
		FLEET_ERR("send_diag_command failed");
		return -1;
	}
	return await_answer(ctx, cfg, request[0], answer);
}

// The requests in order, up to the first failure or the agent's stop; a later version replaces an earlier one.
void read_requests(agent_ctx *ctx, const diag_job *job, const transport_cfg *cfg, version_text *version)
{
	size_t count = json_object_array_length(job->version_query);
	for (size_t i = 0; i < count && !agent_stop_requested(ctx); ++i) {
		const char *text = json_object_get_string(json_object_array_get_idx(job->version_query, i));
		version_answer answer;
		if (exchange(ctx, cfg, text != nullptr ? text : "", &answer) < 0)
			return;
		if (answer.bytes[0] == read_data_response)
			take_version(&answer, data_length(job->version_query), version);
	}
}

int reply(agent_ctx *ctx, const diag_job *job, const version_text *version)
{
	if (!version->obtained)
		return -1;
	(void)send_version_reply(ctx, job, version->text); // a failure has been logged
	return 0;
}

int read_uds_version(agent_ctx *ctx, diag_job *job, transport_cfg *cfg)
{
	int result = -1;
	bool own = true;
	if (open_ready_channel(ctx, cfg) == 0) {
		version_text version = {};
		running_channel_enter(ctx, cfg);
		read_requests(ctx, job, cfg, &version);
		own = running_channel_leave(ctx);
		result = reply(ctx, job, &version);
	}
	if (own)
		(void)transport_deinit(cfg->handle, cfg->params.kind); // also of a channel that was not opened: kept as it is
	return result;
}

// Toward zero; what no 32-bit number can hold ends at its limits.
int32_t whole_number(double value)
{
	return static_cast<int32_t>(std::clamp<double>(value, INT32_MIN, INT32_MAX));
}

// One number for each signal, with dots between them, up to the first that cannot be decoded or the end of the text.
void read_signals(j1939_signal *signals, const uint8_t *data, version_text *version)
{
	size_t used = 0;
	for (j1939_signal *signal = signals; signal != nullptr; signal = signal->next) {
		double value = 0;
		if (decode_signal(signal, data, &value) != 0)
			break;
		int added = snprintf(
				version->text + used, version_size - used, signal == signals ? "%d" : ".%d", whole_number(value));
		used = std::min(used + static_cast<size_t>(std::max(added, 0)), version_size - 1);
	}
	version->obtained = true;
}

// One frame from the broadcast. 0, or -1, logged.
int receive_broadcast(agent_ctx *ctx, const j1939_settings *settings, uint8_t (&data)[8])
{
	if (agent_stop_requested(ctx)) // to open a port may take seconds
		return -1;
	int descriptor = open_can_port(settings->ifname, settings->id);
	if (descriptor < 0) {
		FLEET_ERR("Unable to open can port on %s bus\n", settings->ifname);
		return -1;
	}
	if (read_one_frame(ctx, descriptor, data) != 0) {
		FLEET_ERR("Unable to read Version");
		return -1;
	}
	return 0;
}

int read_j1939_version(agent_ctx *ctx, diag_job *job, transport_cfg *cfg)
{
	if (agent_stop_requested(ctx) || !interface_ready(cfg))
		return -1;
	FLEET_LINE(LOG_INFO, "%s\n", json_object_to_json_string(job->version_query));
	FLEET_TEXT(LOG_INFO, "Using J1939\n");
	scoped<j1939_settings, free_j1939_settings> settings(parse_j1939_settings(job->version_query));
	if (!settings) {
		FLEET_ERR("unable to parse j1939 version info");
		return -1;
	}
	uint8_t data[8] = {};
	if (receive_broadcast(ctx, settings.get(), data) != 0)
		return -1;
	version_text version = {};
	read_signals(settings->signals, data, &version);
	return reply(ctx, job, &version);
}

}

int read_version(agent_ctx *ctx, diag_job *job)
{
	transport_cfg *cfg = job->transport;
	if (cfg == nullptr) {
		FLEET_ERR("Invalid TP Cfg received");
		return -1;
	}
	if (job->version_kind == VERSION_UDS)
		return read_uds_version(ctx, job, cfg);
	if (job->version_kind == VERSION_J1939)
		return read_j1939_version(ctx, job, cfg);
	return -1;
}
