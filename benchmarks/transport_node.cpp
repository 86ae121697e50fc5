// A node of the transport library for transport.py, which tells it on standard input what to do:
//	bench_transport BUS SEND_ID RECEIVE_ID BLOCK_SIZE      -> ready
//	send LENGTH        one PDU                             -> sent <when it began>
//	receive            one PDU                             -> received <when it ended> <its length>
//	serve LENGTH       answers every PDU with one of that length, for ever
//	ask COUNT          so many exchanges of 3 bytes there  -> asked <p50> <p99> <processor time an exchange>
// Identifiers are hexadecimal; moments are the monotonic clock's in ns, the times of exchanges in us. scapy_node.py
// speaks the same.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include <sys/resource.h>

#include "report.h"
#include "udsutils.h"

namespace
{

constexpr uint32_t longest = 8191;
constexpr int patience_ms = 5000;
constexpr int warm_up = 100;

[[noreturn]] void fail(const char *what)
{
	fprintf(stderr, "bench_transport: %s\n", what);
	exit(1);
}

int open_channel(char **arguments)
{
	uds_transport_params params{};
	snprintf(params.ifname, sizeof(params.ifname), "%s", arguments[0]);
	params.phy_req_id = static_cast<uint32_t>(strtoul(arguments[1], nullptr, 16));
	params.phy_resp_id = static_cast<uint32_t>(strtoul(arguments[2], nullptr, 16));
	params.bsize = static_cast<uint8_t>(atoi(arguments[3]));
	return transport_init(0, &params);
}

void send_pdu(int handle, uint32_t length)
{
	const std::vector<uint8_t> pdu(length, 0x22);
	if (send_diag_command(handle, pdu.data(), length, 0) != 0)
		fail("a PDU was not sent whole");
}

// The length of what has come, or 0.
uint32_t receive_pdu(int handle)
{
	uint8_t pdu[longest];
	uint32_t length = longest;
	return recv_diag_command(handle, pdu, &length, patience_ms, 0) == 0 ? length : 0;
}

void send_one(int handle, uint32_t length)
{
	const int64_t began_ns = now_ns();
	send_pdu(handle, length);
	std::cout << "sent " << began_ns << std::endl;
}

void receive_one(int handle, uint32_t)
{
	const uint32_t length = receive_pdu(handle);
	std::cout << "received " << now_ns() << " " << length << std::endl;
}

[[noreturn]] void serve(int handle, uint32_t length)
{
	for (;;)
		if (receive_pdu(handle) > 0)
			send_pdu(handle, length);
}

double processor_us()
{
	rusage used{};
	getrusage(RUSAGE_SELF, &used);
	return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1e6 +
			static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
}

void ask(int handle, uint32_t count)
{
	std::vector<int64_t> samples;
	double began_us = 0;
	for (uint32_t i = 0; i < warm_up + count; i++) {
		if (i == warm_up)
			began_us = processor_us();
		const int64_t began_ns = now_ns();
		send_pdu(handle, 3);
		if (receive_pdu(handle) == 0)
			fail("no answer");
		if (i >= warm_up)
			samples.push_back(now_ns() - began_ns);
	}
	const double each_us = (processor_us() - began_us) / count;
	std::cout << "asked " << quantile_us(samples, 0.5) << " " << quantile_us(samples, 0.99) << " " << each_us
			  << std::endl;
}

void obey(int handle, const std::string &line)
{
	static const struct {
		const char *word;
		void (*run)(int handle, uint32_t number);
	} commands[] = {{"send", send_one}, {"receive", receive_one}, {"serve", serve}, {"ask", ask}};
	std::istringstream words(line);
	std::string wanted;
	uint32_t number = 0;
	words >> wanted >> number;
	for (const auto &row : commands)
		if (wanted == row.word)
			return row.run(handle, number);
	fail("a command that is not known");
}

}

int main(int argc, char **argv)
{
	if (argc != 5) {
		fprintf(stderr, "usage: bench_transport BUS SEND_ID RECEIVE_ID BLOCK_SIZE; transport.py starts it\n");
		return 2;
	}
	const int handle = open_channel(argv + 1);
	if (handle <= 0)
		fail("the channel is not opened");
	std::cout << "ready" << std::endl;
	for (std::string line; std::getline(std::cin, line);)
		obey(handle, line);
	return transport_deinit(handle, 0);
}
