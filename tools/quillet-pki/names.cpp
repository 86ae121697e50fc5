#include "names.h"

// X.520 bounds a common name and an organizational unit to 64 characters; counted in bytes here, on the safe side.
static constexpr size_t longest_name = 64;

static bool is_control(char byte)
{
	unsigned char value = static_cast<unsigned char>(byte);
	return value < 0x20 || value == 0x7F;
}

// Separators and wildcards of topics.
static constexpr const char *topic_characters = "/+#";
// In the broker's rules these make a pattern of a name or end it; a leading '@' makes a group of it.
static constexpr const char *rule_characters = "\"*?[]\\";

std::string name_problem(const std::string &name)
{
	if (name.empty())
		return "the name is empty";
	if (name.size() > longest_name)
		return "the name is longer than 64 bytes";
	for (char byte : name) {
		if (is_control(byte))
			return "the name holds a control character";
	}
	if (name.find_first_of(topic_characters) != std::string::npos)
		return "the name holds '/', '+' or '#', which topics on the bus give a meaning of their own";
	if (name.find_first_of(rule_characters) != std::string::npos || name[0] == '@')
		return "the name holds a quote or one of '*?[]\\', or begins with '@': the broker's rules could not name it";
	return "";
}

std::string node_name_problem(const std::string &name)
{
	std::string problem = name_problem(name);
	if (!problem.empty())
		return problem;
	if (name == "ca" || name == "broker")
		return "the folder of that name holds the " + std::string(name == "ca" ? "CA" : "broker's identity");
	if (name[0] == '.')
		return "the name begins with '.', so its folder would be hidden";
	return "";
}
