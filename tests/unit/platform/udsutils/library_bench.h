// The library behind its C entry points, on a CAN server of the test's own, or with ON_A_KERNEL on a kernel's vcan0.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bytes.h"
#include "support/can_server_thread.h"
#include "udsutils.h"

#ifdef ON_A_KERNEL
constexpr bool on_a_kernel = true;
#else
constexpr bool on_a_kernel = false;
#endif

// Milliseconds that a piece of work takes.
template <typename work>
int64_t ms_of(const work &piece)
{
	const auto start = std::chrono::steady_clock::now();
	piece();
	return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

class library_bench : public testing::Test
{
protected:
	std::unique_ptr<can_server_thread> server = std::make_unique<can_server_thread>();

	void SetUp() override
	{
		setenv("QUILLET_CAN_SERVER", server->address().c_str(), 1);
		unsetenv("QUILLET_CAN_PADDING");
		setenv("QUILLET_CAN_WAIT_MS", "5000", 1);
		movra_uds_util_debug_init(0);
		if (on_a_kernel) {
			unsetenv("QUILLET_CAN_SERVER");
			ASSERT_EQ(transport_interface_status("vcan0", 0), 1);
		}
	}

	void TearDown() override
	{
		unsetenv("QUILLET_CAN_SERVER");
	}

	static uds_transport_params params(uint32_t request_id, uint32_t response_id, const char *ifname = "vcan0")
	{
		uds_transport_params result{};
		result.phy_req_id = request_id;
		result.phy_resp_id = response_id;
		strcpy(result.ifname, ifname);
		return result;
	}

	static int init(uint32_t request_id, uint32_t response_id, const char *ifname = "vcan0")
	{
		const uds_transport_params block = params(request_id, response_id, ifname);
		return transport_init(0, &block);
	}

	static int send(int handle, const bytes &request)
	{
		return send_diag_command(handle, request.data(), static_cast<uint32_t>(request.size()), 0);
	}

	// The answer; one byte EE for a failure.
	static bytes receive(int handle, int timeout_ms, uint32_t capacity = 8191)
	{
		bytes answer(capacity + 1, 0xEE);
		uint32_t length = capacity;
		if (recv_diag_command(handle, answer.data(), &length, timeout_ms, 0) < 0)
			return {0xEE};
		answer.resize(length);
		return answer;
	}

	static inline const bytes failure = {0xEE};
};
