#include "rules.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "rules_limit.h"

namespace
{

constexpr const char *too_large = "more than 16777216 bytes: a role or a glob can stand for many units";
static_assert(rules_file_max == 16777216);
constexpr std::string_view blanks = " \t\r";
constexpr const char *glob_characters = "*?[";

enum class named { unit, group, role };

struct send_rule {
	std::string sender;
	named by = named::unit;
	std::string destination; // a glob, but for a role
	named to = named::unit;
};

// Takes the next word, or quoted text, off the line. False at its end and for a quote that is not closed.
bool take_word(std::string_view *line, std::string *word)
{
	const size_t start = line->find_first_not_of(blanks);
	if (start == std::string_view::npos)
		return false;
	line->remove_prefix(start);

	const bool quoted = line->front() == '"';
	if (quoted)
		line->remove_prefix(1);
	size_t end = quoted ? line->find('"') : line->find_first_of(blanks);
	if (end == std::string_view::npos) {
		if (quoted)
			return false;
		end = line->size();
	}
	*word = line->substr(0, end);
	line->remove_prefix(quoted ? end + 1 : end);
	return !word->empty();
}

// "@name" is a group's, "+name" a role's: a '+' stands in no unit's name.
bool take_name(std::string_view *line, std::string *name, named *what)
{
	if (!take_word(line, name))
		return false;
	*what = name->front() == '@' ? named::group : name->front() == '+' ? named::role : named::unit;
	if (*what != named::unit)
		name->erase(0, 1);
	return !name->empty();
}

bool carries_a_rule(std::string_view line)
{
	const size_t start = line.find_first_not_of(blanks);
	return start != std::string_view::npos && line[start] != '#';
}

void add(send_rules *rules, send_rule *rule)
{
	auto &senders = rule->by == named::group ? rules->groups : rule->by == named::role ? rules->roles : rules->units;
	sender_rules &own = senders[std::move(rule->sender)];
	reachable &to = rule->to == named::group ? own.groups : own.units;
	if (rule->to == named::role)
		own.roles.insert(std::move(rule->destination));
	else if (rule->destination.find_first_of(glob_characters) == std::string::npos)
		to.names.insert(std::move(rule->destination));
	else
		to.globs.push_back(std::move(rule->destination));
}

bool parse_allow(std::string_view *line, send_rules *rules)
{
	send_rule rule;
	if (!take_name(line, &rule.sender, &rule.by) || !take_name(line, &rule.destination, &rule.to))
		return false;
	add(rules, &rule);
	return true;
}

bool parse_role(std::string_view *line, send_rules *rules)
{
	std::string role;
	std::string unit;
	named of = named::unit;
	named to = named::unit;
	if (!take_name(line, &role, &of) || !take_name(line, &unit, &to) || of != named::unit || to != named::unit ||
			unit.find_first_of(glob_characters) != std::string::npos)
		return false;
	rules->roles_of[std::move(unit)].insert(std::move(role));
	return true;
}

bool parse_bridge(std::string_view *line, send_rules *rules)
{
	std::string name;
	std::string units;
	return take_word(line, &name) && take_word(line, &units) && rules_add_bridge(&rules->bridges, name, units);
}

struct line_row {
	std::string_view word;
	bool (*parse)(std::string_view *line, send_rules *rules);
};

constexpr line_row line_table[] = {
		{"allow", parse_allow},
		{"role", parse_role},
		{"bridge", parse_bridge},
};

bool parse_line(std::string_view line, send_rules *rules)
{
	std::string word;
	if (!take_word(&line, &word))
		return false;
	for (const line_row &row : line_table)
		if (row.word == word)
			return row.parse(&line, rules) && line.find_first_not_of(blanks) == std::string_view::npos;
	return false;
}

using role_set = std::set<std::string>;

// Whom a message is for.
struct addressee {
	const std::string &name;
	bool is_group = false;
	const role_set &roles; // a group has none
};

const role_set &roles_of(const send_rules &rules, const std::string &unit)
{
	static const role_set none;
	const auto found = rules.roles_of.find(unit);
	return found != rules.roles_of.end() ? found->second : none;
}

addressee addressee_of(const send_rules &rules, const std::string &name, bool is_group)
{
	return {name, is_group, roles_of(rules, is_group ? std::string() : name)};
}

bool reaches(const sender_rules &own, const addressee &to)
{
	const reachable &among = to.is_group ? own.groups : own.units;
	return among.names.contains(to.name) ||
			std::any_of(to.roles.begin(), to.roles.end(),
					[&own](const std::string &role) { return own.roles.contains(role); }) ||
			std::any_of(among.globs.begin(), among.globs.end(), [&to](const std::string &glob) {
				return fnmatch(glob.c_str(), to.name.c_str(), FNM_NOESCAPE) == 0;
			});
}

bool reaches(
		const std::unordered_map<std::string, sender_rules> &senders, const std::string &sender, const addressee &to)
{
	const auto own = senders.find(sender);
	return own != senders.end() && reaches(own->second, to);
}

// Under its own name or by a role of it.
bool unit_reaches(const send_rules &rules, const std::string &unit, const addressee &to)
{
	const role_set &roles = roles_of(rules, unit);
	return reaches(rules.units, unit, to) ||
			std::any_of(roles.begin(), roles.end(),
					[&rules, &to](const std::string &role) { return reaches(rules.roles, role, to); });
}

bool read_all(int fd, std::string *text)
{
	char part[4096];
	for (;;) {
		const ssize_t count = read(fd, part, sizeof(part));
		if (count < 0)
			return false;
		if (count == 0)
			return true;
		if (text->size() + static_cast<size_t>(count) > rules_file_max) {
			errno = EFBIG;
			return false;
		}
		text->append(part, static_cast<size_t>(count));
	}
}

bool read_trusted(int fd, std::string *text, std::string *why)
{
	struct stat status;
	if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
		*why = "not a file";
		return false;
	}
	if ((status.st_uid != 0 && status.st_uid != geteuid()) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
		*why = "others than root and the broker's user can change it";
		return false;
	}
	if (!read_all(fd, text)) {
		*why = errno == EFBIG ? too_large : strerror(errno);
		return false;
	}
	return true;
}

} // namespace

