// Every kind of frame lost in turn between two of our channels, on the way from one vcan to another: whoever can know
// knows in time, and the next exchange is right. The same rows as on the pure channel.
#include "controllers.h"
#include "lost_rows.h"
#include "vcan_bench.h"

#include <future>
#include <memory>
#include <set>

namespace
{

// A gateway between two interfaces that loses one frame of all that pass.
class gateway
{
public:
	static constexpr int none_is_lost = -1;

	gateway(const char *one, const char *other) : ends{socket_on(one), socket_on(other)}
	{
		thread = std::thread([this] { pass(); });
	}
	~gateway()
	{
		is_over = true;
		thread.join();
		close(ends[0]);
		close(ends[1]);
	}
	gateway(const gateway &) = delete;
	gateway &operator=(const gateway &) = delete;

	// Of the frames from here on, from 0.
	void lose(int frame)
	{
		lost = frame;
		passed = 0;
	}
	int frames() const
	{
		return passed;
	}

private:
	static int socket_on(const char *ifname)
	{
		const int descriptor = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW);
		const int room = 4 << 20;
		EXPECT_EQ(setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)), 0);
		const sockaddr_can address = address_on(ifname);
		EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
		return descriptor;
	}
	void pass()
	{
		while (!is_over) {
			pollfd waiting[] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
			constexpr int look_again_ms = 50;
			(void)poll(waiting, 2, look_again_ms); // whatever ended it, the reads tell
			pass_all(ends[0], ends[1]);
			pass_all(ends[1], ends[0]);
		}
	}
	void pass_all(int from, int to)
	{
		can_frame frame{};
		while (read(from, &frame, sizeof(frame)) == static_cast<ssize_t>(sizeof(frame))) {
			if (passed++ == lost)
				continue;
			EXPECT_EQ(write(to, &frame, sizeof(frame)), static_cast<ssize_t>(sizeof(frame)));
		}
	}

	int ends[2];
	std::atomic<bool> is_over = false;
	std::atomic<int> lost = none_is_lost;
	std::atomic<int> passed = 0;
	std::thread thread;
};

constexpr int receive_ms = 1500;
constexpr double n_timeout_ms = 1000;
constexpr double transfer_ms = 300; // more than the longest message needs on vcan

struct outcome {
	int result;
	double took_ms;
	bytes pdu;
};

class lost_frames : public vcan_bench
{
protected:
	void SetUp() override
	{
		vcan_bench::SetUp();
		run_ip_link("add dev vcan1 type vcan");
		run_ip_link("set vcan1 up");
		between = std::make_unique<gateway>("vcan0", "vcan1");
	}
	void TearDown() override
	{
		close_nodes();
		between.reset();
		run_ip_link("delete vcan1");
		vcan_bench::TearDown();
	}
	void open_nodes(uint8_t block_size)
	{
		our_interface = "vcan0";
		nodes[0] = new_channel(block_size, 0, request_id, response_id);
		our_interface = "vcan1";
		nodes[1] = new_channel(block_size, 0, response_id, request_id);
		our_interface = "vcan0";
		ASSERT_GT(nodes[0], 0);
		ASSERT_GT(nodes[1], 0);
	}
	void close_nodes()
	{
		for (int &node : nodes) {
			if (node > 0)
				transport_deinit(node, 0);
			node = 0;
		}
	}
	// Node `from` sends to the other one.
	void carry(int from, size_t length, int lost_frame)
	{
		between->lose(lost_frame);
		auto receiving = std::async(std::launch::async, [this, from] {
			outcome one{};
			one.took_ms = ms_of([&] { one.result = receive_on(nodes[1 - from], &one.pdu, receive_ms); });
			return one;
		});
		const bytes request = pattern(length);
		sent.took_ms = ms_of([&] {
			sent.result = send_diag_command(nodes[from], request.data(), static_cast<uint32_t>(request.size()), 0);
		});
		received = receiving.get();
	}
	void expect_good(int from, size_t length)
	{
		carry(from, length, gateway::none_is_lost);
		EXPECT_EQ(sent.result, 0);
		EXPECT_EQ(received.result, 0);
		EXPECT_TRUE(received.pdu == pattern(length));
	}

	std::unique_ptr<gateway> between;
	int nodes[2] = {};
	outcome sent{};
	outcome received{};
};

void expect_after(double took_ms, double least_ms)
{
	EXPECT_GE(took_ms, least_ms);
	EXPECT_LT(took_ms, least_ms + transfer_ms);
}

std::multiset<std::string> lines_of(const std::string &text)
{
	std::multiset<std::string> lines;
	for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
		lines.insert(text.substr(at, end - at));
	return lines;
}

std::multiset<std::string> expected_lines(const lost_row &row)
{
	std::multiset<std::string> lines;
	if (row.sent != ISOTP_OK)
		lines.insert(std::string("udsutils: a request was not sent whole: ") + isotp_result_name(row.sent));
	if (row.failure != ISOTP_OK)
		lines.insert(std::string("udsutils: an answer was not received whole: ") + isotp_result_name(row.failure));
	return lines;
}

}

TEST_F(lost_frames, are_known_in_time_and_the_next_exchange_is_right)
{
	movra_uds_util_debug_init(1);
	for (const lost_row &row : lost_rows)
		for (const int from : {0, 1}) {
			SCOPED_TRACE(testing::Message() << row.what << " from node " << from);
			open_nodes(row.block_size);
			testing::internal::CaptureStderr();
			carry(from, row.length, row.frame);
			EXPECT_EQ(lines_of(testing::internal::GetCapturedStderr()), expected_lines(row));

			EXPECT_GT(between->frames(), row.frame) << "there is no such frame";
			EXPECT_EQ(sent.result == 0, row.sent == ISOTP_OK);
			expect_after(sent.took_ms, row.sent == ISOTP_OK ? 0 : n_timeout_ms);
			EXPECT_LT(received.result, 0);
			const double received_after_ms = row.failure == ISOTP_OK ? receive_ms
					: row.failure == ISOTP_TIMEOUT_CR                ? n_timeout_ms
																	 : 0;
			expect_after(received.took_ms, received_after_ms);
			expect_good(from, row.length);
			expect_good(1 - from, row.length);
			close_nodes();
		}
}

// None of 62 bytes' frames is special, whatever the block size.
TEST_F(lost_frames, never_leave_a_message_with_a_hole)
{
	for (const uint8_t block_size : bytes{0, 1, 2, 3, 7, 8, 9}) {
		open_nodes(block_size);
		expect_good(0, 62);
		const int frames = between->frames();
		for (int frame = 0; frame < frames; frame++) {
			SCOPED_TRACE(testing::Message() << "frame " << frame << ", block size " << int(block_size));
			carry(0, 62, frame);
			EXPECT_LT(received.result, 0);
			EXPECT_LT(sent.took_ms, n_timeout_ms + transfer_ms);
			expect_good(1, 62);
		}
		close_nodes();
	}
}
