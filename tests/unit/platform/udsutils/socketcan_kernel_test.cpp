// The SocketCAN link on a kernel with CAN: what a pair of local sockets cannot show. It needs root, takes the interface
// down and up, and so wants a vcan of its own: QUILLET_TEST_CAN, vcan0 when that is not set.
#include "socketcan_link.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <linux/can.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <regex>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "open_descriptors.h"
#include "raw_port.h"
#include "support/fail_nth.h"
#include "uds_log.h"

using testing::HasSubstr;

namespace
{

const char *name()
{
	const char *set = getenv("QUILLET_TEST_CAN");
	return set != nullptr ? set : "vcan0";
}

// Another program on the bus; it hears everything but remote and error frames of its own making.
class peer
{
public:
	peer() : descriptor_(socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW))
	{
		sockaddr_can address{};
		address.can_family = AF_CAN;
		address.can_ifindex = static_cast<int>(if_nametoindex(name()));
		EXPECT_EQ(bind(descriptor_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	}

	~peer()
	{
		close(descriptor_);
	}

	peer(const peer &) = delete;
	peer &operator=(const peer &) = delete;

	void says(canid_t id, uint8_t byte = 0) const
	{
		can_frame frame{};
		frame.can_id = id;
		frame.can_dlc = (id & CAN_ERR_FLAG) != 0 ? CAN_ERR_DLC : 1;
		frame.data[0] = byte;
		ASSERT_EQ(write(descriptor_, &frame, sizeof(frame)), static_cast<ssize_t>(sizeof(frame))) << strerror(errno);
	}

	// The identifier with its flags; 0 when nothing comes for a while.
	canid_t hears() const
	{
		can_frame frame{};
		pollfd waiting{descriptor_, POLLIN, 0};
		(void)poll(&waiting, 1, 50); // whatever ended it, the read tells
		return read(descriptor_, &frame, sizeof(frame)) == static_cast<ssize_t>(sizeof(frame)) ? frame.can_id : 0;
	}

private:
	int descriptor_;
};

class socketcan_kernel : public testing::Test
{
protected:
	void SetUp() override
	{
		unsetenv("QUILLET_CAN_SERVER");
		uds_log_set_verbosity(UDS_LOG_WARN);
		ASSERT_EQ(socketcan_is_up(name()), 1) << "this test needs a kernel with CAN, and " << name() << " up";
		before = open_descriptors();
	}

	void TearDown() override
	{
		can_link_close(&link);
		set_up(true);
		EXPECT_EQ(open_descriptors(), before);
		uds_log_set_verbosity(UDS_LOG_ERR);
	}

	static void set_up(bool up)
	{
		const int descriptor = socket(PF_CAN, SOCK_RAW, CAN_RAW);
		ifreq request{};
		strcpy(request.ifr_name, name());
		EXPECT_EQ(ioctl(descriptor, SIOCGIFFLAGS, &request), 0);
		const int flags = up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP;
		request.ifr_flags = static_cast<short>(flags);
		EXPECT_EQ(ioctl(descriptor, SIOCSIFFLAGS, &request), 0) << strerror(errno);
		close(descriptor);
	}

	void open(can_link_filter filter, uint32_t id = 0)
	{
		ASSERT_EQ(socketcan_link_open(&link, name(), filter, id), 0);
	}

	static int receive(const can_link &from, bus_frame *frame)
	{
		return from.receive(from.state, frame);
	}

	// A frame of the link's, or none for a while: what is sent is received a moment later when the kernel is busy.
	static int await(const can_link &from, bus_frame *frame)
	{
		constexpr int64_t moment_us = 50000;
		const int64_t until_us = can_link_monotonic_us() + moment_us;
		int got = receive(from, frame);
		while (got == 0 && can_link_monotonic_us() < until_us) {
			from.wait(from.state, -1, until_us);
			got = receive(from, frame);
		}
		return got;
	}

	// The first bytes of the frames that have come.
	std::string received()
	{
		std::string all;
		bus_frame frame{};
		while (await(link, &frame) == 1)
			all += static_cast<char>(frame.data[0]);
		return all;
	}

	static int send(const can_link &to, uint32_t id)
	{
		const bus_frame frame = {id, bus_id_is_extended(id), 1, {0xA1}};
		return to.send(to.state, &frame);
	}

	size_t before = 0;
	can_link link{};
};

TEST_F(socketcan_kernel, knows_what_is_an_interface_of_its_kind)
{
	const struct {
		std::string asked;
		int is_there;
		std::string said;
	} rows[] = {
			{name(), 1, ""},
			{"none7", 0, "none7: No such device; "},
			{"", 0, ": No such device; "},
			{"lo", 0, "lo is not a CAN interface\n"},
			{"lo:1", 0, "lo:1: No such device; "},
			{std::string(name()) + ":1", 0, ":1: No such device; "},
			{std::string(name()) + "0123456789abcdef", 0, "abcdef: No such device; "},
			{std::string(127, 'x'), 0, "x: No such device; "},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.asked);
		testing::internal::CaptureStderr();
		EXPECT_EQ(socketcan_exists(row.asked.c_str()), row.is_there);
		EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(row.said));

		testing::internal::CaptureStderr();
		EXPECT_EQ(socketcan_is_up(row.asked.c_str()), row.is_there);
		can_link made{};
		EXPECT_EQ(socketcan_link_open(&made, row.asked.c_str(), CAN_LINK_TAKES_ALL, 0), row.is_there - 1);
		EXPECT_EQ(made.state != nullptr, row.is_there == 1);
		EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(row.said));
		can_link_close(&made);
	}
}

