#include "local_side.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

// A listening port, a connection to it, and its other end.
class local_side : public testing::Test
{
protected:
	void SetUp() override
	{
		std::string error;
		listener = local_listen(0, error);
		ASSERT_GE(listener, 0) << error;
		socklen_t length = sizeof(address);
		ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
		client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
		ASSERT_EQ(connect(client, reinterpret_cast<sockaddr *>(&address), length), 0);
		accepted = local_accept(listener);
		ASSERT_GE(accepted, 0);
	}

	void TearDown() override
	{
		for (const int descriptor : {listener, client, accepted})
			if (descriptor >= 0)
				close(descriptor);
	}

	sockaddr_in address = {};
	int listener = -1;
	int client = -1;
	int accepted = -1;
};

TEST_F(local_side, listens_on_the_loopback_only)
{
	EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

// What waits for an acknowledgement of the message before comes some 40 ms late.
TEST_F(local_side, sends_small_messages_at_once)
{
	int at_once = 0;
	socklen_t length = sizeof(at_once);
	ASSERT_EQ(getsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &at_once, &length), 0);
	EXPECT_NE(at_once, 0);
}

TEST_F(local_side, leaves_no_connection_to_programs_that_it_starts)
{
	EXPECT_EQ(fcntl(accepted, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(local_side, accepts_nothing_from_a_socket_that_does_not_listen)
{
	EXPECT_EQ(local_accept(client), -1);
}

TEST_F(local_side, knows_whose_connection_it_is)
{
	EXPECT_TRUE(local_peer_is(accepted, getuid()));
	// Root may always, and these tests may be root.
	EXPECT_EQ(local_peer_is(accepted, getuid() + 1), getuid() == 0);
}

TEST_F(local_side, takes_nothing_from_one_that_has_closed_already)
{
	close(client);
	client = -1;

	EXPECT_FALSE(local_peer_is(accepted, getuid()));
}

TEST_F(local_side, says_that_the_port_is_taken)
{
	std::string error;

	EXPECT_EQ(local_listen(ntohs(address.sin_port), error), -1);

	EXPECT_NE(error.find("Address already in use"), std::string::npos) << error;
}

namespace
{

enum inherited { none, taken, refused };

// In a process of its own, because the descriptor's number is fixed.
int inherit(int descriptor, const char *count, bool for_itself)
{
	const pid_t child = fork();
	if (child == 0) {
		std::string error;
		dup2(descriptor, 3);
		setenv("LISTEN_FDS", count, 1);
		setenv("LISTEN_PID", std::to_string(for_itself ? getpid() : getppid()).c_str(), 1);
		const int found = local_inherit(error);
		_exit(found == 3 ? taken : error.empty() ? none : refused);
	}
	int status = 0;
	waitpid(child, &status, 0);
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST_F(local_side, takes_over_the_socket_of_a_service_manager)
{
	EXPECT_EQ(inherit(listener, "1", true), taken);
	EXPECT_EQ(inherit(listener, "1", false), none) << "meant for another process";
	EXPECT_EQ(inherit(listener, "2", true), refused);
	EXPECT_EQ(inherit(client, "1", true), refused) << "does not listen";
}

TEST_F(local_side, takes_over_no_socket_that_other_machines_reach)
{
	const int open_to_all = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_EQ(listen(open_to_all, 1), 0);
	EXPECT_EQ(inherit(open_to_all, "1", true), refused);
	close(open_to_all);
}
