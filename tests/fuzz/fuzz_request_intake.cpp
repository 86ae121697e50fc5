// One message of the bus, through the request intake and the job that it makes, with nothing real behind: the ECU
// answers every request positively (a seed with four bytes) and sends the broadcast that is read, the bus connection is
// already gone, pauses are left out.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fakes/fake_udsutils.h"
#include "logger.h"
#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "movra_fleet/request_intake/dispatch.h"

namespace
{

// All of the formatting runs, none of it is shown.
bool quiet_at_every_level()
{
	verbosity = LOG_D3BG;
	return freopen("/dev/null", "w", stdout) != nullptr;
}

void leave_out_pauses(diag_job *job)
{
	for (uds_command *command = job->commands; command != nullptr; command = command->next)
		command->timer = 0;
}

void run_pending_jobs(agent_ctx *ctx)
{
	for (diag_job *job = pending_jobs_head(ctx); job != nullptr; job = pending_jobs_head(ctx)) {
		leave_out_pauses(job);
		diag_job_worker(ctx);
	}
}

void answer_positively(fake_ecu &ecu, const fake_uds_call &call)
{
	if (call.function == "open_can_port")
		ecu.frames(call.can_id, {{1, 2, 3, 4, 5, 6, 7, 8}});
	if (call.function != "send_diag_command" || call.data.empty())
		return;
	uint8_t sub_function = call.data.size() > 1 ? call.data[1] : uint8_t{0};
	ecu.answers({{static_cast<uint8_t>(call.data[0] | 0x40), sub_function, 1, 2, 3, 4}});
}

}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const bool quiet = quiet_at_every_level();
	if (!quiet)
		abort();

	fake_ecu ecu;
	ecu.on_call = [&ecu](const fake_uds_call &call) {
		answer_positively(ecu, call);
	};
	agent_ctx *ctx = agent_ctx_new();
	if (ctx == nullptr || threadpool_init(&ctx->pool, 0) != 0)
		abort();

	// As the bus hands it over: zero-terminated, the length one more unless the last byte is a zero already.
	std::string text(reinterpret_cast<const char *>(data), size);
	size_t length = size != 0 && data[size - 1] != 0 ? size + 1 : size;
	const address_entry sender = {.type = TERVBUS_ADDRESS_UNIT, .value = {.text = "FLEET-1"}, .next = nullptr};
	(void)handle_bus_message(text.c_str(), length, &sender, ctx); // always 0
	run_pending_jobs(ctx);

	(void)threadpool_destroy(ctx->pool); // always 0
	agent_ctx_free(ctx);
	return 0;
}