TEST_F(socketcan_kernel, opens_nothing_on_an_interface_that_is_down_and_says_so)
{
	const std::string wanted =
			"udsutils: " + std::string(name()) + " is down; as root: ip link set " + name() + " up\n";
	set_up(false);
	EXPECT_EQ(socketcan_exists(name()), 1);
	testing::internal::CaptureStderr();
	EXPECT_EQ(socketcan_is_up(name()), 0);
	EXPECT_EQ(testing::internal::GetCapturedStderr(), wanted);

	for (const can_link_filter filter : {CAN_LINK_TAKES_NONE, CAN_LINK_TAKES_ONE, CAN_LINK_TAKES_ALL}) {
		testing::internal::CaptureStderr();
		EXPECT_EQ(socketcan_link_open(&link, name(), filter, 0x7E8), -1);
		EXPECT_EQ(testing::internal::GetCapturedStderr(), wanted);
		EXPECT_EQ(link.state, nullptr) << "on failure nothing is written";
	}
	EXPECT_EQ(raw_port_open(name(), 0x7E8), -1);

	set_up(true);
	EXPECT_EQ(socketcan_is_up(name()), 1);
	open(CAN_LINK_TAKES_ALL);
	EXPECT_EQ(send(link, 0x7E0), 0);
}

TEST_F(socketcan_kernel, takes_exactly_one_identifier_of_one_width)
{
	const struct {
		uint32_t id;
		const char *taken;
	} rows[] = {{0x7E8, "a"}, {0x18DAF110, "d"}, {0x7FF, "g"}, {0x800, "h"}, {0x1FFFFFFF, "i"}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.id);
		open(CAN_LINK_TAKES_ONE, row.id);
		const peer other;
		other.says(0x7E8, 'a');
		other.says(0x7E8 | CAN_EFF_FLAG, 'b');
		other.says(0x7E9, 'c');
		other.says(0x18DAF110 | CAN_EFF_FLAG, 'd');
		other.says(0x18DAF111 | CAN_EFF_FLAG, 'e');
		other.says(0x110, 'f');
		other.says(0x7FF, 'g');
		other.says(0x800 | CAN_EFF_FLAG, 'h');
		other.says(0x1FFFFFFF | CAN_EFF_FLAG, 'i');
		other.says(row.id | CAN_RTR_FLAG | (bus_id_is_extended(row.id) ? CAN_EFF_FLAG : 0), 'j');
		EXPECT_EQ(received(), row.taken);
		can_link_close(&link);
	}
}

