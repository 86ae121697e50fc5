#include "description.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include <json-c/json.h>

#include "description_check.h"
#include "fault_memory_reader.h"
#include "json_reader.h"

namespace
{

constexpr uint32_t can_id_most = 0x1FFFFFFF;
constexpr uint32_t time_most_ms = 3600000;
constexpr size_t frame_data_most = 8;

// What an ECU does unless its description says otherwise; the times are those that ISO 14229-2 recommends.
constexpr uint32_t default_p2_ms = 50;
constexpr uint32_t default_p2_star_ms = 5000;
constexpr uint32_t default_s3_ms = 5000;
constexpr uint32_t default_attempts = 3;
constexpr uint32_t default_delay_ms = 10000;

// The most that the answer's two bytes can say: P2 in ms, P2* in steps of 10 ms.
constexpr uint32_t p2_most_ms = 0xFFFF;
constexpr uint32_t p2_star_most_ms = 0xFFFF * 10;

void read_time(json_reader *reader, const json_place &object, const char *name, uint32_t *time_ms)
{
	(void)json_number(reader, object, name, JSON_OPTIONAL, 0, time_most_ms, time_ms); // the reader keeps the error
}

void read_access(json_reader *reader, const json_place &object, access_rule *access)
{
	(void)json_hex_list(reader, object, "sessions", 0x7F, &access->sessions); // the reader keeps the error
	(void)json_hex(reader, object, "security", JSON_OPTIONAL, 0x7F, &access->security);
}

session_description read_session(
		json_reader *reader, const json_place &place, uint32_t default_p2, uint32_t default_p2_star)
{
	session_description session = {.p2_ms = default_p2, .p2_star_ms = default_p2_star};
	if (!json_only(reader, place, {"id", "from", "p2_ms", "p2_star_ms"}))
		return session;
	if (json_hex(reader, place, "id", JSON_REQUIRED, 0x7E, &session.id) && session.id == 0)
		json_expected(reader, json_member(place, "id"), "a session from \"01\" to \"7E\"");
	(void)json_hex_list(reader, place, "from", 0x7F, &session.from); // the reader keeps the error
	(void)json_number(reader, place, "p2_ms", JSON_OPTIONAL, 0, p2_most_ms, &session.p2_ms);
	(void)json_number(reader, place, "p2_star_ms", JSON_OPTIONAL, 0, p2_star_most_ms, &session.p2_star_ms);
	return session;
}

// The default session is there without being listed; listed, it keeps its place at the front.
void read_sessions(json_reader *reader, const json_place &place, ecu_description *ecu)
{
	uint32_t p2_ms = default_p2_ms;
	uint32_t p2_star_ms = default_p2_star_ms;
	(void)json_number(reader, place, "p2_ms", JSON_OPTIONAL, 0, p2_most_ms, &p2_ms); // the reader keeps the error
	(void)json_number(reader, place, "p2_star_ms", JSON_OPTIONAL, 0, p2_star_most_ms, &p2_star_ms);
	ecu->sessions.push_back({.id = 1, .from = {}, .p2_ms = p2_ms, .p2_star_ms = p2_star_ms});
	std::set<uint32_t> listed;
	(void)json_each(reader, place, "sessions", JSON_OPTIONAL, [&](const json_place &element) {
		const session_description session = read_session(reader, element, p2_ms, p2_star_ms);
		if (!listed.insert(session.id).second)
			json_expected(reader, json_member(element, "id"), "a session that is not listed yet");
		if (session.id == 1)
			ecu->sessions.front() = session;
		else
			ecu->sessions.push_back(session);
	});
}

service_description read_service(json_reader *reader, const json_place &place)
{
	service_description service;
	if (!json_only(reader, place, {"service", "sessions", "security"}))
		return service;
	(void)json_hex(reader, place, "service", JSON_REQUIRED, 0xFF, &service.sid); // the reader keeps the error
	read_access(reader, place, &service.access);
	return service;
}

security_description read_security(json_reader *reader, const json_place &place)
{
	security_description security = {.attempts = default_attempts, .delay_ms = default_delay_ms};
	if (!json_only(reader, place, {"level", "sessions", "script", "key_level", "seed", "attempts", "delay_ms"}))
		return security;
	if (json_hex(reader, place, "level", JSON_REQUIRED, 0x7D, &security.level) && security.level % 2 == 0)
		json_expected(reader, json_member(place, "level"), "an odd number: the sub-function that requests the seed");
	security.key_level = security.level;
	(void)json_hex_list(reader, place, "sessions", 0x7F, &security.sessions); // the reader keeps the error
	(void)json_text(reader, place, "script", JSON_OPTIONAL, &security.script);
	(void)json_hex(reader, place, "key_level", JSON_OPTIONAL, 0xFF, &security.key_level);
	security.seed_is_fixed = json_hex(reader, place, "seed", JSON_OPTIONAL, 0xFFFFFFFF, &security.seed);
	if (security.seed_is_fixed && security.seed == 0)
		json_expected(reader, json_member(place, "seed"), "a seed above 0: a seed of 0 says that the ECU is unlocked");
	(void)json_number(reader, place, "attempts", JSON_OPTIONAL, 1, 255, &security.attempts);
	read_time(reader, place, "delay_ms", &security.delay_ms);
	return security;
}

identifier_description read_identifier(json_reader *reader, const json_place &place)
{
	identifier_description identifier;
	if (!json_only(reader, place, {"id", "value", "text", "read", "write"}))
		return identifier;
	(void)json_hex(reader, place, "id", JSON_REQUIRED, 0xFFFF, &identifier.id); // the reader keeps the error
	(void)json_value(reader, place, longest_pdu - 3, &identifier.value);
	const json_place read = json_member(place, "read");
	if (read.value != nullptr && json_only(reader, read, {"sessions", "security"}))
		read_access(reader, read, &identifier.read);
	const json_place write = json_member(place, "write");
	identifier.writable = write.value != nullptr;
	if (identifier.writable && json_only(reader, write, {"sessions", "security"}))
		read_access(reader, write, &identifier.write);
	return identifier;
}

void read_routine_action(json_reader *reader, const json_place &routine, const char *name, routine_action *action)
{
	const json_place place = json_member(routine, name);
	if (place.value == nullptr || !json_only(reader, place, {"option", "option_most", "answer", "any_time"}))
		return;
	action->offered = true;
	// Results are the members' own; the reader keeps the errors.
	(void)json_number(reader, place, "option", JSON_OPTIONAL, 0, longest_pdu - 4, &action->option_least);
	action->option_most = action->option_least;
	(void)json_number(
			reader, place, "option_most", JSON_OPTIONAL, action->option_least, longest_pdu - 4, &action->option_most);
	(void)json_bytes(reader, place, "answer", JSON_OPTIONAL, longest_pdu - 4, &action->answer);
	(void)json_flag(reader, place, "any_time", &action->any_time);
}

routine_description read_routine(json_reader *reader, const json_place &place)
{
	routine_description routine;
	if (!json_only(reader, place, {"id", "sessions", "security", "start", "stop", "results"}))
		return routine;
	(void)json_hex(reader, place, "id", JSON_REQUIRED, 0xFFFF, &routine.id); // the reader keeps the error
	read_access(reader, place, &routine.access);
	read_routine_action(reader, place, "start", &routine.actions[1]);
	read_routine_action(reader, place, "stop", &routine.actions[2]);
	read_routine_action(reader, place, "results", &routine.actions[3]);
	routine.actions[1].any_time = true;
	return routine;
}

void read_pending(json_reader *reader, const json_place &override_place, override_description *override)
{
	const json_place place = json_member(override_place, "pending");
	if (place.value == nullptr || !json_only(reader, place, {"count", "endless", "interval_ms"}))
		return;
	(void)json_flag(reader, place, "endless", &override->endless); // the reader keeps the error
	if (override->endless == (json_member(place, "count").value != nullptr))
		json_wrong(reader, place, "expected either \"count\" or \"endless\": true");
	(void)json_number(reader, place, "count", JSON_OPTIONAL, 1, 1000000, &override->pending_count);
	(void)json_number(reader, place, "interval_ms", JSON_REQUIRED, 1, time_most_ms, &override->pending_interval_ms);
}

// A negative answer, an answer or silence in place of the normal answer: one of them at most.
void read_override_kind(json_reader *reader, const json_place &place, override_description *override)
{
	bool silent = false;
	(void)json_flag(reader, place, "silent", &silent); // the reader keeps the error
	int kinds = 0;
	if (json_hex(reader, place, "negative", JSON_OPTIONAL, 0xFF, &override->nrc)) {
		if (override->nrc == 0)
			json_expected(reader, json_member(place, "negative"), "a negative response code from \"01\" to \"FF\"");
		override->kind = OVERRIDE_NEGATIVE;
		kinds++;
	}
	if (json_bytes(reader, place, "answer", JSON_OPTIONAL, longest_pdu, &override->answer)) {
		override->kind = OVERRIDE_ANSWER;
		kinds++;
	}
	if (silent) {
		override->kind = OVERRIDE_SILENT;
		kinds++;
	}
	if (kinds > 1)
		json_wrong(reader, place, "expected one of \"negative\", \"answer\" and \"silent\" at most");
	if (override->kind == OVERRIDE_ANSWER && override->answer.empty())
		json_expected(reader, json_member(place, "answer"), "at least one byte");
}

override_description read_override(json_reader *reader, const json_place &place)
{
	override_description override;
	if (!json_only(reader, place, {"request", "whole", "negative", "answer", "silent", "times", "delay_ms", "pending"}))
		return override;
	if (json_bytes(reader, place, "request", JSON_REQUIRED, longest_pdu, &override.request) && override.request.empty())
		json_expected(reader, json_member(place, "request"), "at least the service's byte");
	(void)json_flag(reader, place, "whole", &override.whole); // the reader keeps the error
	read_override_kind(reader, place, &override);
	(void)json_number(reader, place, "times", JSON_OPTIONAL, 1, 1000000, &override.times);
	read_time(reader, place, "delay_ms", &override.delay_ms);
	read_pending(reader, place, &override);
	if (override.kind == OVERRIDE_SILENT && json_member(place, "pending").value != nullptr)
		json_wrong(reader, place, "\"silent\" and \"pending\" exclude each other");
	return override;
}

broadcast_description read_broadcast(json_reader *reader, const json_place &place)
{
	broadcast_description broadcast;
	if (!json_only(reader, place, {"id", "data", "period_ms", "delay_ms"}))
		return broadcast;
	(void)json_hex(reader, place, "id", JSON_REQUIRED, can_id_most, &broadcast.id); // the reader keeps the error
	(void)json_bytes(reader, place, "data", JSON_REQUIRED, frame_data_most, &broadcast.data);
	(void)json_number(reader, place, "period_ms", JSON_REQUIRED, 1, time_most_ms, &broadcast.period_ms);
	read_time(reader, place, "delay_ms", &broadcast.delay_ms);
	return broadcast;
}

// Reads an array member into a list, one read function call per element.
template <typename T>
void read_list(json_reader *reader, const json_place &place, const char *name,
		T (*read)(json_reader *, const json_place &), std::vector<T> *list)
{
	(void)json_each(reader, place, name, JSON_OPTIONAL, // the reader keeps the error
			[&](const json_place &element) { list->push_back(read(reader, element)); });
}

void read_identity(json_reader *reader, const json_place &place, ecu_description *ecu)
{
	// Results are the members' own; the reader keeps the errors.
	(void)json_text(reader, place, "name", JSON_REQUIRED, &ecu->name);
	(void)json_hex(reader, place, "request_id", JSON_REQUIRED, can_id_most, &ecu->request_id);
	(void)json_hex(reader, place, "response_id", JSON_REQUIRED, can_id_most, &ecu->response_id);
	(void)json_hex_list(reader, place, "functional_ids", can_id_most, &ecu->functional_ids);
	(void)json_text(reader, place, "key_plugin_dir", JSON_OPTIONAL, &ecu->key_plugin_dir);
	(void)json_number(reader, place, "block_size", JSON_OPTIONAL, 0, 255, &ecu->block_size);
	(void)json_hex(reader, place, "st_min", JSON_OPTIONAL, 0xFF, &ecu->st_min);
	read_time(reader, place, "s3_ms", &ecu->s3_ms);
	read_time(reader, place, "reset_ms", &ecu->reset_ms);
}

ecu_description read_ecu(json_reader *reader, const json_place &place, const std::vector<uint32_t> &functional_ids)
{
	ecu_description ecu;
	ecu.functional_ids = functional_ids;
	ecu.s3_ms = default_s3_ms;
	if (!json_only(reader, place,
				{"name", "request_id", "response_id", "functional_ids", "key_plugin_dir", "block_size", "st_min",
						"p2_ms", "p2_star_ms", "s3_ms", "reset_ms", "sessions", "resets", "services", "security",
						"identifiers", "routines", "fault_memory", "broadcasts", "overrides"}))
		return ecu;
	read_identity(reader, place, &ecu);
	read_sessions(reader, place, &ecu);
	(void)json_hex_list(reader, place, "resets", 0x7F, &ecu.resets); // the reader keeps the error
	read_list(reader, place, "services", read_service, &ecu.services);
	read_list(reader, place, "security", read_security, &ecu.security);
	read_list(reader, place, "identifiers", read_identifier, &ecu.identifiers);
	read_list(reader, place, "routines", read_routine, &ecu.routines);
	fault_memory_read(reader, place, &ecu.faults);
	read_list(reader, place, "broadcasts", read_broadcast, &ecu.broadcasts);
	read_list(reader, place, "overrides", read_override, &ecu.overrides);
	description_check_ecu(reader, place, ecu);
	return ecu;
}

void read_bench(json_reader *reader, const json_place &root, bench_description *bench)
{
	std::vector<uint32_t> functional_ids;
	if (!json_only(reader, root, {"bus", "functional_ids", "key_plugin_dir", "ecus"}))
		return;
	(void)json_text(reader, root, "bus", JSON_OPTIONAL, &bench->bus); // the reader keeps the error
	(void)json_text(reader, root, "key_plugin_dir", JSON_OPTIONAL, &bench->key_plugin_dir);
	(void)json_hex_list(reader, root, "functional_ids", can_id_most, &functional_ids);
	(void)json_each(reader, root, "ecus", JSON_REQUIRED,
			[&](const json_place &element) { bench->ecus.push_back(read_ecu(reader, element, functional_ids)); });
	description_check_bench(reader, root, *bench);
}

std::string place_in_text(const std::string &text, size_t at)
{
	const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(at, text.size()));
	return "line " + std::to_string(1 + std::count(text.begin(), end, '\n'));
}

