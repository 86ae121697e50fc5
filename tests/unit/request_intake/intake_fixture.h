// Requests as texts, and an agent whose pool runs nothing, so that queued jobs can be looked at.
#pragma once

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_tervbus.h"
#include "fakes/fake_udsutils.h"
#include "movra_fleet/common/agent_ctx.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "movra_fleet/request_intake/dispatch.h"
#include "support/captured_output.h"
#include "threadpool.h"

using strings = std::vector<std::string>;
using bytes = std::vector<uint8_t>;

// The members of a complete request for one ECU, without work; an empty one is left out.
struct request_text {
	std::string reply_id = R"("reply-id":"r-1")";
	std::string type = R"("type":"movra.quillet-query")";
	std::string target = R"("targetAddress":"0x10")";
	std::string mode = R"("mode":"CAN")";
	std::string can = R"("can":{"ifname":"can0","phy-req-id":"7E0","phy-resp-id":"7E8","st-min":"0","bsize":"8"})";
	std::string work = "";

	static std::string members(const strings &all)
	{
		std::string joined;
		for (const std::string &member : all)
			if (!member.empty())
				joined += (joined.empty() ? "" : ",") + member;
		return "{" + joined + "}";
	}
	std::string text() const
	{
		return members({reply_id, type, R"("body":)" + members({target, mode, can, work})});
	}
};

inline request_text routine_request(const std::string &commands, const std::string &more = "")
{
	request_text request;
	request.work = R"("routine":{"commands":)" + commands + (more.empty() ? "" : "," + more) + "}";
	return request;
}

constexpr const char security_access[] = R"("security_access":{"level":"11","script":"S","location":"/opt/key"})";

class intake_test : public testing::Test
{
protected:
	intake_test()
	{
		EXPECT_NE(ctx, nullptr);
		EXPECT_EQ(threadpool_init(&ctx->pool, 0), 0);
		log.clear();
	}
	~intake_test() override
	{
		drop_pending();
		threadpool_destroy(ctx->pool);
		agent_ctx_free(ctx);
		fake_bus::free_list(sender);
	}

	void drop_pending()
	{
		for (diag_job *job; (job = pending_jobs_head(ctx)) != nullptr;) {
			pending_jobs_remove(ctx, job);
			free_job_contents(job);
			free(job);
		}
	}

	// Hands the text over as the bus does.
	void receive(const std::string &text)
	{
		EXPECT_EQ(handle_bus_message(text.c_str(), text.size() + 1, sender, ctx), 0);
	}
	int dispatch(const std::string &text)
	{
		json_object *request = json_tokener_parse(text.c_str());
		EXPECT_NE(request, nullptr) << text;
		int result = dispatch_request(request, sender, ctx);
		json_object_put(request);
		return result;
	}
	int dispatch(const request_text &request)
	{
		return dispatch(request.text());
	}
	// The job that a request gives, or NULL with a failure.
	diag_job *queued(const request_text &request)
	{
		EXPECT_EQ(dispatch(request), 0);
		EXPECT_NE(ctx->pending_jobs, nullptr);
		return ctx->pending_jobs;
	}
	// The error lines of a request that must be dropped, with nothing left of it.
	strings dropped(const request_text &request)
	{
		log.clear();
		EXPECT_EQ(dispatch(request), -1);
		EXPECT_EQ(ctx->pending_jobs, nullptr);
		EXPECT_EQ(ctx->pending_job_count, 0u);
		EXPECT_EQ(ctx->pending_command_count, 0u);
		for (const log_record &record : log.records())
			EXPECT_TRUE(record.level != "ERR" || record.source == "movra_fleet") << record.source;
		return log.messages("ERR");
	}
	static std::vector<bytes> commands_of(const diag_job *job)
	{
		std::vector<bytes> all;
		for (const uds_command *one = job != nullptr ? job->commands : nullptr; one != nullptr; one = one->next)
			all.emplace_back(one->request, one->request + one->request_length);
		return all;
	}
	static std::string scratch()
	{
		char text[log_scratch_size];
		log_scratch_read(text);
		return text;
	}

	captured_output log;
	agent_ctx *ctx = agent_ctx_new();
	address_entry *sender = fake_bus::make_list({fake_bus::unit("ASKER"), fake_bus::special(0)});
};