TEST_F(socketcan_kernel, takes_all_data_frames_when_it_is_to_take_all)
{
	open(CAN_LINK_TAKES_ALL);
	const peer other;
	other.says(0x001, 'a');
	other.says(0x001 | CAN_EFF_FLAG, 'b');
	other.says(0x7FF | CAN_RTR_FLAG, 'c');
	other.says(CAN_ERR_FLAG | CAN_ERR_ACK, 'd');
	other.says(0x1FFFFFFF | CAN_EFF_FLAG, 'e');

	EXPECT_EQ(received(), "abe");
}

TEST_F(socketcan_kernel, queues_nothing_for_a_link_that_only_sends)
{
	open(CAN_LINK_TAKES_NONE);
	const peer other;
	for (int i = 0; i < 100; i++)
		other.says(0x7E8);

	can_frame frame{};
	EXPECT_EQ(recv(link.descriptor, &frame, sizeof(frame), MSG_PEEK), -1);
	EXPECT_EQ(errno, EAGAIN);
	EXPECT_EQ(send(link, 0x7DF), 0);
	EXPECT_EQ(other.hears(), 0x7DFu);
}

TEST_F(socketcan_kernel, sends_frames_of_both_widths_to_all_others_and_not_to_itself)
{
	open(CAN_LINK_TAKES_ALL);
	can_link second{};
	ASSERT_EQ(socketcan_link_open(&second, name(), CAN_LINK_TAKES_ALL, 0), 0);
	const peer other;

	EXPECT_EQ(send(link, 0x7E0), 0);
	EXPECT_EQ(send(link, 0x18DA10F1), 0);

	EXPECT_EQ(other.hears(), 0x7E0u);
	EXPECT_EQ(other.hears(), 0x18DA10F1u | CAN_EFF_FLAG);
	bus_frame frame{};
	EXPECT_EQ(await(second, &frame), 1);
	EXPECT_EQ(await(second, &frame), 1);
	EXPECT_EQ(frame.id, 0x18DA10F1u);
	EXPECT_EQ(received(), "");
	can_link_close(&second);
}

TEST_F(socketcan_kernel, tells_how_many_frames_a_full_receive_queue_has_lost)
{
	constexpr size_t sent = 40000;
	constexpr size_t longest_answer = 1171; // frames
	open(CAN_LINK_TAKES_ONE, 0x7E8);
	const peer other;
	for (size_t i = 0; i < sent; i++)
		other.says(0x7E8, 'a');

	testing::internal::CaptureStderr();
	size_t taken = received().size();
	other.says(0x7E8, 'b'); // the count of the last ones lost comes with the next frame
	taken += received().size();
	const std::string said = testing::internal::GetCapturedStderr();

	const std::regex message(": the receive queue was full, ([0-9]+) frames are lost");
	size_t lost = 0;
	for (std::sregex_iterator at(said.begin(), said.end(), message), end; at != end; ++at)
		lost += std::stoul((*at)[1]);
	EXPECT_GT(taken, 3 * longest_answer);
	EXPECT_GT(lost, 0u);
	EXPECT_EQ(taken + lost, sent + 1);
}

TEST_F(socketcan_kernel, is_lost_for_good_when_the_interface_goes_down_and_the_next_link_works)
{
	for (const bool sends_first : {false, true}) {
		SCOPED_TRACE(sends_first);
		open(CAN_LINK_TAKES_ONE, 0x7E8);
		testing::internal::CaptureStderr();
		set_up(false);
		bus_frame frame{};
		EXPECT_EQ(sends_first ? send(link, 0x7E0) : receive(link, &frame), -1);
		set_up(true);
		EXPECT_EQ(send(link, 0x7E0), -1);
		EXPECT_EQ(receive(link, &frame), -1);
		EXPECT_EQ(testing::internal::GetCapturedStderr(),
				"udsutils: " + std::string(name()) + ": the link is lost: Network is down\n");
		can_link_close(&link);

		open(CAN_LINK_TAKES_ONE, 0x7E8);
		const peer other;
		other.says(0x7E8, 'a');
		EXPECT_EQ(received(), "a");
		EXPECT_EQ(send(link, 0x7E0), 0);
		can_link_close(&link);
	}
}

