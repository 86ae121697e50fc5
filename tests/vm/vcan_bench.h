// A CAN interface of the kernel with our transport library on it, and on the other side the kernel's own ISO-TP or
// single frames. The machine that runs these tests has made vcan0.
#pragma once

#include <linux/can.h>
#include <linux/can/isotp.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "udsutils.h"

// Where the library is, and where its peers are: the same vcan, or two controllers on one bus. A fixture may change them.
inline const char *our_interface = "vcan0";
inline const char *peer_interface = "vcan0";
inline constexpr uint32_t request_id = 0x7E0;
inline constexpr uint32_t response_id = 0x7E8;

using bytes = std::vector<uint8_t>;

// Bytes that differ from their neighbours, also across frames.
inline bytes pattern(size_t count, unsigned first = 1)
{
	bytes data(count);
	for (size_t index = 0; index < count; ++index)
		data[index] = static_cast<uint8_t>(first + index * 7 + index / 251);
	return data;
}

inline double now_ms()
{
	return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

inline canid_t kernel_id(uint32_t id)
{
	return id > 0x7FF && (id & CAN_ERR_FLAG) == 0 ? id | CAN_EFF_FLAG : id;
}

inline sockaddr_can address_on(const char *ifname)
{
	sockaddr_can address{};
	address.can_family = AF_CAN;
	address.can_ifindex = static_cast<int>(if_nametoindex(ifname));
	return address;
}

inline bool readable(int descriptor, int timeout_ms)
{
	pollfd waiting{descriptor, POLLIN, 0};
	return poll(&waiting, 1, timeout_ms) > 0;
}

// The kernel's ISO-TP in the ECU's place: it receives what is sent to request and answers from response.
class kernel_ecu
{
public:
	explicit kernel_ecu(
			uint8_t block_size = 0, uint8_t st_min = 0, uint32_t request = request_id, uint32_t response = response_id)
			: descriptor(socket(PF_CAN, SOCK_DGRAM | SOCK_CLOEXEC, CAN_ISOTP))
	{
		const can_isotp_fc_options control{block_size, st_min, 0};
		EXPECT_EQ(setsockopt(descriptor, SOL_CAN_ISOTP, CAN_ISOTP_RECV_FC, &control, sizeof(control)), 0);
		sockaddr_can address = address_on(peer_interface);
		address.can_addr.tp.rx_id = kernel_id(request);
		address.can_addr.tp.tx_id = kernel_id(response);
		EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	}
	~kernel_ecu()
	{
		close(descriptor);
	}
	kernel_ecu(const kernel_ecu &) = delete;
	kernel_ecu &operator=(const kernel_ecu &) = delete;

	// Empty when nothing has come within five seconds.
	bytes receive() const
	{
		bytes data(16384);
		if (!readable(descriptor, 5000))
			return {};
		const ssize_t count = read(descriptor, data.data(), data.size());
		data.resize(count > 0 ? static_cast<size_t>(count) : 0);
		return data;
	}
	bool send(const bytes &data) const
	{
		return write(descriptor, data.data(), data.size()) == static_cast<ssize_t>(data.size());
	}

private:
	int descriptor;
};

// Single frames, for what no ISO-TP would send, and for watching.
class raw_peer
{
public:
	// Takes the frames of one identifier.
	explicit raw_peer(uint32_t id, const char *ifname = peer_interface)
			: descriptor(socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW))
	{
		const can_filter filter{kernel_id(id), CAN_EFF_FLAG | CAN_RTR_FLAG | CAN_EFF_MASK};
		EXPECT_EQ(setsockopt(descriptor, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, sizeof(filter)), 0);
		const int room = 4 << 20; // for a long message that comes in one burst
		EXPECT_EQ(setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)), 0);
		const sockaddr_can address = address_on(ifname);
		EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	}
	~raw_peer()
	{
		close(descriptor);
	}
	raw_peer(const raw_peer &) = delete;
	raw_peer &operator=(const raw_peer &) = delete;

	struct arrival {
		double at_ms;
		bytes data;
	};
	// At 0 when none has come in time.
	arrival receive(int timeout_ms = 5000) const
	{
		can_frame frame{};
		if (!readable(descriptor, timeout_ms) || read(descriptor, &frame, sizeof(frame)) != sizeof(frame))
			return {};
		return {now_ms(), bytes(frame.data, frame.data + frame.can_dlc)};
	}
	void send(const bytes &data, uint32_t id = response_id) const
	{
		EXPECT_TRUE(try_send(data, id));
	}
	// False, with errno, when the interface does not take it.
	bool try_send(const bytes &data, uint32_t id) const
	{
		can_frame frame{};
		frame.can_id = kernel_id(id);
		frame.can_dlc = static_cast<uint8_t>(data.size());
		memcpy(frame.data, data.data(), data.size());
		return write(descriptor, &frame, sizeof(frame)) == static_cast<ssize_t>(sizeof(frame));
	}

private:
	int descriptor;
};

class vcan_bench : public testing::Test
{
protected:
	void SetUp() override
	{
		unsetenv("QUILLET_CAN_SERVER");
		unsetenv("QUILLET_CAN_PADDING");
		unsetenv("QUILLET_CAN_WAIT_MS");
		movra_uds_util_debug_init(0);
		ASSERT_EQ(transport_interface_status(our_interface, 0), 1) << "this test needs " << our_interface;
	}
	void TearDown() override
	{
		if (handle > 0)
			transport_deinit(handle, 0);
	}

	// A channel of the library, or a negative number.
	static int new_channel(uint8_t block_size, uint8_t st_min, uint32_t request, uint32_t response)
	{
		uds_transport_params params{};
		params.phy_req_id = request;
		params.phy_resp_id = response;
		strcpy(params.ifname, our_interface);
		params.bsize = block_size;
		params.st_min = st_min;
		return transport_init(0, &params);
	}
	void open(
			uint8_t block_size = 0, uint8_t st_min = 0, uint32_t request = request_id, uint32_t response = response_id)
	{
		handle = new_channel(block_size, st_min, request, response);
		ASSERT_GT(handle, 0);
	}
	int send(const bytes &request) const
	{
		return send_diag_command(handle, request.data(), static_cast<uint32_t>(request.size()), 0);
	}
	static int receive_on(int channel, bytes *response, int timeout_ms)
	{
		response->assign(16384, 0);
		uint32_t length = static_cast<uint32_t>(response->size());
		const int result = recv_diag_command(channel, response->data(), &length, timeout_ms, 0);
		response->resize(result == 0 ? length : 0);
		return result;
	}
	int receive(bytes *response, int timeout_ms) const
	{
		return receive_on(handle, response, timeout_ms);
	}

	// A request out and an answer back, both of these lengths.
	void exchange(const kernel_ecu &ecu, size_t request_length, size_t response_length) const
	{
		const bytes request = pattern(request_length);
		const bytes response = pattern(response_length, 77);
		bytes seen;
		std::thread answering([&] {
			seen = ecu.receive();
			EXPECT_TRUE(ecu.send(response));
		});
		EXPECT_EQ(send(request), 0);
		bytes got;
		EXPECT_EQ(receive(&got, 2000), 0);
		answering.join();
		EXPECT_TRUE(seen == request) << "of " << request.size() << " bytes came " << seen.size();
		EXPECT_TRUE(got == response) << "of " << response.size() << " bytes came " << got.size();
	}

	int handle = 0;
};

// Milliseconds that a piece of work takes.
template <typename work>
double ms_of(const work &piece)
{
	const double began = now_ms();
	piece();
	return now_ms() - began;
}
