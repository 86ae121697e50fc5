#include "support/test_slow_link.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <vector>

namespace
{

using clock_type = std::chrono::steady_clock;

constexpr int buffer_bytes = 64 << 10; // small ones: what waits, waits at the sender

void make_buffers_small(int fd)
{
	EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer_bytes, sizeof(buffer_bytes)), 0);
	EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer_bytes, sizeof(buffer_bytes)), 0);
}

// One direction: what it may still carry in this while.
struct direction {
	int from;
	int to;
	size_t allowed = 0;
	bool open = true;
};

bool pass_on(direction *way, std::vector<char> *buffer)
{
	const size_t most = std::min(way->allowed, buffer->size());
	if (most == 0)
		return true;
	const ssize_t got = recv(way->from, buffer->data(), most, MSG_DONTWAIT);
	if (got < 0)
		return errno == EAGAIN;
	if (got == 0)
		return false;
	way->allowed -= static_cast<size_t>(got);
	for (ssize_t done = 0; done < got;) {
		const ssize_t part = send(way->to, buffer->data() + done, static_cast<size_t>(got - done), MSG_NOSIGNAL);
		if (part <= 0)
			return false;
		done += part;
	}
	return true;
}

} // namespace

test_slow_link::test_slow_link(uint16_t to_port, size_t bytes_per_second)
		: to_port_(to_port), bytes_per_second_(bytes_per_second)
{
	make_buffers_small(port_.socket_fd()); // and so those of what it accepts
	port_.listen();
	thread_ = std::thread([this] { run(); });
}

test_slow_link::~test_slow_link()
{
	ends_ = true;
	port_.shut();
	thread_.join();
}

std::string test_slow_link::url() const
{
	return port_.url();
}

unsigned test_slow_link::connections() const
{
	return connections_;
}

void test_slow_link::run()
{
	for (;;) {
		const int client = port_.accept();
		if (client < 0)
			return;
		connections_++;
		const int broker = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
		make_buffers_small(broker);
		const sockaddr_in address = loopback_address(to_port_);
		if (connect(broker, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
			carry(client, broker);
		close(broker);
		close(client);
	}
}

void test_slow_link::carry(int client, int broker)
{
	constexpr auto tick = std::chrono::milliseconds(10);
	direction ways[] = {{client, broker}, {broker, client}};
	std::vector<char> buffer(buffer_bytes);
	for (auto next = clock_type::now(); !ends_; next += tick) {
		std::this_thread::sleep_until(next); // the link's own pace
		for (direction &way : ways) {
			way.allowed = std::max<size_t>(bytes_per_second_ / 100, 1);
			while (way.allowed > 0) {
				const size_t before = way.allowed;
				if (!pass_on(&way, &buffer))
					return;
				if (way.allowed == before)
					break;
			}
		}
	}
}
