// The key plug-in, loaded the way its users load it.
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>

#include "ecusecalgo.h"

namespace
{

class key_plugin : public testing::Test
{
protected:
	void SetUp() override
	{
		library = dlopen(PLUGIN_PATH, RTLD_LAZY);
		ASSERT_NE(library, nullptr) << dlerror();
		key_of = reinterpret_cast<decltype(&esr_calculate_key)>(dlsym(library, "esr_calculate_key"));
		ASSERT_NE(key_of, nullptr) << dlerror();
	}

	void TearDown() override
	{
		if (library != nullptr) {
			EXPECT_EQ(dlclose(library), 0);
		}
	}

	void *library = nullptr;
	decltype(&esr_calculate_key) key_of = nullptr;
};

std::string output_of(const std::string &command)
{
	std::string text;
	FILE *pipe = popen(command.c_str(), "r");
	if (pipe == nullptr)
		return text;
	char part[256];
	while (fgets(part, sizeof(part), pipe) != nullptr)
		text += part;
	EXPECT_EQ(pclose(pipe), 0) << command;
	return text;
}

std::string soname_of(void *library)
{
	link_map *map = nullptr;
	if (dlinfo(library, RTLD_DI_LINKMAP, &map) != 0)
		return {};
	const char *strings = nullptr;
	ElfW(Xword) offset = 0;
	for (const ElfW(Dyn) *entry = map->l_ld; entry->d_tag != DT_NULL; entry++) {
		if (entry->d_tag == DT_STRTAB)
			strings = reinterpret_cast<const char *>(entry->d_un.d_ptr);
		if (entry->d_tag == DT_SONAME)
			offset = entry->d_un.d_val;
	}
	return strings != nullptr && offset != 0 ? strings + offset : "";
}

TEST_F(key_plugin, carries_the_plain_name)
{
	EXPECT_EQ(soname_of(library), "libecusecalgo.so");
}

TEST_F(key_plugin, exports_the_key_function_and_nothing_else)
{
	EXPECT_THAT(output_of(NM " -D --defined-only --format=posix " PLUGIN_PATH),
			testing::MatchesRegex("esr_calculate_key T [0-9a-f]+ [0-9a-f]+\n"));
}

// Keys that ECUs and requesters in the field would already agree on: the algorithm may not drift.
TEST_F(key_plugin, gives_the_published_keys)
{
	const struct {
		uint32_t seed;
		const char *script;
		uint8_t level;
		uint32_t key;
	} rows[] = {
			{0x11223344, "bench", 0x01, 0x1F315C3B},
			{0x00000000, "", 0x00, 0x16EE01C9},
			{0xFFFFFFFF, "bench", 0xFF, 0x9FC76113},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::Message() << std::hex << row.seed << " " << row.script << " " << int(row.level));
		EXPECT_EQ(key_of(row.seed, row.script, row.level), row.key);
	}
}

TEST_F(key_plugin, gives_the_same_key_for_the_same_arguments)
{
	EXPECT_EQ(key_of(0x11223344, "bench", 1), key_of(0x11223344, "bench", 1));
}

TEST_F(key_plugin, gives_another_key_for_every_single_bit_of_the_seed)
{
	std::set<uint32_t> keys = {key_of(0x11223344, "bench", 1)};
	for (unsigned bit = 0; bit < 32; bit++)
		keys.insert(key_of(0x11223344u ^ (1u << bit), "bench", 1));
	EXPECT_EQ(keys.size(), 33u);
}

TEST_F(key_plugin, gives_another_key_for_every_level)
{
	std::set<uint32_t> keys;
	for (unsigned level = 0; level < 256; level++)
		keys.insert(key_of(0x11223344, "bench", static_cast<uint8_t>(level)));
	EXPECT_EQ(keys.size(), 256u);
}

TEST_F(key_plugin, gives_another_key_for_another_script)
{
	std::set<uint32_t> keys;
	for (const char *script : {"", "bench", "Bench", "bench ", "hcneb", "\xE4"})
		keys.insert(key_of(0x11223344, script, 1));
	EXPECT_EQ(keys.size(), 6u);
}

TEST_F(key_plugin, takes_a_missing_script_for_an_empty_one)
{
	EXPECT_EQ(key_of(0x11223344, nullptr, 1), key_of(0x11223344, "", 1));
}

} // namespace
