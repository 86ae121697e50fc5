// docs/can.md against the sources: each message of the library has its row, with its level, and no row is out of date.
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "isotp_channel.h"

namespace
{

namespace fs = std::filesystem;
using texts = std::set<std::string>;

const fs::path project = QUILLET_SOURCE;

std::string content_of(const fs::path &path)
{
	std::stringstream content;
	content << std::ifstream(path).rdbuf();
	EXPECT_NE(content.str(), "") << path;
	return content.str();
}

std::string library_source()
{
	std::string all;
	for (const fs::directory_entry &entry : fs::directory_iterator(project / "platform/udsutils"))
		if (entry.path().extension() == ".cpp")
			all += content_of(entry.path());
	return all;
}

std::string document()
{
	return content_of(project / "docs/can.md");
}

std::string troubleshooting()
{
	const std::string all = document();
	const size_t start = all.find("\n## Troubleshooting\n");
	EXPECT_NE(start, std::string::npos);
	return start == std::string::npos ? "" : all.substr(start);
}

// Every match of the pattern's first group.
std::vector<std::string> found(const std::string &text, const std::string &pattern)
{
	const std::regex expression(pattern);
	std::vector<std::string> all;
	for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at)
		all.push_back((*at)[1]);
	return all;
}

constexpr char literal[] = R"x("((?:[^"\\]|\\.)*)")x";

// Adjoining string literals, with the macros of <cinttypes> between them, as the text that they are.
std::string joined(const std::string &source)
{
	std::string text;
	for (const std::string &part : found(std::regex_replace(source, std::regex("PRI\\w+"), "\"u\""), literal))
		text += part;
	return std::regex_replace(text, std::regex(R"x(\\")x"), "\"");
}

// "3 text" with … for each value.
texts messages_of_the_library()
{
	const std::regex call(R"x(uds_log\(UDS_LOG_(\w+),\s*((?:"(?:[^"\\]|\\.)*"\s*|PRI\w+\s*)+))x");
	const std::string source = library_source();
	texts all;
	for (std::sregex_iterator at(source.begin(), source.end(), call), end; at != end; ++at)
		all.insert(std::string((*at)[1]) + " " + std::regex_replace(joined((*at)[2]), std::regex("%z?[sdu]"), "…"));
	return all;
}

// What a lost link or a refused bus is said to have for a reason.
texts reasons_of_the_library()
{
	texts all;
	for (const std::string &call : found(library_source(), R"x(say_(?:dead|unusable)\(([^;{]*);)x"))
		for (const std::string &reason : found(call, literal))
			all.insert(reason);
	return all;
}

// Rows of three cells, the second one a level.
texts messages_of_the_document()
{
	const std::regex row(R"x(\n\| `([^`]*)` \| (ERR|WARN|INFO) \| [^|\n]+ \|)x");
	const std::string text = troubleshooting();
	texts all;
	for (std::sregex_iterator at(text.begin(), text.end(), row), end; at != end; ++at)
		all.insert(std::string((*at)[2]) + " " + std::regex_replace(std::string((*at)[1]), std::regex("<[^>]*>"), "…"));
	return all;
}

// Rows of two cells.
texts reasons_of_the_document()
{
	const std::vector<std::string> all = found(troubleshooting(), R"x(\n\| `([^`]*)` \| [^|\n]+ \|(?=\n))x");
	return {all.begin(), all.end()};
}

TEST(the_can_document, has_each_message_with_its_level_and_no_other)
{
	EXPECT_GT(messages_of_the_library().size(), 25u);
	EXPECT_EQ(messages_of_the_document(), messages_of_the_library());
}

TEST(the_can_document, has_each_reason_and_no_other)
{
	texts expected = reasons_of_the_library();
	EXPECT_GT(expected.size(), 5u);
	const std::string server = content_of(project / "tools/quillet-can/can_server.cpp");
	texts shown = reasons_of_the_document();
	for (auto reason = shown.begin(); reason != shown.end();)
		reason = server.find("< error " + *reason + " >") != std::string::npos ? shown.erase(reason) : ++reason;
	for (int result = ISOTP_OK + 1; result < isotp_result_count; result++)
		if (result != ISOTP_UNEXPECTED_PDU) // the new answer is taken, and nothing is said
			expected.insert(isotp_result_name(static_cast<isotp_result>(result)));
	EXPECT_EQ(shown, expected);
}

TEST(the_can_document, names_each_variable_of_the_environment)
{
	const std::vector<std::string> variables = found(library_source(), R"x(getenv\("(\w+)"\))x");
	EXPECT_EQ(variables.size(), 3u);
	for (const std::string &variable : variables)
		EXPECT_NE(document().find("| `" + variable + "` |"), std::string::npos) << variable;
}

TEST(the_can_document, names_each_option_of_the_can_server)
{
	const std::vector<std::string> options =
			found(content_of(project / "tools/quillet-can/main.cpp"), R"x(add_option\(\s*"([\w-]+)")x");
	EXPECT_EQ(options.size(), 8u);
	for (const std::string &option : options)
		EXPECT_TRUE(std::regex_search(document(), std::regex("\\n\\| `" + option + "[ `]"))) << option;
}

} // namespace
