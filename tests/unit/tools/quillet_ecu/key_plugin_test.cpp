// Loading key plug-ins: what is found, and what is said when it is not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "key_plugin.h"

namespace
{

TEST(key_plugin_loading, gives_the_key_function)
{
	std::string error;
	const uds_key_function key_of = key_plugin_load(PLUGIN_DIR, &error);
	ASSERT_NE(key_of, nullptr) << error;
	EXPECT_NE(key_of(1, "a", 1), key_of(2, "a", 1));
}

TEST(key_plugin_loading, says_which_file_is_missing)
{
	std::string error;
	EXPECT_EQ(key_plugin_load("/nonexistent", &error), nullptr);
	EXPECT_THAT(error, testing::StartsWith("/nonexistent/libecusecalgo.so: "));
}

TEST(key_plugin_loading, says_that_the_function_is_missing)
{
	std::string error;
	EXPECT_EQ(key_plugin_load(NO_KEY_DIR, &error), nullptr);
	EXPECT_THAT(error, testing::HasSubstr("esr_calculate_key"));
}

TEST(key_plugin_loading, looks_beside_the_program_by_default)
{
	EXPECT_EQ(key_plugin_default_directory(), PLUGIN_DIR);
}

} // namespace
