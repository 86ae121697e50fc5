// What the built library shows to a loader: its own name, and nothing but the interface.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace
{

std::string output_of(const std::string &command)
{
	FILE *pipe = popen(command.c_str(), "r");
	std::string text;
	char part[512];
	while (pipe != nullptr && fgets(part, sizeof(part), pipe) != nullptr)
		text += part;
	EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0) << command << " failed: apt-get install binutils";
	return text;
}

std::vector<std::string> last_words(const std::string &text)
{
	std::vector<std::string> words;
	std::istringstream lines(text);
	for (std::string line; std::getline(lines, line);)
		words.push_back(line.substr(line.rfind(' ') + 1));
	return words;
}

} // namespace

TEST(bus_library, exports_the_interface_and_nothing_else)
{
	EXPECT_THAT(last_words(output_of("nm -D --defined-only " TERVBUS_LIBRARY)),
			testing::UnorderedElementsAre("tervbus_init_ll", "tervbus_fini_ll", "tervbus_init_client",
					"tervbus_stop_client", "tervbus_get_identity_data", "tervbus_chain_address", "tervbus_free_address",
					"tervbus_send_message"));
}

TEST(bus_library, is_called_by_its_plain_name)
{
	EXPECT_THAT(output_of("readelf -d " TERVBUS_LIBRARY), testing::HasSubstr("Library soname: [libtervbus.so]"));
}