using document = std::unique_ptr<json_object, int (*)(json_object *)>;

document parse_json(json_reader *reader, const std::string &text)
{
	const std::unique_ptr<json_tokener, void (*)(json_tokener *)> tokener(json_tokener_new(), json_tokener_free);
	if (!tokener) {
		reader->error = reader->file + ": out of memory";
		return {nullptr, json_object_put};
	}
	json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT);
	document root(
			json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1), json_object_put);
	const json_tokener_error result = json_tokener_get_error(tokener.get());
	if (result != json_tokener_success)
		reader->error = reader->file + ": " + place_in_text(text, json_tokener_get_parse_end(tokener.get())) +
				": not JSON: " + json_tokener_error_desc(result);
	return root;
}

void against_directory(const std::filesystem::path &directory, std::string *path)
{
	if (!path->empty())
		*path = (directory / *path).string(); // an absolute path stays itself
}

} // namespace

bool description_parse(const std::string &text, const std::string &name, bench_description *bench, std::string *error)
{
	json_reader reader = {name, {}};
	bench_description read;
	const document root = parse_json(&reader, text);
	if (reader.error.empty())
		read_bench(&reader, {root.get(), "$"}, &read);
	if (!reader.error.empty()) {
		*error = reader.error;
		return false;
	}
	*bench = read;
	return true;
}

bool description_load(const std::string &path, bench_description *bench, std::string *error)
{
	std::ifstream file(path, std::ios::binary);
	std::ostringstream text;
	if (!file || !(text << file.rdbuf())) {
		*error = path + ": cannot be read, or is empty";
		return false;
	}
	bench_description read;
	if (!description_parse(text.str(), path, &read, error))
		return false;
	const std::filesystem::path directory = std::filesystem::path(path).parent_path();
	against_directory(directory, &read.key_plugin_dir);
	for (ecu_description &ecu : read.ecus)
		against_directory(directory, &ecu.key_plugin_dir);
	*bench = read;
	return true;
}
