// A job for one ECU, the agent that runs it, the scripted ECU and what comes out: log lines and replies.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fakes/fake_udsutils.h"
#include "movra_fleet/diagnostic_execution/job_worker.h"
#include "support/captured_output.h"
#include "support/connected_agent.h"
#include "support/verbosity_scope.h"

using texts = std::vector<std::string>;

// What the agent core logged through the logger, as "LEVEL text".
inline texts fleet_lines(const captured_output &output)
{
	texts lines;
	for (const log_record &record : output.records())
		if (record.source == "movra_fleet" && !record.level.empty())
			lines.push_back(record.level + " " + record.message);
	return lines;
}

// One element of a routine reply.
struct outcome {
	std::string service, requested_time, responded_time, response, error;
};

// The elements of a routine reply. Its other members are tested where the reply is built.
inline std::vector<outcome> outcomes_of(const std::string &reply)
{
	std::unique_ptr<json_object, decltype(&json_object_put)> document(
			json_tokener_parse(reply.c_str()), json_object_put);
	json_object *body = nullptr, *list = nullptr;
	std::vector<outcome> found;
	if (!json_object_object_get_ex(document.get(), "body", &body) ||
			!json_object_object_get_ex(body, "routine-response", &list))
		return found;
	auto text = [](json_object *element, const char *key) {
		const char *value = json_object_get_string(json_object_object_get(element, key));
		return std::string(value != nullptr ? value : "(missing)");
	};
	for (size_t i = 0; i < json_object_array_length(list); ++i) {
		json_object *element = json_object_array_get_idx(list, i);
		found.push_back({text(element, "service"), text(element, "requested-time"), text(element, "responded-time"),
				text(element, "response-data"), text(element, "error")});
	}
	return found;
}

class job_fixture : public testing::Test
{
public:
	~job_fixture() override
	{
		free_job_contents(job);
		free(job);
	}

protected:
	texts log() const
	{
		return fleet_lines(output);
	}
	// The elements of the only reply.
	std::vector<outcome> outcomes() const
	{
		texts replies = agent.replies();
		EXPECT_EQ(replies.size(), 1u);
		return replies.empty() ? std::vector<outcome>{} : outcomes_of(replies[0]);
	}
	// The outcome of the only command, empty texts when there is another number of them.
	outcome only_outcome() const
	{
		std::vector<outcome> all = outcomes();
		EXPECT_EQ(all.size(), 1u);
		return all.size() == 1 ? all[0] : outcome{};
	}

	captured_output output;
	connected_agent agent;
	fake_ecu ecu;
	diag_job *job = new_test_job();
	transport_cfg *cfg = add_test_transport(job);
};
