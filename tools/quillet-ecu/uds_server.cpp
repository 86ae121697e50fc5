#include "uds_server.h"

#include <algorithm>
#include <array>

#include "uds_state.h"

namespace
{

constexpr uint8_t sid_tester_present = 0x3E;
constexpr uint8_t sid_negative_response = 0x7F;
constexpr uint8_t suppress_positive_response = 0x80;

// Answers beside the work that may wait for the bus; what a flood of requests brings beyond them is lost, as in an ECU
// whose buffers are full.
constexpr size_t beside_most = 16;

// What an ECU keeps to itself when it was addressed functionally (ISO 14229-1, server response
// implementation rules): others will answer.
constexpr std::array functional_silence = {NRC_SERVICE_NOT_SUPPORTED, NRC_SUB_FUNCTION_NOT_SUPPORTED,
		NRC_REQUEST_OUT_OF_RANGE, NRC_SUB_FUNCTION_NOT_SUPPORTED_IN_SESSION, NRC_SERVICE_NOT_SUPPORTED_IN_SESSION};
static_assert(functional_silence.size() == 5);

struct incoming {
	std::span<const uint8_t> bytes;
	uds_addressing addressing;
	int64_t now_us;
};

int64_t us(uint32_t time_ms)
{
	return static_cast<int64_t>(time_ms) * 1000;
}

std::vector<uint8_t> negative_answer(uint8_t sid, uint32_t nrc)
{
	return {sid_negative_response, sid, static_cast<uint8_t>(nrc)};
}

bool silent_when_functional(uint32_t nrc)
{
	return std::find(functional_silence.begin(), functional_silence.end(), nrc) != functional_silence.end();
}

// A default session lasts; another one ends S3 after the last request's work.
void start_s3(uds_server *server, int64_t now_us)
{
	server->s3_end_us = server->session == default_session ? uds_never : now_us + us(server->ecu->s3_ms);
}

void reset_ecu(uds_server *server, int64_t now_us)
{
	uds_enter_session(server, default_session);
	std::fill(server->routines.begin(), server->routines.end(), ROUTINE_NEVER_STARTED);
	server->silent_until_us = now_us + us(server->ecu->reset_ms);
}

void finish_work(uds_server *server, int64_t now_us)
{
	const bool resets = server->work.resets;
	server->work = {};
	if (resets)
		reset_ecu(server, now_us);
	start_s3(server, now_us);
}

bool matches(const override_description &override, std::span<const uint8_t> request)
{
	const auto &prefix = override.request;
	if (request.size() < prefix.size() || (override.whole && request.size() != prefix.size()))
		return false;
	return std::equal(prefix.begin(), prefix.end(), request.begin());
}

// The first override that matches and is not used up; counts the use.
const override_description *find_override(uds_server *server, std::span<const uint8_t> request)
{
	const auto &overrides = server->ecu->overrides;
	for (size_t index = 0; index < overrides.size(); index++) {
		uint32_t &hits = server->override_hits[index];
		if (!matches(overrides[index], request) || (overrides[index].times != 0 && hits >= overrides[index].times))
			continue;
		if (overrides[index].times != 0)
			hits++;
		return &overrides[index];
	}
	return nullptr;
}

// The request's own answer; empty for none. After a response-pending answer the final one is owed in any case, as
// ISO 14229-1 says, suppressed or not.
std::vector<uint8_t> own_answer(uds_server *server, const incoming &request, uint32_t forced_nrc, bool pending_was_sent)
{
	const uint8_t sid = request.bytes[0];
	std::vector<uint8_t> positive;
	uint32_t nrc = forced_nrc;
	if (nrc == NRC_NONE)
		nrc = uds_serve({server, request.bytes, request.now_us, &positive});
	if (nrc != NRC_NONE) {
		const bool kept = request.addressing == UDS_FUNCTIONAL && silent_when_functional(nrc) && !pending_was_sent;
		return kept ? std::vector<uint8_t>() : negative_answer(sid, nrc);
	}
	const bool suppressed = uds_has_sub_function(sid) && (request.bytes[1] & suppress_positive_response) != 0;
	return suppressed && !pending_was_sent ? std::vector<uint8_t>() : positive;
}

std::vector<uint8_t> final_answer(uds_server *server, const incoming &request, const override_description &override)
{
	switch (override.kind) {
	case OVERRIDE_SILENT:
		return {};
	case OVERRIDE_ANSWER:
		return override.answer;
	default:
		break;
	}
	const uint32_t forced = override.kind == OVERRIDE_NEGATIVE ? override.nrc : uint32_t{NRC_NONE};
	return own_answer(server, request, forced, override.endless || override.pending_count > 0);
}

void begin_work(uds_server *server, const incoming &request)
{
	static const override_description no_override = {};
	const override_description *found = find_override(server, request.bytes);
	const override_description &override = found != nullptr ? *found : no_override;

	server->reset_asked = false;
	uds_work work = {.under_way = true, .sid = request.bytes[0]};
	work.final_answer = final_answer(server, request, override);
	work.next_us = request.now_us + us(override.delay_ms);
	work.interval_us = us(override.pending_interval_ms);
	work.pending_left = override.pending_count;
	work.endless = override.endless;
	work.resets = server->reset_asked;
	server->work = work;
	if (work.final_answer.empty() && !work.endless)
		finish_work(server, request.now_us);
}

// A request that comes while another is worked on. TesterPresent keeps the session open meanwhile.
void serve_beside_work(uds_server *server, const incoming &request)
{
	const uint8_t sid = request.bytes[0];
	if (server->beside.size() >= beside_most)
		return;
	if (sid != sid_tester_present) {
		server->beside.push_back(negative_answer(sid, NRC_BUSY_REPEAT_REQUEST));
		return;
	}
	std::vector<uint8_t> answer = own_answer(server, request, NRC_NONE, false);
	if (!answer.empty())
		server->beside.push_back(answer);
}

} // namespace

