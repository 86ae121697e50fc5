// Long messages, both ways, over buses that are as slow as real ones: a sample of the settings in the short tier, all
// of them in the long one. Built once for a CAN server of its own and once, with ON_A_KERNEL, for two controllers of
// the kernel, can0 and can1 on one bus, on a machine whose clock is virtual; there the sample is played.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <linux/can.h>
#include <thread>

#include "bus_line.h"
#include "can_link.h"
#include "long_transfers.h"
#include "support/can_server_thread.h"
#include "support/tier.h"
#include "udsutils.h"

namespace
{

constexpr int patience_ms = 5000;

using transfer = long_transfer;

std::vector<transfer> sample(uint32_t bitrate)
{
	if (bitrate == 500000)
		return {{4095, 0, 0x00}, {4095, 8, 0x00}, {4095, 1, 0x00}, {8191, 8, 0x01}};
	return {{8191, 0, 0xF1}, {8191, 255, 0x00}};
}

// The bits of a full frame of 11 bits, on the bus.
uint32_t full_frame_bits()
{
	bus_frame frame{};
	frame.length = 8;
	return bus_frame_bits(frame);
}

// The interfaces of both sides.
struct place {
	std::string tester;
	std::string ecu;
};

int open_node(const std::string &bus, uint32_t tx_id, uint32_t rx_id, const transfer &one)
{
	uds_transport_params params{};
	params.phy_req_id = tx_id;
	params.phy_resp_id = rx_id;
	params.bsize = one.block_size;
	params.st_min = one.st_min;
	memcpy(params.ifname, bus.c_str(), bus.size() + 1);
	return transport_init(0, &params);
}

// No faster than the frames of one side fit on the bus, and than the separation allows.
int64_t least_us(const transfer &one, uint32_t bitrate)
{
	const int frames = consecutive_count(one.length);
	const int blocks = one.block_size == 0 ? 1 : (frames + one.block_size - 1) / one.block_size;
	// The last frame is sent when the transmit queue has taken it: a queue of 64 may be left.
	const int64_t bus_us = (frames - 64) * int64_t{full_frame_bits()} * 1000000 / bitrate;
	return std::max(bus_us, (frames - blocks) * isotp_st_min_us(one.st_min));
}

std::string carry(int from, int to, const transfer &one, uint32_t bitrate)
{
	const bytes pdu = pdu_of(one.length);
	const int64_t began_us = can_link_monotonic_us();
	int sent = -1;
	std::thread sender([&] { sent = send_diag_command(from, pdu.data(), static_cast<uint32_t>(pdu.size()), 0); });
	bytes buffer(isotp_pdu_max);
	uint32_t length = isotp_pdu_max;
	const int received = recv_diag_command(to, buffer.data(), &length, patience_ms, 0);
	sender.join();
	const int64_t took_us = can_link_monotonic_us() - began_us;
	if (sent != 0 || received != 0)
		return "sent " + std::to_string(sent) + ", received " + std::to_string(received);
	buffer.resize(length);
	if (buffer != pdu)
		return "came otherwise than it was sent";
	return took_us < least_us(one, bitrate) ? "too fast: " + std::to_string(took_us) + " us" : "";
}

std::string play(const place &where, const transfer &one, uint32_t bitrate)
{
	const int tester = open_node(where.tester, 0x7E0, 0x7E8, one);
	const int ecu = open_node(where.ecu, 0x7E8, 0x7E0, one);
	std::string wrong = tester > 0 && ecu > 0 ? "" : "not opened";
	if (wrong.empty())
		wrong = carry(tester, ecu, one, bitrate);
	if (wrong.empty())
		wrong = carry(ecu, tester, one, bitrate);
	(void)transport_deinit(tester, 0); // one that was not opened is refused
	(void)transport_deinit(ecu, 0);
	return wrong;
}

// Every place is a thread that takes the next transfer when it is done with one.
void play_all(const std::vector<place> &places, uint32_t bitrate)
{
	const std::vector<transfer> transfers = times(2) == 1 ? sample(bitrate) : long_transfers();
	std::vector<std::string> failures(transfers.size());
	std::atomic<size_t> next = 0;
	std::vector<std::thread> workers;
	for (const place &where : places)
		workers.emplace_back([&] {
			for (size_t at = next++; at < transfers.size(); at = next++)
				failures[at] = play(where, transfers[at], bitrate);
		});
	for (std::thread &worker : workers)
		worker.join();
	for (size_t i = 0; i < transfers.size(); i++)
		EXPECT_EQ(failures[i], "") << transfers[i].length << " bytes, block size " << int(transfers[i].block_size)
								   << ", STmin " << int(transfers[i].st_min);
}

#ifdef ON_A_KERNEL

void run(const std::string &command)
{
	EXPECT_EQ(system(command.c_str()), 0) << command;
}

// The emulated controllers send at once, whatever their bit rate: the queue before each of them does the pacing. It
// counts a frame as the 16 bytes of a can_frame, and holds ten, as the default one.
void expect_good(uint32_t bitrate)
{
	unsetenv("QUILLET_CAN_SERVER");
	const uint64_t rate = uint64_t{bitrate} * CAN_MTU * 8 / full_frame_bits();
	for (const char *ifname : {"can0", "can1"})
		run("/sbin/tc qdisc replace dev " + std::string(ifname) + " root tbf rate " + std::to_string(rate) +
				"bit burst 32 limit " + std::to_string(10 * CAN_MTU));
	play_all({{"can0", "can1"}}, bitrate);
	for (const char *ifname : {"can0", "can1"})
		run("/sbin/tc qdisc delete dev " + std::string(ifname) + " root");
}

#else

void expect_good(uint32_t bitrate)
{
	constexpr unsigned buses = 12; // that are busy at once
	std::vector<std::string> names;
	std::vector<place> places;
	for (unsigned bus = 0; bus < buses; bus++) {
		names.push_back("bus" + std::to_string(bus));
		places.push_back({names.back(), names.back()});
	}
	can_server_thread server(names, 0, {.bitrate = bitrate});
	setenv("QUILLET_CAN_SERVER", server.address().c_str(), 1);
	play_all(places, bitrate);
	unsetenv("QUILLET_CAN_SERVER");
}

#endif

TEST(long_transfers, over_buses_of_500_kbit_a_second)
{
	expect_good(500000);
}

TEST(long_transfers, over_buses_of_250_kbit_a_second)
{
	expect_good(250000);
}

} // namespace
