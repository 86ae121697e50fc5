// A CAN interface that goes away under an open channel: what was under way fails at once and not at its time-out, with
// a message that tells why, and the next channel works. On a vcan, on emulated controllers, and on a serial adapter.
#include "controllers.h"
#include "vcan_bench.h"

#include <functional>
#include <optional>

#include <linux/can/error.h>

namespace
{

constexpr double at_once_ms = 100; // with the run of /bin/ip that takes the interface away
constexpr int lead_ms = 200;       // what is under way has begun by then

// The kernel's ISO-TP loses what a transmit queue has no room for, and an adapter's has little.
constexpr uint8_t gentle_st_min = 5;

void make_vcan()
{
	run_ip_link("add dev vcan0 type vcan");
	run_ip_link("set vcan0 up");
}

// What the driver of a controller tells when the controller has left the bus, told by another program.
void tell_bus_off()
{
	const raw_peer controller(request_id);
	controller.send(bytes(CAN_ERR_DLC), CAN_ERR_FLAG | CAN_ERR_BUSOFF);
}

#ifndef __arm__
std::string unplugged; // the device that is

void unplug()
{
	unplugged = device_of("can0");
	plug_in(unplugged, false);
}

void plug_in_again()
{
	plug_in(unplugged, true);
	bring_up_controller("can0");
}
#endif

std::optional<serial_adapter> adapter;
constexpr const char *adapter_interface = "adapter0";

void adapter_goes_bus_off()
{
	adapter->says("sb000255");
}

// The kernel restarts a controller only where its driver can; this one is to be closed and opened.
void adapter_is_restarted()
{
	run_ip_link("set adapter0 down");
	run_ip_link("set adapter0 up");
}

void plug_in_adapter()
{
	adapter.emplace(adapter_interface);
}

struct loss {
	const char *name;
	const char *ours;
	const char *peers;
	std::function<void()> happens;
	std::function<void()> is_over;
	int exists; // while it lasts
	int is_up;
	std::vector<std::string> reasons; // one of them is told
};

const loss losses[] = {
		{"a vcan taken down", "vcan0", "vcan0", [] { run_ip_link("set vcan0 down"); },
				[] { run_ip_link("set vcan0 up"); }, 1, 0, {"Network is down"}},
		{"a vcan deleted", "vcan0", "vcan0", [] { run_ip_link("delete vcan0"); }, make_vcan, 0, 0,
				{"Network is down", "No such device"}},
		{"bus-off told on a vcan", "vcan0", "vcan0", tell_bus_off, [] {}, 1, 1, // vcan itself goes on
				{"the controller is bus-off"}},
#ifndef __arm__ // its machine has no controllers
		{"a controller taken down", "can0", "can1", [] { run_ip_link("set can0 down"); },
				[] { run_ip_link("set can0 up"); }, 1, 0, {"Network is down"}},
		{"a controller unplugged", "can0", "can1", unplug, plug_in_again, 0, 0, {"Network is down", "No such device"}},
#endif
		{"an adapter's controller bus-off", adapter_interface, adapter_interface, adapter_goes_bus_off,
				adapter_is_restarted, 1, 0, {"the controller is bus-off"}},
		{"an adapter unplugged", adapter_interface, adapter_interface, [] { adapter.reset(); }, plug_in_adapter, 0, 0,
				{"Network is down", "No such device"}},
};

class interface_loss : public vcan_bench
{
protected:
	void SetUp() override
	{
		plug_in_adapter();
		vcan_bench::SetUp();
	}
	void TearDown() override
	{
		vcan_bench::TearDown();
		adapter.reset();
		our_interface = peer_interface = "vcan0";
	}
	void open_on(const loss &loss)
	{
		our_interface = loss.ours;
		peer_interface = loss.peers;
		open();
	}
	// The loss comes while the piece of work is under way.
	void lose_during(const loss &loss, const std::function<int()> &work)
	{
		double lost_at = 0, failed_at = 0;
		int result = 0;
		testing::internal::CaptureStderr();
		std::thread working([&] {
			result = work();
			failed_at = now_ms();
		});
		std::this_thread::sleep_for(std::chrono::milliseconds(lead_ms));
		lost_at = now_ms();
		loss.happens();
		working.join();
		expect_told(loss, testing::internal::GetCapturedStderr());
		EXPECT_LT(result, 0);
		EXPECT_GE(failed_at, lost_at);
		EXPECT_LT(failed_at, lost_at + at_once_ms);
	}
	static void expect_told(const loss &loss, const std::string &said)
	{
		for (const std::string &reason : loss.reasons)
			if (said == "udsutils: " + std::string(loss.ours) + ": the link is lost: " + reason + "\n")
				return;
		ADD_FAILURE() << "was told: " << said;
	}
	// What the checks say while it is lost; then it is there again, and so are they, and a new channel carries an exchange.
	void expect_recovery(const loss &loss)
	{
		EXPECT_EQ(transport_interface_availibility(our_interface, 0), loss.exists);
		EXPECT_EQ(transport_interface_status(our_interface, 0), loss.is_up);
		bytes response;
		EXPECT_LT(send({0x3E, 0x00}), 0);
		EXPECT_LT(receive(&response, 100), 0);
		EXPECT_EQ(transport_deinit(handle, 0), 0);
		loss.is_over();

		EXPECT_EQ(transport_interface_status(our_interface, 0), 1);
		open(0, gentle_st_min);
		const kernel_ecu ecu;
		exchange(ecu, 50, 300);
		EXPECT_EQ(transport_deinit(handle, 0), 0);
		handle = 0;
	}
};

}

