// The house, checked from the include lines of the tree: includes run down the floors, the agent's floors keep to
// themselves what is theirs, and no file grows too long. Each rule is first shown to find what it forbids.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using texts = std::vector<std::string>;
using tree = std::map<std::string, std::string>; // path from the project's root → content

constexpr size_t longest_file = 500; // lines

// From the top down. A file belongs to the first row that its path begins with; files of the same row may include
// each other, as long as there is no circle.
const struct {
	const char *prefix;
	int floor;
} floors[] = {
		{"src/main.cpp", 0},
		{"src/movra_fleet/agent_core/", 1},
		{"src/movra_fleet/request_intake/", 2},
		{"src/movra_fleet/diagnostic_execution/", 3},
		{"src/movra_fleet/replies/", 4},
		{"src/movra_fleet/common/", 5},
		{"src/movrabus/", 6},
		{"src/tvtimer.", 6},
		{"src/tervUtils.", 6},
		{"src/can_parser.", 6},
		{"src/logger.", 7},
		{"src/threadpool.", 7},
		{"platform/include/", 7},
		{"src/scoped.h", 8},
		{"src/held_lock.h", 8},
};

// Standard headers that bring containers, strings or inheritance of streams into the agent.
const std::set<std::string> kept_out_of_the_agent = {"string", "string_view", "vector", "map", "set", "unordered_map",
		"unordered_set", "list", "deque", "array", "queue", "stack", "span", "functional", "iostream", "sstream",
		"fstream", "stdexcept", "exception", "regex", "thread", "mutex", "condition_variable", "future", "any",
		"variant", "optional"};

const std::set<std::string> sources = {".c", ".cpp", ".h"};
const std::set<std::string> sources_and_scripts = {".c", ".cpp", ".h", ".py"};

tree read_tree(const texts &tops = {"src", "platform", "tools"}, const std::set<std::string> &endings = sources)
{
	namespace fs = std::filesystem;
	tree files;
	for (const std::string &top : tops)
		for (const fs::directory_entry &entry : fs::recursive_directory_iterator(fs::path(QUILLET_SOURCE) / top))
			if (entry.is_regular_file() && endings.count(entry.path().extension()) != 0) {
				std::stringstream content;
				content << std::ifstream(entry.path()).rdbuf();
				files[fs::relative(entry.path(), QUILLET_SOURCE)] = content.str();
			}
	return files;
}

// The names between the delimiters of the include lines.
texts included(const std::string &content, char open, char close)
{
	texts names;
	std::istringstream lines(content);
	for (std::string line; std::getline(lines, line);) {
		line.erase(std::remove_if(line.begin(), line.end(), [](char c) { return c == ' ' || c == '\t'; }), line.end());
		std::string start = std::string("#include") + open;
		if (line.starts_with(start))
			names.push_back(line.substr(start.size(), line.find(close, start.size()) - start.size()));
	}
	return names;
}

// The file that a quoted include means, or "" when it is none of the tree's.
std::string resolved(const tree &files, const std::string &from, const std::string &name)
{
	namespace fs = std::filesystem;
	texts places = {
			(fs::path(from).parent_path() / name).lexically_normal(), "src/" + name, "platform/include/" + name};
	std::string directory = fs::path(from).parent_path();
	for (; !directory.empty(); directory = fs::path(directory).parent_path())
		places.insert(places.begin() + 1, (fs::path(directory) / name).lexically_normal());
	for (const std::string &place : places)
		if (files.count(place) != 0)
			return place;
	return "";
}

int floor_of(const std::string &path)
{
	for (const auto &row : floors)
		if (path.starts_with(row.prefix))
			return row.floor;
	return -1;
}

texts upward_includes(const tree &files)
{
	texts found;
	for (const auto &[path, content] : files) {
		if (!path.starts_with("src/"))
			continue;
		if (floor_of(path) < 0)
			found.push_back(path + " is on no floor");
		for (const std::string &name : included(content, '"', '"')) {
			std::string target = resolved(files, path, name);
			if (target.empty() || floor_of(target) < floor_of(path))
				found.push_back(path + " includes " + name);
		}
	}
	return found;
}

bool reaches(const tree &files, const std::string &from, const std::string &wanted, std::set<std::string> *seen)
{
	for (const std::string &name : included(files.at(from), '"', '"')) {
		std::string target = resolved(files, from, name);
		if (target == wanted)
			return true;
		if (!target.empty() && seen->insert(target).second && reaches(files, target, wanted, seen))
			return true;
	}
	return false;
}

texts circles(const tree &files)
{
	texts found;
	for (const auto &[path, content] : files) {
		std::set<std::string> seen;
		if (reaches(files, path, path, &seen))
			found.push_back(path);
	}
	return found;
}

// platform/ and tools/ know nothing of src/, and platform/include knows nothing of anything.
texts includes_of_the_agent(const tree &files)
{
	texts found;
	for (const auto &[path, content] : files)
		for (const std::string &name : included(content, '"', '"'))
			if (!path.starts_with("src/") &&
					(resolved(files, path, name).starts_with("src/") || path.starts_with("platform/include/") ||
							name.find("src/") != std::string::npos))
				found.push_back(path + " includes " + name);
	return found;
}