bool rules_add_bridge(bridge_map *bridges, const std::string &name, std::string_view units)
{
	std::set<std::string> found;
	while (!units.empty()) {
		const size_t comma = std::min(units.find(','), units.size());
		const std::string_view unit = units.substr(0, comma);
		if (unit.empty() || unit.find_first_of("/+#") != std::string_view::npos)
			return false;
		found.emplace(unit);
		units.remove_prefix(std::min(comma + 1, units.size()));
	}
	if (name.empty() || found.empty())
		return false;
	(*bridges)[name].merge(found);
	return true;
}

bool rules_parse(std::string_view text, send_rules *rules, std::string *why)
{
	send_rules parsed;
	for (size_t number = 1; !text.empty(); number++) {
		const size_t end = std::min(text.find('\n'), text.size());
		const std::string_view line = text.substr(0, end);
		text.remove_prefix(std::min(end + 1, text.size()));
		if (!carries_a_rule(line))
			continue;

		if (!parse_line(line, &parsed)) {
			*why = "line " + std::to_string(number) +
					" is not: allow <sender> <destination>, or: role <role> <unit>, or: bridge <name> <unit>,<unit>...";
			return false;
		}
	}
	*rules = std::move(parsed);
	return true;
}

bool rules_load(const char *path, send_rules *rules, std::string *why)
{
	const int fd = open(path, O_RDONLY | O_CLOEXEC);
	if (fd < 0) {
		*why = strerror(errno);
		return false;
	}
	std::string text;
	const bool read = read_trusted(fd, &text, why);
	close(fd);
	return read && rules_parse(text, rules, why);
}

bool rules_allow(const send_rules &rules, const std::string &unit, const std::string &group,
		const std::string &destination, bool to_group)
{
	const addressee to = addressee_of(rules, destination, to_group);
	return unit_reaches(rules, unit, to) || reaches(rules.groups, group, to);
}

bool rules_may_come(const send_rules &rules, const std::string &unit, const std::string &destination, bool to_group)
{
	const addressee to = addressee_of(rules, destination, to_group);
	return unit_reaches(rules, unit, to) ||
			std::any_of(rules.groups.begin(), rules.groups.end(),
					[&to](const auto &group) { return reaches(group.second, to); });
}