TEST_F(socketcan_kernel, keeps_no_descriptor_of_a_thousand_links_and_ports)
{
	for (int i = 0; i < 1000; i++) {
		open(CAN_LINK_TAKES_ONE, 0x7E8);
		can_link_close(&link);
		const int port = raw_port_open(name(), 0x18FEDA00);
		ASSERT_GT(port, 0);
		close(port);
	}
	EXPECT_EQ(raw_port_count(), 0u);
	EXPECT_EQ(open_descriptors(), before);
}

TEST_F(socketcan_kernel, raw_ports_receive_their_identifier_and_fail_when_the_interface_goes)
{
	const int port = raw_port_open(name(), 0x18FEDA00);
	ASSERT_GT(port, 0);
	const peer other;
	other.says(0x18FEDA01 | CAN_EFF_FLAG, 'a');
	other.says(0x18FEDA00 | CAN_EFF_FLAG, 'b');
	bus_frame frame{};
	EXPECT_EQ(raw_port_receive(port, &frame, 5000), 0);
	EXPECT_EQ(frame.data[0], 'b');
	EXPECT_EQ(raw_port_receive(port, &frame, 0), -1);

	set_up(false);
	const int64_t start_us = can_link_monotonic_us();
	EXPECT_EQ(raw_port_receive(port, &frame, 60000), -1);
	EXPECT_EQ(raw_port_receive(port, &frame, 60000), -1);
	EXPECT_LT(can_link_monotonic_us() - start_us, 30000000);
	close(port);
	EXPECT_EQ(raw_port_count(), 0u);
}

// Nothing can be known then, and the answer is no.
TEST_F(socketcan_kernel, an_interface_that_cannot_be_asked_about_is_not_there_and_not_up)
{
	const struct {
		int (*check)(const char *ifname);
		const char *function;
		int error;
		unsigned calls;
	} rows[] = {{socketcan_exists, "socket", EMFILE, 1}, {socketcan_exists, "ioctl", ENODEV, 2},
			{socketcan_is_up, "socket", EMFILE, 2}, {socketcan_is_up, "ioctl", ENODEV, 2},
			{socketcan_is_up, "send", ENOBUFS, 1}, {socketcan_is_up, "recv", ENOBUFS, 1}};
	for (const auto &row : rows)
		for (unsigned nth = 1; nth <= row.calls + 1; nth++) {
			SCOPED_TRACE(testing::Message() << row.function << " " << nth);
			testing::internal::CaptureStderr();
			bool fired = false;
			int result = 0;
			{
				const fail_nth failure(row.function, nth, row.error);
				result = row.check(name());
				fired = failure.fired();
			}
			EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), result == 1);
			EXPECT_EQ(fired, nth <= row.calls);
			EXPECT_EQ(result, fired ? 0 : 1);
			EXPECT_EQ(open_descriptors(), before);
		}
}

// Whichever call of the constructor fails: a message and nothing left, or a link all the same, where the call was only
// for a better one.
TEST_F(socketcan_kernel, is_made_or_not_without_a_trace_whichever_call_fails)
{
	const struct {
		const char *function;
		int error;
		unsigned calls;
		unsigned harmless; // so many of the calls
	} rows[] = {{"socket", EMFILE, 1, 0}, {"ioctl", ENODEV, 2, 0}, {"setsockopt", ENOMEM, 4, 2}, {"bind", ENODEV, 1, 0},
			{"getsockopt", ENOBUFS, 1, 1}, {"calloc", ENOMEM, 1, 0}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		unsigned made = 0;
		unsigned nth = 1;
		for (;; nth++) {
			can_link one{};
			testing::internal::CaptureStderr();
			bool fired = false;
			int result = 0;
			{
				const fail_nth failure(row.function, nth, row.error);
				result = socketcan_link_open(&one, name(), CAN_LINK_TAKES_ONE, 0x7E8);
				fired = failure.fired();
			}
			EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), result == 0);
			EXPECT_EQ(one.state != nullptr, result == 0);
			can_link_close(&one);
			EXPECT_EQ(open_descriptors(), before);
			if (!fired)
				break;
			made += result == 0;
		}
		EXPECT_EQ(nth - 1, row.calls);
		EXPECT_EQ(made, row.harmless);
	}
}

} // namespace
