// A DTC job, and the receivers that it may leave behind.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <unistd.h>

#include "job_fixture.h"
#include "movra_fleet/common/agent_log.h"
#include "movra_fleet/diagnostic_execution/dtc_reading.h"
#include "movra_fleet/diagnostic_execution/dtc_receiver.h"
#include "movra_fleet/diagnostic_execution/transports.h"
#include "support/event.h"
#include "support/fail_nth.h"

inline long thread_count()
{
	std::filesystem::directory_iterator tasks("/proc/self/task");
	return std::distance(begin(tasks), end(tasks));
}

class dtc_fixture : public job_fixture
{
protected:
	dtc_fixture()
	{
		job->sid = 0x19;
		job->dtc_subfunction = 0x02;
		job->dtc_data = static_cast<uint8_t *>(calloc(1, 1));
		job->dtc_data[0] = 0x09;
		job->dtc_data_length = 1;
	}
	~dtc_fixture() override
	{
		EXPECT_TRUE(receivers_gone());
	}

	void ask_all()
	{
		free(job->target_address);
		job->target_address = strdup("-1");
	}
	// One more ECU, with its functional address.
	transport_cfg *add_ecu(uint32_t phy_req_id, uint32_t functional, const char *ifname = "can0")
	{
		transport_cfg *added = add_test_transport(job, phy_req_id, ifname);
		EXPECT_EQ(add_can_port(job, functional, added), 0);
		return added;
	}
	int run()
	{
		output.clear();
		return read_dtc_information(agent.ctx, job);
	}
	// Every thread that was started since the test began has ended; a sanitizer's own thread may have come.
	bool receivers_gone()
	{
		auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
		auto gone = [this] {
			return thread_count() <= threads_before && fake_ecu::idle();
		};
		while (!gone() && std::chrono::steady_clock::now() < end)
			std::this_thread::yield();
		return gone();
	}
	// The library's calls but those of the receivers, whose moment is their own.
	std::vector<fake_uds_call> worker_calls() const
	{
		std::vector<fake_uds_call> found;
		for (const fake_uds_call &call : ecu.calls())
			if (call.function != "recv_diag_command")
				found.push_back(call);
		return found;
	}
	texts worker_call_names() const
	{
		texts names;
		for (const fake_uds_call &call : worker_calls())
			names.push_back(call.function);
		return names;
	}
	// The handles and the kinds of all calls of one function.
	std::vector<int> handles(const std::string &function) const
	{
		std::vector<int> found;
		for (const fake_uds_call &call : ecu.calls(function))
			found.push_back(call.handle);
		return found;
	}
	std::vector<int> kinds(const std::string &function) const
	{
		std::vector<int> found;
		for (const fake_uds_call &call : ecu.calls(function))
			found.push_back(call.kind);
		return found;
	}
	// "id data" of each answer in the last reply.
	static texts reported()
	{
		texts found;
		json_object *reply = json_tokener_parse(fake_bus::last_sent().text.c_str());
		json_object *node = reply;
		for (const char *key : {"body", "uds", "data-record"})
			node = json_object_object_get(node, key);
		for (size_t i = 0; node != nullptr && i < json_object_array_length(node); ++i) {
			json_object *element = json_object_array_get_idx(node, i);
			found.push_back(std::string(json_object_get_string(json_object_object_get(element, "phy-req-id"))) + " " +
					json_object_get_string(json_object_object_get(element, "data")));
		}
		json_object_put(reply);
		return found;
	}
	static std::string scratch()
	{
		char text[log_scratch_size];
		log_scratch_read(text);
		return text;
	}

private:
	// The first thread of a process brings a sanitizer's own with it. A joined thread is counted for a moment longer.
	static long count_after_a_thread()
	{
		std::filesystem::path task;
		std::thread([&] { task = "/proc/self/task/" + std::to_string(gettid()); }).join();
		while (std::filesystem::exists(task))
			std::this_thread::yield();
		return thread_count();
	}
	const long threads_before = count_after_a_thread();
};
