// An agent context with a bus client on the fake bus library, for tests of what a job sends.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fakes/fake_tervbus.h"
#include "movra_fleet/common/agent_ctx.h"

class connected_agent
{
public:
	connected_agent()
	{
		fake_bus::reset();
		char path[] = "/tmp/connected_agent.XXXXXX";
		directory = mkdtemp(path);
		std::filesystem::create_directories(directory + "/unit");
		std::filesystem::create_directories(directory + "/ca");
		for (const char *name : {"/unit/private.pem", "/unit/cert.pem", "/ca/ca.pem"})
			std::ofstream(directory + name) << "text of the file " << name;

		ctx = agent_ctx_new();
		ctx->bus = mobus_init(nullptr, (directory + "/unit").c_str(), "tcp://127.0.0.1:9133", ctx, ignore, nullptr);
		EXPECT_NE(ctx->bus, nullptr);
	}
	~connected_agent()
	{
		mobus_deinit(agent_take_bus(ctx));
		tvtimer_service *timers = ctx->timers;
		if (timers != nullptr)
			tvtimer_deinit(timers);
		agent_ctx_free(ctx);
		std::filesystem::remove_all(directory);
	}
	connected_agent(const connected_agent &) = delete;
	connected_agent &operator=(const connected_agent &) = delete;

	// The texts of the messages sent so far, without the forgotten ones.
	std::vector<std::string> replies() const
	{
		std::vector<std::string> texts;
		for (const fake_bus::sent_message &message : fake_bus::sent())
			texts.push_back(message.text);
		texts.erase(texts.begin(), texts.begin() + static_cast<long>(forgotten));
		return texts;
	}
	void forget_replies()
	{
		forgotten = fake_bus::sent().size();
	}

	agent_ctx *ctx = nullptr;

private:
	static int ignore(const char *, size_t, const address_entry *, void *)
	{
		return 0;
	}

	std::string directory;
	size_t forgotten = 0;
};

// A job as the request intake makes it, in new memory: reply id "req-42", from "FLEET-1", for the ECU "7E0".
inline diag_job *new_test_job()
{
	diag_job *job = static_cast<diag_job *>(calloc(1, sizeof(diag_job)));
	job->reply_id = strdup("req-42");
	job->source_address = strdup("FLEET-1");
	job->target_address = strdup("7E0");
	return job;
}

// Appends a command to the job.
inline uds_command *add_test_command(diag_job *job, const std::vector<uint8_t> &request, uint32_t timer = 0)
{
	uds_command *command = static_cast<uds_command *>(calloc(1, sizeof(uds_command)));
	command->request = static_cast<uint8_t *>(calloc(1, request.size()));
	if (!request.empty())
		memcpy(command->request, request.data(), request.size());
	command->request_length = static_cast<uint32_t>(request.size());
	command->timer = timer;
	uds_command **tail = &job->commands;
	while (*tail != nullptr)
		tail = &(*tail)->next;
	*tail = command;
	job->command_count += 1;
	return command;
}

// Appends the settings of an ECU to the job: interface can0, the given identifier, answers eight above it.
inline transport_cfg *add_test_transport(diag_job *job, uint32_t phy_req_id = 0x7E0, const char *ifname = "can0")
{
	transport_cfg *cfg = static_cast<transport_cfg *>(calloc(1, sizeof(transport_cfg)));
	cfg->params.phy_req_id = phy_req_id;
	cfg->params.phy_resp_id = phy_req_id + 8;
	cfg->params.bsize = 8;
	cfg->params.st_min = 5;
	(void)snprintf(cfg->params.ifname, sizeof cfg->params.ifname, "%s", ifname);
	char text[16];
	(void)snprintf(text, sizeof text, "%X", phy_req_id);
	cfg->phy_req_id_text = strdup(text);
	transport_cfg **tail = &job->transport;
	while (*tail != nullptr)
		tail = &(*tail)->next;
	*tail = cfg;
	return cfg;
}
