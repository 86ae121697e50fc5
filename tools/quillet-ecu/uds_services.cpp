// The services, one function each and one row in the table. A service checks in the order that ISO 14229-1 gives:
// length as far as it is needed to go on, sub-function, session, security, whole length, sequence.
#include <algorithm>
#include <array>

#include "dtc_reports.h"
#include "uds_state.h"

namespace
{

uint8_t high(uint32_t number)
{
	return static_cast<uint8_t>(number >> 8);
}

uint8_t low(uint32_t number)
{
	return static_cast<uint8_t>(number);
}

uint32_t word_at(const uds_request &request, size_t at)
{
	return static_cast<uint32_t>(request.bytes[at] << 8 | request.bytes[at + 1]);
}

bool in_session(const uds_server *server, const std::vector<uint32_t> &sessions)
{
	return sessions.empty() || std::find(sessions.begin(), sessions.end(), server->session) != sessions.end();
}

bool unlocked(const uds_server *server, const access_rule &access)
{
	return access.security == 0 || access.security == server->unlocked;
}

// The index of the element with this number, or the list's size.
template <typename T>
size_t index_of(const std::vector<T> &list, uint32_t T::*number, uint32_t wanted)
{
	const auto found =
			std::find_if(list.begin(), list.end(), [=](const T &element) { return element.*number == wanted; });
	return static_cast<size_t>(found - list.begin());
}

uds_nrc serve_session_control(const uds_request &request)
{
	const auto &sessions = request.server->ecu->sessions;
	const uint8_t wanted = sub_function(request);
	const size_t index = index_of(sessions, &session_description::id, wanted);
	if (index == sessions.size())
		return NRC_SUB_FUNCTION_NOT_SUPPORTED;
	if (!in_session(request.server, sessions[index].from))
		return NRC_SUB_FUNCTION_NOT_SUPPORTED_IN_SESSION;
	if (request.bytes.size() != 2)
		return NRC_INCORRECT_LENGTH;
	uds_enter_session(request.server, wanted);
	const uint32_t p2_star = sessions[index].p2_star_ms / 10; // its unit is 10 ms
	const uint32_t p2 = sessions[index].p2_ms;
	*request.positive = {0x50, wanted, high(p2), low(p2), high(p2_star), low(p2_star)};
	return NRC_NONE;
}

uds_nrc serve_reset(const uds_request &request)
{
	const auto &resets = request.server->ecu->resets;
	const uint8_t wanted = sub_function(request);
	if (std::find(resets.begin(), resets.end(), wanted) == resets.end())
		return NRC_SUB_FUNCTION_NOT_SUPPORTED;
	if (request.bytes.size() != 2)
		return NRC_INCORRECT_LENGTH;
	request.server->reset_asked = true;
	*request.positive = {0x51, wanted};
	return NRC_NONE;
}

uds_nrc serve_read_identifiers(const uds_request &request)
{
	const uds_server *server = request.server;
	if (request.bytes.size() % 2 == 0)
		return NRC_INCORRECT_LENGTH;
	request.positive->push_back(0x62);
	for (size_t at = 1; at < request.bytes.size(); at += 2) {
		const auto &identifiers = server->ecu->identifiers;
		const size_t index = index_of(identifiers, &identifier_description::id, word_at(request, at));
		// One that is not known here and now is left out; it is refused only when nothing remains.
		if (index == identifiers.size() || !in_session(server, identifiers[index].read.sessions))
			continue;
		if (!unlocked(server, identifiers[index].read))
			return NRC_SECURITY_ACCESS_DENIED;
		append(request.positive, request.bytes.subspan(at, 2));
		append(request.positive, server->values[index]);
		if (request.positive->size() > longest_pdu)
			return NRC_RESPONSE_TOO_LONG;
	}
	return request.positive->size() == 1 ? NRC_REQUEST_OUT_OF_RANGE : NRC_NONE;
}

uds_nrc serve_write_identifier(const uds_request &request)
{
	uds_server *server = request.server;
	const auto &identifiers = server->ecu->identifiers;
	const size_t index = index_of(identifiers, &identifier_description::id, word_at(request, 1));
	if (index == identifiers.size() || !identifiers[index].writable ||
			!in_session(server, identifiers[index].write.sessions))
		return NRC_REQUEST_OUT_OF_RANGE;
	if (!unlocked(server, identifiers[index].write))
		return NRC_SECURITY_ACCESS_DENIED;
	const auto value = request.bytes.subspan(3);
	if (value.size() != server->values[index].size())
		return NRC_INCORRECT_LENGTH;
	server->values[index].assign(value.begin(), value.end());
	*request.positive = {0x6E, request.bytes[1], request.bytes[2]};
	return NRC_NONE;
}

uds_nrc give_seed(const uds_request &request, size_t index)
{
	uds_server *server = request.server;
	const security_description &level = server->ecu->security[index];
	security_state &state = server->security[index];
	if (request.bytes.size() != 2)
		return NRC_INCORRECT_LENGTH;
	if (request.now_us < state.blocked_until_us)
		return NRC_REQUIRED_TIME_DELAY_NOT_EXPIRED;
	uint32_t seed = 0; // the answer of an ECU that is unlocked already
	if (server->unlocked != level.level) {
		seed = level.seed_is_fixed ? level.seed : server->new_seed();
		for (security_state &other : server->security)
			other.seed_is_out = false;
		state.seed_is_out = true;
		state.seed = seed;
	}
	*request.positive = {0x67, sub_function(request), low(seed >> 24), low(seed >> 16), high(seed), low(seed)};
	return NRC_NONE;
}

uds_nrc refuse_key(const uds_request &request, size_t index)
{
	const security_description &level = request.server->ecu->security[index];
	security_state &state = request.server->security[index];
	state.wrong_keys++;
	if (state.wrong_keys < level.attempts)
		return NRC_INVALID_KEY;
	state.wrong_keys = 0;
	state.blocked_until_us = request.now_us + static_cast<int64_t>(level.delay_ms) * 1000;
	return NRC_EXCEEDED_NUMBER_OF_ATTEMPTS;
}

uds_nrc take_key(const uds_request &request, size_t index)
{
	uds_server *server = request.server;
	const security_description &level = server->ecu->security[index];
	security_state &state = server->security[index];
	if (request.bytes.size() != 6)
		return NRC_INCORRECT_LENGTH;
	if (!state.seed_is_out)
		return NRC_REQUEST_SEQUENCE_ERROR;
	state.seed_is_out = false;
	const uint32_t key = word_at(request, 2) << 16 | word_at(request, 4);
	if (key != server->key_of(state.seed, level.script.c_str(), static_cast<uint8_t>(level.key_level)))
		return refuse_key(request, index);
	state.wrong_keys = 0;
	server->unlocked = level.level;
	*request.positive = {0x67, sub_function(request)};
	return NRC_NONE;
}

uds_nrc serve_security_access(const uds_request &request)
{
	const auto &levels = request.server->ecu->security;
	const uint32_t wanted = sub_function(request);
	const bool asks_for_seed = wanted % 2 == 1;
	const size_t index = index_of(levels, &security_description::level, asks_for_seed ? wanted : wanted - 1);
	if (wanted == 0 || index == levels.size())
		return NRC_SUB_FUNCTION_NOT_SUPPORTED;
	if (!in_session(request.server, levels[index].sessions))
		return NRC_SUB_FUNCTION_NOT_SUPPORTED_IN_SESSION;
	return asks_for_seed ? give_seed(request, index) : take_key(request, index);
}

bool out_of_sequence(uint8_t action, routine_state state)
{
	return (action == 2 && state != ROUTINE_STARTED) || (action == 3 && state == ROUTINE_NEVER_STARTED);
}

uds_nrc run_routine(const uds_request &request, const routine_action &action, routine_state *state)
{
	const uint8_t number = sub_function(request);
	const size_t option_length = request.bytes.size() - 4;
	if (option_length < action.option_least || option_length > action.option_most)
		return NRC_INCORRECT_LENGTH;
	if (!action.any_time && out_of_sequence(number, *state))
		return NRC_REQUEST_SEQUENCE_ERROR;
	if (number == 1)
		*state = ROUTINE_STARTED;
	if (number == 2)
		*state = ROUTINE_STOPPED;
	*request.positive = {0x71, number, request.bytes[2], request.bytes[3]};
	append(request.positive, action.answer);
	return NRC_NONE;
}

uds_nrc serve_routine_control(const uds_request &request)
{
	uds_server *server = request.server;
	const auto &routines = server->ecu->routines;
	const uint8_t number = sub_function(request);
	if (number == 0 || number >= routine_action_slots)
		return NRC_SUB_FUNCTION_NOT_SUPPORTED;
	if (request.bytes.size() < 4)
		return NRC_INCORRECT_LENGTH;
	const size_t index = index_of(routines, &routine_description::id, word_at(request, 2));
	if (index == routines.size() || !in_session(server, routines[index].access.sessions))
		return NRC_REQUEST_OUT_OF_RANGE;
	if (!unlocked(server, routines[index].access))
		return NRC_SECURITY_ACCESS_DENIED;
	if (!routines[index].actions[number].offered)
		return NRC_SUB_FUNCTION_NOT_SUPPORTED;
	return run_routine(request, routines[index].actions[number], &server->routines[index]);
}

uds_nrc serve_tester_present(const uds_request &request)
{
	if (sub_function(request) != 0)
		return NRC_SUB_FUNCTION_NOT_SUPPORTED;
	if (request.bytes.size() != 2)
		return NRC_INCORRECT_LENGTH;
	*request.positive = {0x7E, 0x00};
	return NRC_NONE;
}

bool always(const ecu_description &)
{
	return true;
}

bool has_resets(const ecu_description &ecu)
{
	return !ecu.resets.empty();
}

bool has_identifiers(const ecu_description &ecu)
{
	return !ecu.identifiers.empty();
}

bool has_security(const ecu_description &ecu)
{
	return !ecu.security.empty();
}

bool has_writable_identifiers(const ecu_description &ecu)
{
	return std::any_of(ecu.identifiers.begin(), ecu.identifiers.end(),
			[](const identifier_description &identifier) { return identifier.writable; });
}

bool has_fault_memory(const ecu_description &ecu)
{
	return ecu.faults.present;
}

bool has_routines(const ecu_description &ecu)
{
	return !ecu.routines.empty();
}

struct service_row {
	uint8_t sid;
	bool has_sub_function;
	size_t least_length; // below it nothing else is looked at
	bool (*offered)(const ecu_description &ecu);
	uds_nrc (*serve)(const uds_request &request);
};

constexpr std::array<service_row, 9> services = {{
		{0x10, true, 2, always, serve_session_control},
		{0x11, true, 2, has_resets, serve_reset},
		{0x14, false, 4, has_fault_memory, uds_serve_clear_dtc},
		{0x19, true, 2, has_fault_memory, uds_serve_read_dtc},
		{0x22, false, 3, has_identifiers, serve_read_identifiers},
		{0x27, true, 2, has_security, serve_security_access},
		{0x2E, false, 4, has_writable_identifiers, serve_write_identifier},
		{0x31, true, 2, has_routines, serve_routine_control},
		{0x3E, true, 2, always, serve_tester_present},
}};
static_assert(services.back().serve != nullptr, "one row per service");

const service_row *find_service(uint8_t sid)
{
	for (const service_row &row : services)
		if (row.sid == sid)
			return &row;
	return nullptr;
}

// What the description restricts for a whole service.
uds_nrc check_service_access(const uds_server *server, uint8_t sid)
{
	const auto &restricted = server->ecu->services;
	const size_t index = index_of(restricted, &service_description::sid, sid);
	if (index == restricted.size())
		return NRC_NONE;
	if (!in_session(server, restricted[index].access.sessions))
		return NRC_SERVICE_NOT_SUPPORTED_IN_SESSION;
	return unlocked(server, restricted[index].access) ? NRC_NONE : NRC_SECURITY_ACCESS_DENIED;
}

} // namespace

uds_nrc uds_serve(const uds_request &request)
{
	const uint8_t sid = request.bytes[0];
	const service_row *service = find_service(sid);
	if (service == nullptr || !service->offered(*request.server->ecu))
		return NRC_SERVICE_NOT_SUPPORTED;
	const uds_nrc refused = check_service_access(request.server, sid);
	if (refused != NRC_NONE)
		return refused;
	return request.bytes.size() < service->least_length ? NRC_INCORRECT_LENGTH : service->serve(request);
}

bool uds_has_sub_function(uint8_t sid)
{
	const service_row *service = find_service(sid);
	return service != nullptr && service->has_sub_function;
}

void uds_enter_session(uds_server *server, uint32_t session)
{
	server->session = session;
	server->unlocked = 0;
	for (security_state &state : server->security)
		state.seed_is_out = false;
}
