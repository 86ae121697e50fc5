// How much time the agent itself adds to a request of one command: from the message callback to send_diag_command, and
// from the last receive to the hand-over of the reply. The libraries do nothing and the log goes to /dev/null. The
// floor in the same run is what cannot be had for less: parsing the same request and rendering the same reply with
// json-c, and one hand-over to another thread.
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include <json-c/json.h>
#include <unistd.h>

#include "movra_fleet/agent_core/agent_core.h"
#include "noop_libraries.h"
#include "report.h"

namespace
{

constexpr int rounds = 20'000;
constexpr int warm_up = 1'000;

constexpr char request[] =
		R"({ "reply-id": "bench-1", "type": "movra.quillet-query", "body": { "targetAddress": "7E0",)"
		R"( "mode": "CAN", "can": { "ifname": "can0", "phy-req-id": "7E0", "phy-resp-id": "7E8",)"
		R"( "st-min": "0", "bsize": "8" }, "routine": { "commands": [ { "service": "22", "subfn": "",)"
		R"( "data": "F190", "timer": "0" } ] } } })";

std::string make_identity()
{
	char pattern[] = "/tmp/agent_overhead_XXXXXX";
	const char *root = mkdtemp(pattern);
	if (root == nullptr) {
		perror("agent_overhead: mkdtemp in /tmp");
		exit(1);
	}
	for (const char *name : {"node", "ca"})
		std::filesystem::create_directory(std::string(root) + "/" + name);
	for (const char *name : {"node/private.pem", "node/cert.pem", "ca/ca.pem"})
		std::ofstream(std::string(root) + "/" + name) << "not looked at\n";
	return root;
}

struct measured {
	std::vector<int64_t> to_request, to_reply, both;
};

measured measure_agent()
{
	measured result;
	char sender_name[] = "requester";
	address_entry sender = {TERVBUS_ADDRESS_UNIT, {sender_name}, nullptr};
	std::string text = request;
	tervbus_message message = {};
	message.source = &sender;
	message.data = text.data();
	message.length = static_cast<uint32_t>(text.size() + 1);

	for (int i = 0; i < warm_up + rounds; i++) {
		int64_t begin = monotonic_ns();
		noop_client()->on_message(noop_client(), &message);
		noop_times times = noop_wait_for_reply();
		if (i < warm_up)
			continue;
		result.to_request.push_back(times.request_sent - begin);
		result.to_reply.push_back(times.reply_handed_over - times.last_received);
		result.both.push_back(result.to_request.back() + result.to_reply.back());
	}
	return result;
}

std::vector<int64_t> measure_json_floor()
{
	std::vector<int64_t> samples;
	json_object *reply = json_tokener_parse(
			R"({ "type": "movra.quillet-query-update", "reply-to": "bench-1", "body": {)"
			R"( "routine-response": [ { "service": "0x22", "requested-time": "2024-05-01T10:00:00Z",)"
			R"( "responded-time": "2024-05-01T10:00:00Z", "response-data": "62F190",)"
			R"( "error": "none" } ], "targetAddress": "7E0" } })");
	for (int i = 0; i < warm_up + rounds; i++) {
		int64_t begin = monotonic_ns();
		json_object *document = json_tokener_parse(request);
		json_object_put(document);
		size_t length = strlen(json_object_to_json_string(reply));
		int64_t end = monotonic_ns();
		if (i >= warm_up && length != 0)
			samples.push_back(end - begin);
	}
	json_object_put(reply);
	return samples;
}

std::vector<int64_t> measure_handover_floor()
{
	std::mutex lock;
	std::condition_variable changed;
	int64_t given_at = 0, taken_at = 0;
	bool given = false, stop = false;
	std::thread taker([&] {
		std::unique_lock held(lock);
		for (;;) {
			changed.wait(held, [&] { return given || stop; });
			if (stop)
				return;
			taken_at = monotonic_ns();
			given = false;
			changed.notify_all();
		}
	});
	std::vector<int64_t> samples;
	for (int i = 0; i < warm_up + rounds; i++) {
		std::unique_lock held(lock);
		given_at = monotonic_ns();
		given = true;
		changed.notify_all();
		changed.wait(held, [&] { return !given; });
		if (i >= warm_up)
			samples.push_back(taken_at - given_at);
	}
	{
		std::unique_lock held(lock);
		stop = true;
		changed.notify_all();
	}
	taker.join();
	return samples;
}

}

int main()
{
	FILE *out = fdopen(dup(STDOUT_FILENO), "w");
	if (out == nullptr || freopen("/dev/null", "w", stdout) == nullptr) {
		perror("agent_overhead: /dev/null");
		return 1;
	}

	std::string root = make_identity();
	std::string certificates = root + "/node";
	agent_settings settings = {};
	settings.broker_host = "localhost";
	settings.broker_port = 9133;
	settings.cert_dir = certificates.c_str();
	settings.verbosity = 2;
	agent_ctx *ctx = agent_init(&settings, "No config");
	if (ctx == nullptr) {
		fprintf(stderr, "agent_overhead: the agent did not start\n");
		return 1;
	}
	measured agent = measure_agent();
	agent_deinit(ctx);
	std::filesystem::remove_all(root);
	std::vector<int64_t> json = measure_json_floor();
	std::vector<int64_t> handover = measure_handover_floor();

	fprintf(out, "agent overhead of a request of one command, libraries that do nothing, log to /dev/null\n");
	print_row(out, "floor: json-c parses the request and renders the reply", json);
	print_row(out, "floor: hand-over to another thread", handover);
	print_row(out, "message callback to send_diag_command", agent.to_request);
	print_row(out, "last receive to tervbus_send_message", agent.to_reply);
	print_row(out, "both together (wanted: p50 under 100 us)", agent.both);
	double floor = quantile_us(json, 0.5) + quantile_us(handover, 0.5);
	fprintf(out, "both together / floors: %.2f\n", quantile_us(agent.both, 0.5) / floor);
	fclose(out);
	return 0;
}