// Only what executes a request touches the transport. The records are declared with its parameter block.
texts transport_in_the_wrong_place(const tree &files)
{
	texts found;
	for (const auto &[path, content] : files) {
		if (!path.starts_with("src/movra_fleet/request_intake/") && !path.starts_with("src/movra_fleet/replies/"))
			continue;
		for (const char *word : {"\"udsutils.h\"", "transport_init(", "transport_deinit(", "send_diag_command(",
					 "recv_diag_command(", "transport_interface_", "open_can_port(", "receive_can_frame("})
			if (content.find(word) != std::string::npos)
				found.push_back(path + " has " + word);
	}
	return found;
}

texts forbidden_standard_headers(const tree &files)
{
	texts found;
	for (const auto &[path, content] : files)
		if (path.starts_with("src/"))
			for (const std::string &name : included(content, '<', '>'))
				if (kept_out_of_the_agent.count(name) != 0)
					found.push_back(path + " includes " + name);
	return found;
}

texts long_files(const tree &files)
{
	texts found;
	for (const auto &[path, content] : files)
		if (static_cast<size_t>(std::count(content.begin(), content.end(), '\n')) > longest_file)
			found.push_back(path);
	return found;
}

const texts nothing;

}

TEST(include_rules, see_every_floor_of_the_tree)
{
	tree files = read_tree();
	for (const char *path :
			{"src/main.cpp", "src/movra_fleet/agent_core/agent_core.cpp", "src/movra_fleet/request_intake/dispatch.cpp",
					"src/movra_fleet/common/records.h", "src/logger.h", "platform/include/tervbus.h"})
		EXPECT_EQ(files.count(path), 1u) << path;
}

TEST(include_rules, includes_run_down_the_floors)
{
	tree example = {{"src/movra_fleet/common/a.h", "#include \"movra_fleet/replies/b.h\"\n"},
			{"src/movra_fleet/replies/b.h", "#include \"movra_fleet/common/c.h\"\n"},
			{"src/movra_fleet/common/c.h", "#include \"missing.h\"\n"}, {"src/unknown.h", ""}};
	EXPECT_EQ(upward_includes(example),
			(texts{"src/movra_fleet/common/a.h includes movra_fleet/replies/b.h",
					"src/movra_fleet/common/c.h includes missing.h", "src/unknown.h is on no floor"}));

	EXPECT_EQ(upward_includes(read_tree()), nothing);
}

TEST(include_rules, no_includes_go_in_a_circle)
{
	tree example = {{"platform/x/a.h", "  # include \"b.h\"\n"}, {"platform/x/b.h", "#include \"c.h\"\n"},
			{"platform/x/c.h", "#include \"a.h\"\n"}, {"platform/x/d.h", "#include \"a.h\"\n"}};
	EXPECT_EQ(circles(example), (texts{"platform/x/a.h", "platform/x/b.h", "platform/x/c.h"}));

	EXPECT_EQ(circles(read_tree()), nothing);
}

TEST(include_rules, libraries_and_tools_know_nothing_of_the_agent)
{
	tree example = {{"src/logger.h", ""}, {"tools/t/a.cpp", "#include \"logger.h\"\n"},
			{"platform/x/b.cpp", "#include \"../../src/logger.h\"\n"},
			{"platform/include/tervbus.h", "#include \"udsutils.h\"\n"}, {"platform/include/udsutils.h", ""},
			{"platform/x/c.cpp", "#include \"tervbus.h\"\n"}};
	EXPECT_EQ(includes_of_the_agent(example),
			(texts{"platform/include/tervbus.h includes udsutils.h", "platform/x/b.cpp includes ../../src/logger.h",
					"tools/t/a.cpp includes logger.h"}));

	EXPECT_EQ(includes_of_the_agent(read_tree()), nothing);
}

TEST(include_rules, only_diagnostic_execution_touches_the_transport)
{
	tree example = {{"src/movra_fleet/replies/a.cpp", "#include \"udsutils.h\"\n"},
			{"src/movra_fleet/request_intake/b.cpp", "\ttransport_init(0, nullptr);\n"},
			{"src/movra_fleet/diagnostic_execution/c.cpp", "#include \"udsutils.h\"\n"}};
	EXPECT_EQ(transport_in_the_wrong_place(example),
			(texts{"src/movra_fleet/replies/a.cpp has \"udsutils.h\"",
					"src/movra_fleet/request_intake/b.cpp has transport_init("}));

	EXPECT_EQ(transport_in_the_wrong_place(read_tree()), nothing);
}

TEST(include_rules, the_agent_uses_no_containers_of_the_standard_library)
{
	tree example = {
			{"src/logger.cpp", "#include <vector>\n#include <cstdio>\n"}, {"tools/t/a.cpp", "#include <vector>\n"}};
	EXPECT_EQ(forbidden_standard_headers(example), (texts{"src/logger.cpp includes vector"}));

	EXPECT_EQ(forbidden_standard_headers(read_tree()), nothing);
}

TEST(include_rules, no_file_is_longer_than_500_lines)
{
	tree example = {{"src/a.cpp", std::string(500, '\n')}, {"src/b.cpp", std::string(501, '\n')}};
	EXPECT_EQ(long_files(example), (texts{"src/b.cpp"}));

	tree files = read_tree({"src", "platform", "tools", "tests", "benchmarks"}, sources_and_scripts);
	for (const char *path :
			{"src/main.cpp", "tests/system/harness.py", "tests/unit/include_rules/include_rules_test.cpp"})
		EXPECT_EQ(files.count(path), 1u) << path;
	EXPECT_EQ(long_files(files), nothing);
}
