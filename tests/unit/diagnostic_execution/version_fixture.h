// A version job, and the version that was replied.
#pragma once

#include "job_fixture.h"
#include "movra_fleet/diagnostic_execution/version_reading.h"

inline const std::string j1939_head = R"({"ifname":"can5","id":"18FEDA00","timeout":"5","signal":[)";

class version_fixture : public job_fixture
{
protected:
	void query(int32_t kind, const std::string &text)
	{
		json_object_put(job->version_query);
		job->version_kind = kind;
		job->version_query = json_tokener_parse(text.c_str());
		ASSERT_NE(job->version_query, nullptr) << text;
	}
	// The requests as given; the array is filled up with further ones like the last until it has `count` elements.
	void ask(const texts &requests, size_t count = 0)
	{
		std::string text = "[";
		for (size_t i = 0; i < std::max(count, requests.size()); ++i)
			text += (i > 0 ? ",\"" : "\"") + requests[std::min(i, requests.size() - 1)] + "\"";
		query(VERSION_UDS, text + "]");
	}
	void watch(const std::string &signals)
	{
		query(VERSION_J1939, j1939_head + signals + "]}");
	}
	int run()
	{
		output.clear();
		replies_before = agent.replies().size();
		return read_version(agent.ctx, job);
	}
	// The version in the only reply of the last run, "(none)" when there was none.
	std::string version() const
	{
		texts replies = agent.replies();
		if (replies.size() != replies_before + 1)
			return "(none)";
		json_object *reply = json_tokener_parse(replies.back().c_str());
		json_object *body = json_object_object_get(reply, "body");
		std::string text = json_object_get_string(json_object_object_get(body, "version"));
		json_object_put(reply);
		return text;
	}
	texts errors() const
	{
		return output.messages("ERR");
	}

	size_t replies_before = 0;
};
