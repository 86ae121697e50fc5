// The round trip of 1 KB between two nodes of the bus library, beside the same two roles written directly on
// libmosquitto. Blocks of both take turns in one run, so that what else the machine does meets both alike. Each node
// answers, and begins the next round, from inside its callback. run.py starts the far ends and the measurement.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "bare_node.h"
#include "bus_node.h"
#include "report.h"

namespace
{

constexpr size_t text_length = 1023; // and its zero byte
constexpr int blocks = 21;           // of each kind; the first is the warm-up
constexpr int rounds_per_block = 300;

[[noreturn]] void fail(const char *what)
{
	fprintf(stderr, "bus_round_trip: %s\n", what);
	exit(1);
}

// The near end's account of one block; written by the thread that calls the handlers, once the block has begun.
struct block_account {
	std::mutex lock;
	std::condition_variable finished;
	std::vector<int64_t> samples;
	int64_t begun_ns = 0;
	int left = 0;
};

// Notes an answer; true when another round is to begin.
bool note_answer(block_account &account, const std::string &text)
{
	const int64_t now = now_ns();
	if (text.size() != text_length)
		fail("an answer has another length than the text that was sent");
	std::lock_guard held(account.lock);
	account.samples.push_back(now - account.begun_ns);
	account.begun_ns = now_ns();
	if (--account.left > 0)
		return true;
	account.finished.notify_all();
	return false;
}

void begin_block(block_account &account)
{
	std::lock_guard held(account.lock);
	account.samples.clear();
	account.left = rounds_per_block;
	account.begun_ns = now_ns();
}

std::vector<int64_t> run_bus_block(block_account &account, bus_node &node, const std::string &echo)
{
	begin_block(account);
	if (!node.send(echo, std::string(text_length, 'x')))
		fail("a send was refused");
	std::unique_lock held(account.lock);
	if (!account.finished.wait_for(held, std::chrono::seconds(30), [&account] { return account.left == 0; }))
		fail("no answer over the bus library");
	return account.samples;
}

std::vector<int64_t> run_bare_block(block_account &account, bare_node &node, const std::string &echo)
{
	begin_block(account);
	node.send(echo, std::string(text_length, 'x'));
	while (account.left > 0) { // this thread's alone: it calls the handler
		if (now_ns() - account.begun_ns > 30'000'000'000)
			fail("no answer over libmosquitto");
		node.step();
	}
	return account.samples;
}

void append(std::vector<int64_t> &all, const std::vector<int64_t> &samples)
{
	all.insert(all.end(), samples.begin(), samples.end());
}

int measure(const std::string &bus_directory, const std::string &bare_directory, const std::string &host,
		const std::string &port, const std::string &bus_echo, const std::string &bare_echo)
{
	block_account bus_account, bare_account;
	bus_node bus(bus_directory, "tcp://" + host + ":" + port,
			[&](bus_node &node, const std::string &text, const std::string &sender) {
				if (note_answer(bus_account, text) && !node.send(sender, text))
					fail("a send was refused");
			});
	bare_node bare(bare_directory, host, atoi(port.c_str()),
			[&](bare_node &node, const std::string &text, const std::string &sender) {
				if (note_answer(bare_account, text))
					node.send(sender, text);
			});
	if (!bus.wait_until_running())
		fail("the near node does not reach the broker");

	std::vector<int64_t> bus_samples, bare_samples;
	for (int block = 0; block < blocks; block++) {
		const std::vector<int64_t> bare_block = run_bare_block(bare_account, bare, bare_echo);
		const std::vector<int64_t> bus_block = run_bus_block(bus_account, bus, bus_echo);
		if (block == 0)
			continue;
		append(bare_samples, bare_block);
		append(bus_samples, bus_block);
	}
	print_row(stdout, "floor: round trip of 1 KB over libmosquitto alone", bare_samples);
	print_row(stdout, "round trip of 1 KB over the bus library", bus_samples);
	printf("bus library / floor (wanted: at most 1.2): p50 %.2f, p99 %.2f\n",
			quantile_us(bus_samples, 0.5) / quantile_us(bare_samples, 0.5),
			quantile_us(bus_samples, 0.99) / quantile_us(bare_samples, 0.99));
	return 0;
}

void say_ready()
{
	printf("echo ready\n");
	fflush(stdout);
}

// Both run until they are killed.
int bus_echo(const std::string &directory, const std::string &url)
{
	bus_node node(directory, url,
			[](bus_node &self, const std::string &text, const std::string &sender) { self.send(sender, text); });
	if (!node.wait_until_running())
		fail("the echo node does not reach the broker");
	say_ready();
	std::string text, sender;
	node.receive(text, sender, 600'000); // nothing comes this way: the handler has it
	return 0;
}

int bare_echo(const std::string &directory, const std::string &host, int port)
{
	bare_node node(directory, host, port,
			[](bare_node &self, const std::string &text, const std::string &sender) { self.send(sender, text); });
	say_ready();
	for (;;)
		node.step();
}

}

int main(int argc, char **argv)
{
	if (argc == 5 && strcmp(argv[1], "echo") == 0)
		return bus_echo(argv[2], std::string("tcp://") + argv[3] + ":" + argv[4]);
	if (argc == 5 && strcmp(argv[1], "bare-echo") == 0)
		return bare_echo(argv[2], argv[3], atoi(argv[4]));
	if (argc == 8 && strcmp(argv[1], "measure") == 0)
		return measure(argv[2], argv[3], argv[4], argv[5], argv[6], argv[7]);
	fprintf(stderr,
			"usage: bus_round_trip echo IDENTITY HOST PORT\n"
			"       bus_round_trip bare-echo IDENTITY HOST PORT\n"
			"       bus_round_trip measure IDENTITY BARE_IDENTITY HOST PORT ECHO BARE_ECHO\n"
			"run.py starts it with everything it needs\n");
	return 2;
}