uds_server *uds_server_new(const ecu_description *ecu, uds_key_function key_of, uds_seed_function new_seed)
{
	auto *server = new uds_server{.ecu = ecu, .key_of = key_of, .new_seed = new_seed};
	for (const identifier_description &identifier : ecu->identifiers)
		server->values.push_back(identifier.value);
	server->security.resize(ecu->security.size());
	server->routines.resize(ecu->routines.size(), ROUTINE_NEVER_STARTED);
	server->faults = ecu->faults;
	server->override_hits.resize(ecu->overrides.size());
	return server;
}

void uds_server_free(uds_server *server)
{
	delete server;
}

void uds_server_request(uds_server *server, std::span<const uint8_t> bytes, uds_addressing addressing, int64_t now_us)
{
	const incoming request = {bytes, addressing, now_us};
	if (bytes.empty() || now_us < server->silent_until_us)
		return;
	if (server->work.under_way && (!server->work.endless || bytes[0] == sid_tester_present)) {
		serve_beside_work(server, request);
		return;
	}
	if (!server->work.under_way && now_us >= server->s3_end_us)
		uds_enter_session(server, default_session);
	begin_work(server, request);
}

bool uds_server_take_answer(uds_server *server, int64_t now_us, std::vector<uint8_t> *answer)
{
	if (!server->beside.empty()) {
		*answer = server->beside.front();
		server->beside.pop_front();
		return true;
	}
	uds_work &work = server->work;
	if (!work.under_way || now_us < work.next_us)
		return false;
	if (work.endless || work.pending_left > 0) {
		*answer = negative_answer(work.sid, NRC_RESPONSE_PENDING);
		work.pending_left -= work.endless ? 0 : 1;
		work.next_us += work.interval_us;
		if (work.next_us <= now_us) // taken late: what was missed is not made up for
			work.next_us = now_us + work.interval_us;
		return true;
	}
	*answer = work.final_answer;
	finish_work(server, now_us);
	return true;
}

int64_t uds_server_deadline(const uds_server *server)
{
	if (!server->beside.empty())
		return 0;
	return server->work.under_way ? server->work.next_us : uds_never;
}
