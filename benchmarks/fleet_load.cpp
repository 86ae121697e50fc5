// Requests from a few requesters, spread over a whole fleet of agents. Lanes: lane l asks the agents l, l + lanes, …
// one after the other, each about the lane's own virtual ECU, and has one request under way; so what the agents have in
// common is the broker, and no two of them disturb each other at an ECU. First one lane after the other, for what a
// single request takes; then all lanes at once. fleet.py starts it with everything it needs.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bus_node.h"
#include "report.h"

namespace
{

constexpr int silence_s = 20; // no answer for so long ends the measurement

struct lane {
	int next_agent = 0;    // whom to ask next
	int number = 0;        // of the request under way
	int64_t begun_ns = -1; // -1: none is under way
	std::string agent;     // who was asked
};

// One measurement. The lock guards everything: the main thread begins the lanes, the bus thread goes on.
struct fleet {
	std::mutex lock;
	std::condition_variable changed;
	std::vector<std::unique_ptr<bus_node>> requesters;
	std::vector<lane> lanes;
	std::vector<int64_t> samples;
	int agents = 0;
	int left = 0; // requests still to be begun
	bool all_at_once = false;
	std::string failure;
};

std::string agent_name(int number)
{
	char name[32];
	snprintf(name, sizeof name, "agent-%04d", number);
	return name;
}

// The ECU of lane n is asked on 600+n and answers on 680+n, as fleet.py describes them.
std::string request_text(size_t number, int sequence)
{
	char text[512];
	snprintf(text, sizeof text,
			R"({ "reply-id": "%zu-%d", "type": "movra.quillet-query", "body": { "targetAddress": "%zX", "mode": "CAN",)"
			R"( "can": { "ifname": "can0", "phy-req-id": "%zX", "phy-resp-id": "%zX", "st-min": "0", "bsize": "0" },)"
			R"( "routine": { "commands": [ { "service": "22", "subfn": "", "data": "F190", "timer": "0" } ] } } })",
			number, sequence, 0x600 + number, 0x600 + number, 0x680 + number);
	return text;
}

// The lock is held.
void begin_request(fleet &all, size_t number)
{
	lane &own = all.lanes[number];
	const int step = static_cast<int>(all.lanes.size());
	own.agent = agent_name(own.next_agent);
	own.next_agent += step;
	if (own.next_agent >= all.agents)
		own.next_agent = static_cast<int>(number) % all.agents;
	own.number++;
	own.begun_ns = now_ns();
	all.left--;
	if (!all.requesters[number % all.requesters.size()]->send(own.agent, request_text(number, own.number)))
		all.failure = "a send was refused";
}

void fail(fleet &all, const std::string &why)
{
	all.failure = why;
	all.changed.notify_all();
}

void take_reply(fleet &all, const std::string &text, const std::string &sender)
{
	const int64_t now = now_ns();
	constexpr const char *key = "\"reply-to\": \"";
	const size_t place = text.find(key);
	size_t number = 0;
	int sequence = 0;
	std::lock_guard held(all.lock);
	if (place == std::string::npos || sscanf(text.c_str() + place + strlen(key), "%zu-%d", &number, &sequence) != 2 ||
			number >= all.lanes.size() || text.find("\"error\": \"none\"") == std::string::npos)
		return fail(all, "an unexpected reply from " + sender + ": " + text);
	lane &own = all.lanes[number];
	if (own.begun_ns < 0 || own.number != sequence || own.agent != sender)
		return fail(all, "a reply that nobody waits for, from " + sender + ": " + text);

	all.samples.push_back(now - own.begun_ns);
	own.begun_ns = -1;
	if (all.left > 0)
		begin_request(all, all.all_at_once ? number : (number + 1) % all.lanes.size());
	all.changed.notify_all();
}

std::string unanswered(const fleet &all)
{
	std::string names;
	for (const lane &own : all.lanes)
		if (own.begun_ns >= 0)
			names += " " + own.agent;
	return names;
}

[[noreturn]] void give_up(const std::string &why)
{
	fprintf(stderr, "fleet: %s\n", why.c_str());
	exit(1);
}

// Makes that many requests and waits for the last answer; the seconds that they took.
double run(fleet &all, bool all_at_once, int requests)
{
	std::unique_lock held(all.lock);
	all.samples.clear();
	all.left = requests;
	all.all_at_once = all_at_once;
	const int64_t begin = now_ns();
	for (size_t number = 0; number < (all_at_once ? all.lanes.size() : 1) && all.left > 0; number++)
		begin_request(all, number);
	for (size_t answers = 0; answers < static_cast<size_t>(requests); answers = all.samples.size()) {
		const bool told = all.changed.wait_for(held, std::chrono::seconds(silence_s),
				[&all, answers] { return all.samples.size() > answers || !all.failure.empty(); });
		if (!all.failure.empty())
			give_up(all.failure);
		if (!told)
			give_up("no answer for 20 s from" + unanswered(all));
	}
	return static_cast<double>(now_ns() - begin) / 1e9;
}

// What fleet.py reads: requests a second, p50 and p99 in µs.
void report(const char *what, fleet &all, double seconds)
{
	printf("%s %.0f %.0f %.0f\n", what, static_cast<double>(all.samples.size()) / seconds,
			quantile_us(all.samples, 0.5), quantile_us(all.samples, 0.99));
	fflush(stdout);
}

int measure(const std::string &url, int agents, int lanes, int single, int together, char **identities)
{
	fleet all;
	all.agents = agents;
	all.lanes.resize(static_cast<size_t>(lanes));
	for (int number = 0; number < lanes; number++)
		all.lanes[static_cast<size_t>(number)].next_agent = number % agents;
	for (; *identities != nullptr; identities++)
		all.requesters.push_back(std::make_unique<bus_node>(
				*identities, url, [&all](bus_node &, const std::string &text, const std::string &sender) {
					take_reply(all, text, sender);
				}));
	for (const auto &requester : all.requesters)
		if (!requester->wait_until_running())
			give_up("a requester does not reach the broker");

	(void)run(all, true, agents); // each agent's first request is not measured
	report("single", all, run(all, false, single));
	report("together", all, run(all, true, together));
	all.requesters.clear(); // they stop before what their handlers use goes
	return 0;
}

}

int main(int argc, char **argv)
{
	if (argc >= 7 && atoi(argv[2]) > 0 && atoi(argv[3]) > 0)
		return measure(argv[1], atoi(argv[2]), atoi(argv[3]), atoi(argv[4]), atoi(argv[5]), argv + 6);
	fprintf(stderr,
			"usage: fleet BROKER_URL AGENTS LANES REQUESTS_ONE_BY_ONE REQUESTS_TOGETHER IDENTITY...\n"
			"fleet.py starts it with everything it needs\n");
	return 2;
}
