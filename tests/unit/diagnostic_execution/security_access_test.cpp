#include "movra_fleet/diagnostic_execution/security_access.h"

#include <dlfcn.h>

#include "job_fixture.h"
#include "support/fail_nth.h"

namespace
{

const std::string plugin_directory = FAKE_PLUGIN_DIRECTORY;

class security_access : public job_fixture
{
protected:
	security_access()
	{
		cfg->handle = 5;
		cfg->params.kind = 1;
		output.clear();
	}

	void settings(const char *plugin, const char *script, uint32_t level)
	{
		job->security = static_cast<security_access_config *>(calloc(1, sizeof(security_access_config)));
		job->security->location = strdup((plugin_directory + "/" + plugin).c_str());
		job->security->script = strdup(script);
		job->security->level = level;
	}
	bool loaded(const char *plugin) const
	{
		std::string path = plugin_directory + "/" + plugin + "/libecusecalgo.so";
		void *handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
		if (handle != nullptr)
			dlclose(handle);
		return handle != nullptr;
	}
};

}

TEST_F(security_access, sends_the_key_under_the_next_sub_function_most_significant_byte_first)
{
	settings("fake_ecusecalgo", "any", 1);
	EXPECT_EQ(security_access_exchange(job, cfg, 0x11223344, 0x03), 0);

	ASSERT_EQ(ecu.names(), texts{"send_diag_command"});
	fake_uds_call call = ecu.calls()[0];
	EXPECT_EQ(call.data, (fake_bytes{0x27, 0x04, 0xA1, 0xB2, 0xC3, 0xD4}));
	EXPECT_EQ(call.length, 6u);
	EXPECT_EQ(call.handle, 5);
	EXPECT_EQ(call.kind, 1);
	EXPECT_EQ(log(), texts{"INFO Generated Key: a1b2c3d4"});
}

TEST_F(security_access, takes_only_a_negative_result_of_the_send_for_a_failure)
{
	settings("fake_ecusecalgo", "any", 1);
	ecu.send_results = {6, -1};
	EXPECT_EQ(security_access_exchange(job, cfg, 0, 0x01), 0);
	EXPECT_LT(security_access_exchange(job, cfg, 0, 0x01), 0);
}

TEST_F(security_access, hands_seed_script_and_the_low_byte_of_the_level_to_the_plugin)
{
	const struct {
		const char *script;
		fake_bytes key;
	} rows[] = {
			{"seed", {0x11, 0x22, 0x33, 0x44}},
			{"level", {0x00, 0x00, 0x00, 0xAB}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.script);
		free_job_contents(job);
		settings("fake_ecusecalgo", row.script, 0x1AB);
		transport_cfg own = {};
		EXPECT_EQ(security_access_exchange(job, &own, 0x11223344, 0x01), 0);
		fake_bytes request = ecu.requests().back();
		EXPECT_EQ(fake_bytes(request.begin() + 2, request.end()), row.key);
	}
}

TEST_F(security_access, counts_the_sub_function_in_eight_bits)
{
	settings("fake_ecusecalgo", "any", 1);
	EXPECT_EQ(security_access_exchange(job, cfg, 0, 0xFF), 0);
	EXPECT_EQ(ecu.requests()[0][1], 0x00);
}

TEST_F(security_access, needs_settings)
{
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(log(), texts{"ERR No Security Algorithm information found"});
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(security_access, needs_a_location)
{
	job->security = static_cast<security_access_config *>(calloc(1, sizeof(security_access_config)));
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(log(), texts{"ERR No Security Algorithm location found"});
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(security_access, logs_the_loaders_text_for_a_missing_plugin)
{
	settings("nowhere", "any", 1);
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	ASSERT_EQ(log().size(), 1u);
	EXPECT_THAT(log()[0], testing::HasSubstr("ERR " + plugin_directory + "/nowhere/libecusecalgo.so: cannot open"));
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(security_access, logs_the_loaders_text_for_a_missing_symbol_and_unloads)
{
	settings("fake_ecusecalgo_without_symbol", "any", 1);
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	ASSERT_EQ(log().size(), 1u);
	EXPECT_THAT(log()[0], testing::HasSubstr("undefined symbol: esr_calculate_key"));
	EXPECT_FALSE(loaded("fake_ecusecalgo_without_symbol"));
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(security_access, logs_a_loader_that_says_nothing)
{
	settings("fake_ecusecalgo", "any", 1);
	fail_nth failure("dlopen", 1);
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(log(), texts{"ERR unknown loader error"});
}

TEST_F(security_access, does_not_load_from_a_location_longer_than_its_path)
{
	settings(std::string(1100, 'x').c_str(), "any", 1);
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(log().size(), 1u);
	EXPECT_EQ(ecu.names(), texts{});
}

TEST_F(security_access, fails_when_the_key_cannot_be_sent)
{
	settings("fake_ecusecalgo", "any", 1);
	ecu.send_results = {-1};
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), -1);
	EXPECT_EQ(log(), (texts{"INFO Generated Key: a1b2c3d4", "ERR Security key could not sent to ECU!!"}));
}

TEST_F(security_access, keeps_the_plugin_until_the_key_was_sent_and_no_longer)
{
	settings("fake_ecusecalgo", "any", 1);
	bool there = false;
	ecu.on_call = [&](const fake_uds_call &) {
		there = loaded("fake_ecusecalgo");
	};
	EXPECT_EQ(security_access_exchange(job, cfg, 1, 1), 0);
	EXPECT_TRUE(there);
	EXPECT_FALSE(loaded("fake_ecusecalgo"));
}
