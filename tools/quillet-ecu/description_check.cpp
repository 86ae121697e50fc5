#include "description_check.h"

#include <algorithm>
#include <map>
#include <set>

namespace
{

std::string hex(uint32_t number)
{
	char text[16];
	(void)snprintf(text, sizeof(text), "\"%02X\"", number); // always fits
	return text;
}

json_place element(const json_place &object, const char *name, size_t index)
{
	return {nullptr, object.path + "." + name + "[" + std::to_string(index) + "]"};
}

json_place below(const json_place &place, const char *name)
{
	return {nullptr, place.path + "." + name};
}

struct ecu_check {
	json_reader *reader;
	const ecu_description *ecu;
};

void check_sessions(const ecu_check &check, const json_place &place, const std::vector<uint32_t> &sessions)
{
	for (const uint32_t id : sessions) {
		const auto &known = check.ecu->sessions;
		if (std::none_of(known.begin(), known.end(), [id](const session_description &s) { return s.id == id; }))
			json_wrong(check.reader, place, "session " + hex(id) + " is not among the ECU's sessions");
	}
}

void check_access(const ecu_check &check, const json_place &place, const access_rule &access)
{
	check_sessions(check, below(place, "sessions"), access.sessions);
	const auto &levels = check.ecu->security;
	const uint32_t wanted = access.security;
	if (wanted != 0 && std::none_of(levels.begin(), levels.end(), [wanted](const security_description &level) {
			return level.level == wanted;
		}))
		json_wrong(check.reader, below(place, "security"),
				"level " + hex(wanted) + " is not among the ECU's security levels");
}

// Each element of a list has a number of its own.
template <typename T>
void check_distinct(const ecu_check &check, const json_place &place, const char *name, const std::vector<T> &list,
		uint32_t T::*number)
{
	std::map<uint32_t, size_t> seen;
	for (size_t index = 0; index < list.size(); index++) {
		const auto [first, fresh] = seen.emplace(list[index].*number, index);
		if (!fresh)
			json_wrong(check.reader, element(place, name, index), hex(list[index].*number) + " is there twice");
	}
}

void check_can_ids(const ecu_check &check, const json_place &place)
{
	const ecu_description &ecu = *check.ecu;
	if (ecu.request_id == ecu.response_id)
		json_wrong(check.reader, below(place, "response_id"), "must differ from request_id");
	for (const uint32_t id : ecu.functional_ids)
		if (id == ecu.request_id || id == ecu.response_id)
			json_wrong(check.reader, below(place, "functional_ids"),
					hex(id) + " is the ECU's request_id or response_id as well");
}

void check_resets(const ecu_check &check, const json_place &place)
{
	// 04 and 05 announce a power-down time in their answers, which a virtual ECU does not have.
	for (const uint32_t reset : check.ecu->resets)
		if (reset == 0 || (reset > 3 && reset < 0x40) || reset > 0x7E)
			json_wrong(check.reader, below(place, "resets"),
					"expected resets from \"01\" to \"03\" or \"40\" to \"7E\", found " + hex(reset));
}

void check_routine(const ecu_check &check, const json_place &place, const routine_description &routine)
{
	check_access(check, place, routine.access);
	const bool empty = std::none_of(std::begin(routine.actions), std::end(routine.actions),
			[](const routine_action &action) { return action.offered; });
	if (empty)
		json_wrong(check.reader, place, "expected at least one of \"start\", \"stop\" and \"results\"");
}

void check_lists(const ecu_check &check, const json_place &place)
{
	const ecu_description &ecu = *check.ecu;
	for (const session_description &session : ecu.sessions)
		check_sessions(check, below(place, "sessions"), session.from);
	for (size_t index = 0; index < ecu.services.size(); index++)
		check_access(check, element(place, "services", index), ecu.services[index].access);
	for (size_t index = 0; index < ecu.security.size(); index++)
		check_sessions(check, below(element(place, "security", index), "sessions"), ecu.security[index].sessions);
	for (size_t index = 0; index < ecu.identifiers.size(); index++) {
		const json_place identifier = element(place, "identifiers", index);
		check_access(check, below(identifier, "read"), ecu.identifiers[index].read);
		check_access(check, below(identifier, "write"), ecu.identifiers[index].write);
	}
	for (size_t index = 0; index < ecu.routines.size(); index++)
		check_routine(check, element(place, "routines", index), ecu.routines[index]);
}

// Identifiers that several ECUs may use, but not for what is one ECU's own.
void check_shared_ids(json_reader *reader, const json_place &root, const bench_description &bench,
		const std::map<uint32_t, size_t> &physical)
{
	std::set<uint32_t> heard;
	for (size_t index = 0; index < bench.ecus.size(); index++)
		for (const uint32_t id : bench.ecus[index].functional_ids) {
			heard.insert(id);
			if (physical.contains(id))
				json_wrong(reader, below(element(root, "ecus", index), "functional_ids"),
						hex(id) + " is an ECU's request_id or response_id");
		}
	for (size_t index = 0; index < bench.ecus.size(); index++)
		for (size_t at = 0; at < bench.ecus[index].broadcasts.size(); at++) {
			const uint32_t id = bench.ecus[index].broadcasts[at].id;
			if (physical.contains(id) || heard.contains(id))
				json_wrong(reader, below(element(element(root, "ecus", index), "broadcasts", at), "id"),
						hex(id) + " is used by an ECU's diagnostics");
		}
}

} // namespace

void description_check_ecu(json_reader *reader, const json_place &place, const ecu_description &ecu)
{
	const ecu_check check = {reader, &ecu};
	check_can_ids(check, place);
	check_resets(check, place);
	check_distinct(check, place, "services", ecu.services, &service_description::sid);
	check_distinct(check, place, "security", ecu.security, &security_description::level);
	check_distinct(check, place, "identifiers", ecu.identifiers, &identifier_description::id);
	check_distinct(check, place, "routines", ecu.routines, &routine_description::id);
	check_lists(check, place);
}

void description_check_bench(json_reader *reader, const json_place &root, const bench_description &bench)
{
	if (bench.ecus.empty())
		json_wrong(reader, below(root, "ecus"), "expected at least one ECU");
	std::map<std::string, size_t> names;
	std::map<uint32_t, size_t> physical;
	for (size_t index = 0; index < bench.ecus.size(); index++) {
		const ecu_description &ecu = bench.ecus[index];
		const json_place place = element(root, "ecus", index);
		if (!names.emplace(ecu.name, index).second)
			json_wrong(reader, below(place, "name"), "\"" + ecu.name + "\" is there twice");
		if (!physical.emplace(ecu.request_id, index).second)
			json_wrong(reader, below(place, "request_id"), hex(ecu.request_id) + " is used by another ECU");
		if (!physical.emplace(ecu.response_id, index).second)
			json_wrong(reader, below(place, "response_id"), hex(ecu.response_id) + " is used by another ECU");
	}
	check_shared_ids(reader, root, bench, physical);
}
