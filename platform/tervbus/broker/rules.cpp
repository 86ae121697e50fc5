#include "rules.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace
{

constexpr size_t file_max = 16u << 20;
constexpr const char *too_large = "more than 16777216 bytes: one rule with a glob can stand for those of many units";
static_assert(file_max == 16777216);
constexpr std::string_view blanks = " \t\r";
constexpr const char *glob_characters = "*?[";

struct send_rule {
	std::string sender; // a CN, or an OU when by_group
	bool by_group = false;
	std::string destination; // a glob on a CN, or on a group when to_group
	bool to_group = false;
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

// "@name" is a group's, "name" is not.
bool take_name(std::string_view *line, std::string *name, bool *is_group)
{
	if (!take_word(line, name))
		return false;
	*is_group = name->front() == '@';
	if (*is_group)
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
	auto &senders = rule->by_group ? rules->groups : rules->units;
	sender_rules &own = senders[std::move(rule->sender)];
	reachable &to = rule->to_group ? own.groups : own.units;
	if (rule->destination.find_first_of(glob_characters) == std::string::npos)
		to.names.insert(std::move(rule->destination));
	else
		to.globs.push_back(std::move(rule->destination));
}

bool parse_allow(std::string_view *line, send_rules *rules)
{
	send_rule rule;
	if (!take_name(line, &rule.sender, &rule.by_group) || !take_name(line, &rule.destination, &rule.to_group))
		return false;
	add(rules, &rule);
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

bool reaches(const sender_rules &own, const std::string &destination, bool to_group)
{
	const reachable &to = to_group ? own.groups : own.units;
	return to.names.contains(destination) ||
			std::any_of(to.globs.begin(), to.globs.end(), [&destination](const std::string &glob) {
				return fnmatch(glob.c_str(), destination.c_str(), FNM_NOESCAPE) == 0;
			});
}

bool reaches(const std::unordered_map<std::string, sender_rules> &senders, const std::string &sender,
		const std::string &destination, bool to_group)
{
	const auto own = senders.find(sender);
	return own != senders.end() && reaches(own->second, destination, to_group);
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
		if (text->size() + static_cast<size_t>(count) > file_max) {
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
					" is not: allow <sender> <destination>, or: bridge <name> <unit>,<unit>...";
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
	return reaches(rules.units, unit, destination, to_group) || reaches(rules.groups, group, destination, to_group);
}

bool rules_may_come(const send_rules &rules, const std::string &unit, const std::string &destination, bool to_group)
{
	return reaches(rules.units, unit, destination, to_group) ||
			std::any_of(rules.groups.begin(), rules.groups.end(), [&destination, to_group](const auto &group) {
				return reaches(group.second, destination, to_group);
			});
}
