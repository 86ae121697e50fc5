// A job of commands to one ECU.
#pragma once

#include <string>

#include "job_fixture.h"
#include "movra_fleet/diagnostic_execution/uds_exchange.h"

class uds_exchange : public job_fixture
{
protected:
	int run()
	{
		output.clear();
		return run_uds_commands(agent.ctx, job);
	}
	int run(const fake_bytes &request)
	{
		add_test_command(job, request);
		return run();
	}
	void key_plugin(const char *plugin = "fake_ecusecalgo", const char *script = "seed")
	{
		job->security = static_cast<security_access_config *>(calloc(1, sizeof(security_access_config)));
		job->security->location = strdup((std::string(FAKE_PLUGIN_DIRECTORY) + "/" + plugin).c_str());
		job->security->script = strdup(script);
	}
	// The exchange's own lines; the reply's and the keep-alive's come from elsewhere.
	texts errors() const
	{
		texts found;
		for (const std::string &line : log())
			if (line.starts_with("ERR "))
				found.push_back(line.substr(4));
		return found;
	}
};
