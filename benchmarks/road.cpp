// One request over the real broker, the agent and a virtual ECU, beside what it is made of: the round trip of a text of
// the same size over the bus alone, and the same transport calls made directly. Then the agent's memory over many
// requests. The processes are started by run.py; "echo" is the far end of the bus round trip.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "bus_node.h"
#include "report.h"
#include "udsutils.h"

namespace
{

constexpr int floor_rounds = 1'000;
constexpr int warm_up = 100;

[[noreturn]] void fail(const char *what)
{
	fprintf(stderr, "road: %s\n", what);
	exit(1);
}

std::string request_text(int number, const std::string &interface)
{
	return R"({ "reply-id": "road-)" + std::to_string(number) +
			R"(", "type": "movra.quillet-query", "body": { "targetAddress": "7E0", "mode": "CAN", "can": { "ifname": ")" +
			interface + R"(", "phy-req-id": "7E0", "phy-resp-id": "7E8", "st-min": "0", "bsize": "0" }, "routine": {)" +
			R"( "commands": [ { "service": "22", "subfn": "", "data": "F190", "timer": "0" } ] } } })";
}

int64_t one_round_trip(bus_node &node, const std::string &to, const std::string &text, const char *expected)
{
	std::string answer, sender;
	int64_t begin = now_ns();
	if (!node.send(to, text))
		fail("a send was refused");
	if (!node.receive(answer, sender, 10'000))
		fail("no answer within 10 s: does the agent's log say why?");
	int64_t end = now_ns();
	if (sender != to || answer.find(expected) == std::string::npos) {
		fprintf(stderr, "road: unexpected answer from %s: %s\n", sender.c_str(), answer.c_str());
		exit(1);
	}
	return end - begin;
}

std::vector<int64_t> measure_bus(bus_node &node, const std::string &echo, const std::string &interface)
{
	std::vector<int64_t> samples;
	for (int i = 0; i < warm_up + floor_rounds; i++) {
		int64_t spent = one_round_trip(node, echo, request_text(i, interface), "reply-id");
		if (i >= warm_up)
			samples.push_back(spent);
	}
	return samples;
}

std::vector<int64_t> measure_transport(const std::string &interface)
{
	uds_transport_params params = {};
	params.phy_req_id = 0x7E0;
	params.phy_resp_id = 0x7E8;
	snprintf(params.ifname, sizeof params.ifname, "%s", interface.c_str());
	constexpr uint8_t request[] = {0x22, 0xF1, 0x90};
	std::vector<int64_t> samples;
	for (int i = 0; i < warm_up + floor_rounds; i++) {
		uint8_t answer[4096];
		uint32_t length = sizeof answer;
		int64_t begin = now_ns();
		bool up = transport_interface_availibility(params.ifname, 0) == 1 &&
				transport_interface_status(params.ifname, 0) == 1;
		int handle = up ? transport_init(0, &params) : -1;
		bool answered = handle > 0 && send_diag_command(handle, request, sizeof request, 0) == 0 &&
				recv_diag_command(handle, answer, &length, 2000, 0) == 0 && answer[0] == 0x62;
		transport_deinit(handle, 0);
		int64_t end = now_ns();
		if (!answered)
			fail("the virtual ECU does not answer 22 F1 90 on 7E0/7E8");
		if (i >= warm_up)
			samples.push_back(end - begin);
	}
	return samples;
}

long resident_kb(const char *pid)
{
	std::ifstream status(std::string("/proc/") + pid + "/status");
	for (std::string line; std::getline(status, line);)
		if (line.starts_with("VmRSS:"))
			return strtol(line.c_str() + strlen("VmRSS:"), nullptr, 10);
	fail("the agent's memory cannot be read: is it still running?");
}

int echo(const std::string &directory, const std::string &broker)
{
	bus_node node(directory, broker);
	if (!node.wait_until_running())
		fail("the echo node does not reach the broker");
	printf("echo ready\n");
	fflush(stdout);
	std::string text, sender;
	while (node.receive(text, sender, 60'000))
		node.send(sender, text);
	return 0;
}

int measure(const std::string &directory, const std::string &broker, const std::string &agent,
		const std::string &echo_name, const std::string &interface, const char *agent_pid, int requests)
{
	movra_uds_util_debug_init(0);
	bus_node node(directory, broker);
	if (!node.wait_until_running())
		fail("the requester does not reach the broker");
	std::vector<int64_t> bus = measure_bus(node, echo_name, interface);
	std::vector<int64_t> transport = measure_transport(interface);
	std::vector<int64_t> whole;
	long after_1000 = 0;
	for (int i = 1; i <= requests; i++) {
		int64_t spent = one_round_trip(node, agent, request_text(i, interface), "\"error\": \"none\"");
		if (i > warm_up && i <= warm_up + floor_rounds)
			whole.push_back(spent);
		if (i == 1'000)
			after_1000 = resident_kb(agent_pid);
		if (i % 1'000 == 0)
			fprintf(stderr, "road: %d of %d requests\n", i, requests);
	}
	long at_end = resident_kb(agent_pid);

	print_row(stdout, "floor: round trip of the request's text over the bus alone", bus);
	print_row(stdout, "floor: checks, init, send, receive, deinit made directly", transport);
	print_row(stdout, "request over broker, agent and virtual ECU", whole);
	printf("request / sum of the floors, medians (wanted: at most 1.5): %.2f\n",
			quantile_us(whole, 0.5) / (quantile_us(bus, 0.5) + quantile_us(transport, 0.5)));
	printf("agent's resident memory after 1000 requests (wanted: under 12288 kB): %ld kB\n", after_1000);
	printf("agent's resident memory after %d requests (wanted: no growth): %ld kB, %+ld kB\n", requests, at_end,
			at_end - after_1000);
	return 0;
}

}

int main(int argc, char **argv)
{
	if (argc == 4 && strcmp(argv[1], "echo") == 0)
		return echo(argv[2], argv[3]);
	if (argc == 9 && strcmp(argv[1], "measure") == 0)
		return measure(argv[2], argv[3], argv[4], argv[5], argv[6], argv[7], atoi(argv[8]));
	fprintf(stderr,
			"usage: road echo IDENTITY BROKER_URL\n"
			"       road measure IDENTITY BROKER_URL AGENT ECHO INTERFACE AGENT_PID REQUESTS\n"
			"run.py starts it with everything it needs\n");
	return 2;
}