TEST_F(interface_loss, ends_the_wait_for_an_answer)
{
	for (const loss &loss : losses) {
		SCOPED_TRACE(loss.name);
		open_on(loss);
		lose_during(loss, [this] {
			bytes response;
			return receive(&response, 3000);
		});
		expect_recovery(loss);
	}
}

TEST_F(interface_loss, ends_the_wait_for_a_flow_control)
{
	for (const loss &loss : losses) {
		SCOPED_TRACE(loss.name);
		open_on(loss);
		lose_during(loss, [this] { return send(pattern(100)); });
		expect_recovery(loss);
	}
}

TEST_F(interface_loss, ends_an_answer_that_has_begun)
{
	for (const loss &loss : losses) {
		SCOPED_TRACE(loss.name);
		open_on(loss);
		{
			const raw_peer ecu{request_id};
			ASSERT_EQ(send({0x22, 0xF1, 0x90}), 0);
			ecu.send({0x10, 20, 1, 2, 3, 4, 5, 6});
		}
		lose_during(loss, [this] {
			bytes response;
			return receive(&response, 3000);
		});
		expect_recovery(loss);
	}
}

TEST_F(interface_loss, ends_a_request_between_two_frames)
{
	for (const loss &loss : losses) {
		SCOPED_TRACE(loss.name);
		open_on(loss);
		const raw_peer ecu{request_id};
		std::thread controlling([&ecu] {
			ecu.receive();
			ecu.send({0x30, 0, 0x7F}); // 127 ms between two of its frames
		});
		lose_during(loss, [this] { return send(pattern(100)); });
		controlling.join();
		expect_recovery(loss);
	}
}

TEST_F(interface_loss, ends_the_wait_for_a_broadcast)
{
	for (const loss &loss : losses) {
		SCOPED_TRACE(loss.name);
		open_on(loss);
		const int port = open_can_port(our_interface, 0x18FEDA00);
		ASSERT_GT(port, 0);
		lose_during(loss, [port] {
			uint8_t data[8], length = 0;
			return receive_can_frame(port, data, &length);
		});
		close(port);
		expect_recovery(loss);
	}
}

TEST_F(interface_loss, between_two_requests_fails_the_next_one)
{
	for (const loss &loss : losses) {
		SCOPED_TRACE(loss.name);
		open_on(loss);
		testing::internal::CaptureStderr();
		loss.happens();
		std::this_thread::sleep_for(std::chrono::milliseconds(lead_ms));
		EXPECT_LT(send({0x3E, 0x00}), 0);
		expect_told(loss, testing::internal::GetCapturedStderr());
		expect_recovery(loss);
	}
}

TEST_F(interface_loss, shows_as_bus_off_until_the_controller_is_restarted)
{
	our_interface = peer_interface = adapter_interface;
	run("/bin/ip -details link show adapter0 | grep -q 'state ERROR-ACTIVE'");
	open();
	adapter_goes_bus_off();
	bytes response;
	EXPECT_LT(receive(&response, 3000), 0);
	run("/bin/ip -details link show adapter0 | grep -q 'state BUS-OFF'");

	testing::internal::CaptureStderr();
	EXPECT_EQ(transport_interface_status(our_interface, 0), 0);
	EXPECT_EQ(testing::internal::GetCapturedStderr(),
			"udsutils: adapter0 is up but not on the bus: bus-off? As root: ip link set adapter0 type can restart\n");

	adapter_is_restarted();
	EXPECT_EQ(transport_interface_status(our_interface, 0), 1);
}

// A controller that is error-passive is still on the bus: it is told, and nothing ends.
TEST_F(interface_loss, is_none_when_a_controller_is_error_passive)
{
	our_interface = peer_interface = adapter_interface;
	movra_uds_util_debug_init(1);
	open(0, gentle_st_min);
	testing::internal::CaptureStderr();
	adapter->says("sp000130");
	const kernel_ecu ecu;
	exchange(ecu, 50, 300);
	movra_uds_util_debug_init(0);
	EXPECT_EQ(testing::internal::GetCapturedStderr(),
			"udsutils: adapter0: the controller is error-passive; is another node on the bus, at the same bit rate?\n");
}
