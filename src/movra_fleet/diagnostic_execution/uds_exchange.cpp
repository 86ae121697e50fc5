// One command is: send, receive until a final answer, pause. What an ECU answers goes through a buffer of this file and
// reaches the command only when it was received whole.
#include "movra_fleet/diagnostic_execution/uds_exchange.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/common/hex.h"
#include "movra_fleet/common/uds.h"
#include "movra_fleet/diagnostic_execution/channel.h"
#include "movra_fleet/diagnostic_execution/running_channel.h"
#include "movra_fleet/diagnostic_execution/security_access.h"
#include "movra_fleet/diagnostic_execution/tester_present.h"
#include "movra_fleet/replies/routine_reply.h"

namespace
{

constexpr int answer_timeout_ms = 2000;
constexpr uint8_t seed_or_key_response = 0x67;
constexpr uint32_t longest_bare_pause_s = 2; // longer pauses need the keep-alive

// What an answer means for its command.
enum class answer_kind {
	final,   // the command is done
	seed,    // the ECU wants the key before its final answer
	pending, // the final answer comes later
	failed,  // logged; the exchange ends
};

// Local time with a literal "Z": kept as it is.
void write_time(char (&text)[32])
{
	time_t now = time(nullptr);
	struct tm local = {};
	tzset(); // a vehicle changes its time zone; localtime_r alone keeps to the first one
	localtime_r(&now, &local);
	(void)strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &local); // 20 characters, up to the year 9999
}

// Short of memory, the outcome is missing and the command reads as not executed.
void set_outcome(uds_command *command, const char *text)
{
	free(command->error);
	command->error = strdup(text);
}

int fail_command(uds_command *command, const char *text)
{
	FLEET_ERR("%s", text);
	set_outcome(command, text);
	return -1;
}

int receive_answer(const transport_cfg *cfg, uds_command *command)
{
	uint8_t answer[sizeof command->response] = {};
	uint32_t length = sizeof answer;
	if (recv_diag_command(cfg->handle, answer, &length, answer_timeout_ms, cfg->params.kind) < 0)
		return -1;

	memcpy(command->response, answer, sizeof answer); // zeros behind a short answer
	command->response_length = std::min(length, static_cast<uint32_t>(sizeof answer));
	write_time(command->responded_time);
	return 0;
}

uint8_t request_byte(const uds_command *command, uint32_t index)
{
	return index < command->request_length ? command->request[index] : uint8_t{0};
}

// A short answer is followed by zeros, so that the first bytes may always be looked at.
answer_kind classify_answer(const uds_command *command)
{
	const uint8_t *answer = command->response;
	if (answer[0] == (request_byte(command, 0) | uds_positive_response_bit)) {
		bool has_seed = answer[0] == seed_or_key_response && (answer[1] & 1) != 0;
		return has_seed ? answer_kind::seed : answer_kind::final;
	}
	if (answer[0] != uds_negative_response) {
		FLEET_ERR("Invalid Response %x %x %x\n", answer[0], answer[1], answer[2]);
		return answer_kind::failed;
	}
	if (answer[2] == uds_nrc_response_pending) {
		FLEET_LINE(LOG_INFO, "NRC: 0x%x: requestCorrectlyReceived-ResponsePending\n", answer[2]);
		return answer_kind::pending;
	}
	FLEET_ERR("Negative Response %x\n", answer[1]); // the rejected SID, not the NRC: kept as it is
	return answer_kind::failed;
}

int send_key_for(const diag_job *job, const transport_cfg *cfg, const uds_command *command)
{
	const uint8_t *answer = command->response;
	uint32_t seed = static_cast<uint32_t>(answer[2]) << 24 | static_cast<uint32_t>(answer[3]) << 16 |
			static_cast<uint32_t>(answer[4]) << 8 | answer[5];
	return security_access_exchange(job, cfg, seed, request_byte(command, 1));
}

// Receives until the final answer. A chain of pending answers has no limit of its own; the agent's stop ends it.
int await_final_answer(agent_ctx *ctx, const diag_job *job, const transport_cfg *cfg, uds_command *command)
{
	for (bool first = true;; first = false) {
		if ((!first && agent_stop_requested(ctx)) || receive_answer(cfg, command) < 0)
			return fail_command(command, "recv_diag_command failed");

		answer_kind kind = classify_answer(command);
		if (kind == answer_kind::failed) {
			set_outcome(command, "Negative response");
			return -1;
		}
		// Without a key the seed is the command's answer: kept as it is.
		bool done = kind == answer_kind::final ||
				(kind == answer_kind::seed && (agent_stop_requested(ctx) || send_key_for(job, cfg, command) < 0));
		if (done) {
			set_outcome(command, "none");
			return 0;
		}
	}
}

void pause_after(agent_ctx *ctx, transport_cfg *cfg, uint32_t seconds)
{
	if (seconds == 0 || agent_stop_requested(ctx))
		return;
	bool keep_alive = seconds > longest_bare_pause_s;
	if (keep_alive)
		(void)start_tester_present(ctx, cfg); // always 0
	agent_pause(ctx, seconds);
	if (keep_alive)
		(void)stop_tester_present(ctx, cfg); // always 0
}

int run_command(agent_ctx *ctx, const diag_job *job, transport_cfg *cfg, uds_command *command)
{
	if (verbosity >= LOG_ERR)
		log_hex_dump("UDS Data: ", command->request, command->request_length, __LINE__);
	write_time(command->requested_time);
	if (send_diag_command(cfg->handle, command->request, command->request_length, cfg->params.kind) < 0)
		return fail_command(command, "send_diag_command failed");
	if (await_final_answer(ctx, job, cfg, command) < 0)
		return -1;
	pause_after(ctx, cfg, command->timer);
	return 0;
}

// The commands after a failed one, or after the agent's stop, stay as they are: never reached.
void run_commands(agent_ctx *ctx, const diag_job *job, transport_cfg *cfg)
{
	for (uds_command *command = job->commands; command != nullptr; command = command->next)
		if (agent_stop_requested(ctx) || run_command(ctx, job, cfg, command) < 0)
			return;
}

}

int run_uds_commands(agent_ctx *ctx, diag_job *job)
{
	transport_cfg *cfg = job->transport;
	if (cfg == nullptr) {
		FLEET_ERR("Invalid TP Cfg received");
		(void)send_routine_reply(ctx, job); // a failure has been logged
		return -1;
	}

	int result = open_ready_channel(ctx, cfg);
	bool own = true;
	if (result == 0) {
		running_channel_enter(ctx, cfg);
		run_commands(ctx, job, cfg);
		own = running_channel_leave(ctx);
	}
	if (own)
		(void)transport_deinit(cfg->handle, cfg->params.kind); // also of a channel that was not opened: kept as it is
	(void)send_routine_reply(ctx, job);                        // a failure has been logged
	return result;
}
