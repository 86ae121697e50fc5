// A stop in every state that a client can be in: the release comes once, last and in time, every accepted send is told
// once, and nothing that its owner has given up is touched again.
#include "bus_fixture.h"
#include "stop_probe.h"

#include "support/loopback.h"
#include "support/test_scripted_broker.h"
#include "support/tier.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <iomanip>
#include <sstream>
#include <thread>

namespace
{

using namespace std::chrono_literals;

constexpr unsigned repetitions = 20;
constexpr int64_t limit_ms = STOP_LIMIT_MS;

// A name server that does not answer until it is told to.
struct name_gate {
	std::mutex lock; // guards what follows
	std::condition_variable changed;
	bool open = false;
	unsigned asked = 0;
	unsigned answered = 0;
};

name_gate gate;

bool wait_for_question(unsigned count)
{
	std::unique_lock guard(gate.lock);
	return gate.changed.wait_for(guard, 10s, [count] { return gate.asked >= count; });
}

bool let_answers_out()
{
	std::unique_lock guard(gate.lock);
	gate.open = true;
	gate.changed.notify_all();
	return gate.changed.wait_for(guard, 10s, [] { return gate.answered == gate.asked; });
}

} // namespace

extern "C" int __wrap_getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **);
extern "C" int __wrap_getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **)
{
	std::unique_lock guard(gate.lock);
	gate.asked++;
	gate.changed.notify_all();
	gate.changed.wait(guard, [] { return gate.open; });
	gate.answered++;
	gate.changed.notify_all();
	return EAI_AGAIN;
}

namespace
{

// A port whose queue of connections is full: the kernel drops what comes, and who connects waits.
class full_port
{
public:
	full_port()
	{
		port.listen(0);
		while (fill())
			;
	}

	~full_port()
	{
		for (const int fd : fillers_)
			close(fd);
	}

	full_port(const full_port &) = delete;
	full_port &operator=(const full_port &) = delete;

	const loopback_port port;

private:
	// False when the connection was not taken.
	bool fill()
	{
		const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
		const sockaddr_in address = loopback_address(port.number());
		pollfd connected{fd, POLLOUT, 0};
		(void)connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)); // in progress
		if (poll(&connected, 1, 100) == 1 && fillers_.size() < 100) {
			fillers_.push_back(fd);
			return true;
		}
		close(fd);
		return false;
	}

	std::vector<int> fillers_;
};

// Is a socket waiting for this port's answer to its SYN?
bool somebody_connects_to(uint16_t port)
{
	std::ostringstream row;
	row << std::uppercase << std::hex << std::setfill('0') << "0100007F:" << std::setw(4) << port << " 02 ";
	return test_read_file("/proc/net/tcp").find(row.str()) != std::string::npos;
}

class bus_stop : public bus_test
{
protected:
	// When the library's thread is gone, what it has left alone until then it has left alone.
	void TearDown() override
	{
		bus_test::TearDown();
		for (const auto &probe : probes_) {
			probe->expect_in_order();
			longest_ms_ = std::max(longest_ms_, probe->stop_ms());
		}
		RecordProperty("longest_stop_ms", std::to_string(longest_ms_));
	}

	// Brings one client after the other into the state and stops it there, as the case says.
	void each_time(const std::function<void(stop_probe *)> &bring_and_stop)
	{
		for (unsigned i = 0; i < times(repetitions) && !HasFailure(); i++) {
			SCOPED_TRACE(i);
			probes_.push_back(std::make_unique<stop_probe>(cast().agent, trust()));
			stop_probe *probe = probes_.back().get();
			bring_and_stop(probe);
			ASSERT_TRUE(probe->wait_release());
			EXPECT_LE(probe->stop_ms(), limit_ms);
		}
	}

	static void bring_to(stop_probe *probe, const std::string &url, int condition)
	{
		ASSERT_EQ(probe->start(url), 0);
		ASSERT_TRUE(probe->wait_condition(condition));
	}

	// Against a broker that takes what comes at the stage, so often, and says nothing more.
	void each_time_silent_at(broker_stage stage, unsigned count = 1)
	{
		each_time([&](stop_probe *probe) {
			test_scripted_broker broker(cast().ca, {.silent_from = stage});
			ASSERT_EQ(probe->start(broker.url()), 0);
			ASSERT_TRUE(probe->send("requester"));
			ASSERT_TRUE(broker.wait_for(stage, count));
			EXPECT_EQ(probe->stop(), 0);
			EXPECT_TRUE(probe->wait_release());
		});
	}

	static void send_many(stop_probe *probe, size_t count)
	{
		for (size_t i = 0; i < count; i++)
			ASSERT_TRUE(probe->send("requester")) << i;
	}

private:
	std::vector<std::unique_ptr<stop_probe>> probes_;
	int64_t longest_ms_ = 0;
};

class bus_stop_broker : public bus_stop
{
protected:
	void SetUp() override
	{
		bus_stop::SetUp();
		broker.start();
	}

	void run_to(stop_probe *probe)
	{
		bring_to(probe, broker.url(), TERVBUS_CONDITION_RUNNING);
	}

	test_broker broker{cast().ca, {.rules = cast_rules, .bridges = {}}};
};

} // namespace

TEST_F(bus_stop, touches_nothing_of_a_client_that_was_never_started)
{
	for (unsigned i = 0; i < times(repetitions); i++) {
		stop_probe probe(cast().agent, trust());
		probe.give_up_record();
		EXPECT_EQ(probe.stop(), 0);
		probe.expect_left_alone();
	}
}

TEST_F(bus_stop, touches_nothing_of_a_client_that_could_not_be_started)
{
	for (unsigned i = 0; i < times(repetitions); i++) {
		stop_probe probe(cast().agent, trust());
		EXPECT_LT(probe.start("tcp://nowhere"), 0);
		EXPECT_EQ(probe.stop(), 0);
		probe.give_up_record();
		EXPECT_EQ(probe.stop(), 0);
		EXPECT_FALSE(probe.send("requester"));
		probe.expect_left_alone();
	}
}

TEST_F(bus_stop, while_a_name_is_being_resolved)
{
	unsigned asked = 0;
	each_time([&](stop_probe *probe) {
		ASSERT_EQ(probe->start("tcp://broker.example:8883"), 0);
		ASSERT_TRUE(probe->send("requester"));
		ASSERT_TRUE(wait_for_question(++asked));
		EXPECT_EQ(probe->stop(), 0);
	});
	EXPECT_TRUE(let_answers_out());
}

TEST_F(bus_stop, while_a_port_does_not_answer)
{
	const full_port full;
	each_time([&](stop_probe *probe) {
		ASSERT_EQ(probe->start(full.port.url()), 0);
		ASSERT_TRUE(probe->send("requester"));
		const auto limit = std::chrono::steady_clock::now() + 10s;
		while (!somebody_connects_to(full.port.number()) && std::chrono::steady_clock::now() < limit)
			std::this_thread::yield();
		ASSERT_TRUE(somebody_connects_to(full.port.number()));
		EXPECT_EQ(probe->stop(), 0);
	});
}

TEST_F(bus_stop, in_the_pause_after_a_refused_port)
{
	const loopback_port nobody_listens;
	each_time([&](stop_probe *probe) {
		bring_to(probe, nobody_listens.url(), TERVBUS_CONDITION_CONNECTION_FAILED);
		send_many(probe, 10);
		EXPECT_EQ(probe->stop(), 0);
	});
}

TEST_F(bus_stop, while_the_broker_does_not_answer_the_hello)
{
	each_time_silent_at(broker_stage::hello);
}

TEST_F(bus_stop, in_the_middle_of_the_handshake)
{
	each_time_silent_at(broker_stage::handshake);
}

TEST_F(bus_stop, while_the_connect_is_not_answered)
{
	each_time_silent_at(broker_stage::connect);
}

TEST_F(bus_stop, while_the_subscription_is_not_answered)
{
	each_time_silent_at(broker_stage::subscribe);
}

TEST_F(bus_stop, while_no_send_is_acknowledged)
{
	each_time_silent_at(broker_stage::publish, 2); // the status and the send
}

TEST_F(bus_stop, after_a_refused_registration)
{
	test_scripted_broker broker(cast().ca, {.connect_reason = 0x87});
	each_time([&](stop_probe *probe) {
		bring_to(probe, broker.url(), TERVBUS_CONDITION_REGISTRATION_FAILED);
		EXPECT_EQ(probe->stop(), 0);
	});
}

TEST_F(bus_stop_broker, when_idle)
{
	each_time([&](stop_probe *probe) {
		run_to(probe);
		EXPECT_EQ(probe->stop(), 0);
	});
}

TEST_F(bus_stop_broker, with_a_thousand_sends_waiting)
{
	each_time([&](stop_probe *probe) {
		run_to(probe);
		while (probe->send("requester") &&
				probe->wait([](const auto &account) { return account.accepted < 1000; }, 0ms))
			;
		EXPECT_EQ(probe->stop(), 0);
	});
}

TEST_F(bus_stop_broker, when_the_broker_is_frozen)
{
	each_time([&](stop_probe *probe) {
		run_to(probe);
		broker.freeze();
		send_many(probe, 100);
		EXPECT_EQ(probe->stop(), 0);
		EXPECT_TRUE(probe->wait_release());
		broker.thaw();
	});
}

TEST_F(bus_stop_broker, when_the_broker_is_killed_at_the_same_moment)
{
	bool killed_first = false;
	each_time([&](stop_probe *probe) {
		run_to(probe);
		send_many(probe, 100);
		killed_first = !killed_first;
		std::thread killer([this] { broker.kill(); });
		if (killed_first)
			killer.join();
		EXPECT_EQ(probe->stop(), 0);
		if (!killed_first)
			killer.join();
		ASSERT_TRUE(broker.try_start());
	});
}

TEST_F(bus_stop_broker, in_the_pause_after_a_lost_link_with_sends_waiting)
{
	each_time([&](stop_probe *probe) {
		run_to(probe);
		broker.kill();
		ASSERT_TRUE(probe->wait_condition(TERVBUS_CONDITION_CONNECTION_FAILED));
		send_many(probe, 100);
		EXPECT_EQ(probe->stop(), 0);
		ASSERT_TRUE(probe->wait_release());
		ASSERT_TRUE(broker.try_start());
	});
}

TEST_F(bus_stop_broker, again_and_again_until_after_the_release)
{
	each_time([&](stop_probe *probe) {
		run_to(probe);
		broker.freeze(); // so that the stop takes its time
		send_many(probe, 10);
		do {
			EXPECT_EQ(probe->stop(), 0);
		} while (!probe->wait([](const probe_account &account) { return account.releases > 0; }, 10ms));
		EXPECT_EQ(probe->stop(), 0);
		EXPECT_FALSE(probe->send("requester"));
		broker.thaw();
	});
}

TEST_F(bus_stop_broker, from_inside_on_message)
{
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	each_time([&](stop_probe *probe) {
		probe->in_message = [probe](size_t count) {
			if (count == 3) {
				EXPECT_EQ(probe->stop(), 0);
			}
		};
		ASSERT_EQ(probe->start(broker.url()), 0);
		// From the second time on the session has messages for it, which come first.
		ASSERT_TRUE(probe->wait([](const probe_account &account) {
			return account.conditions == std::vector{7, 0} || account.messages >= 3;
		}));
		for (int i = 0; i < 10; i++)
			ASSERT_EQ(requester.send({"2:agent"}, "{}"), 0);
	});
	ASSERT_TRUE(requester.stop_and_wait());
}

TEST_F(bus_stop_broker, from_inside_on_connection_status)
{
	for (const int at : {TERVBUS_CONDITION_START, TERVBUS_CONDITION_RUNNING}) {
		SCOPED_TRACE(at);
		each_time([&](stop_probe *probe) {
			probe->in_condition = [probe, at](int condition) {
				if (condition == at) {
					EXPECT_EQ(probe->stop(), 0);
				}
			};
			ASSERT_EQ(probe->start(broker.url()), 0);
			(void)probe->send("requester"); // refused when the stop is faster
		});
	}
}

TEST_F(bus_stop_broker, from_inside_on_delivered)
{
	each_time([&](stop_probe *probe) {
		probe->in_delivered = [probe](size_t count) {
			EXPECT_EQ(probe->stop(), 0);
			EXPECT_EQ(probe->send("requester"), false) << count;
		};
		run_to(probe);
		for (int i = 0; i < 100 && probe->send("requester"); i++)
			;
	});
}

TEST_F(bus_stop_broker, in_a_burst_of_incoming_messages)
{
	test_node requester(cast().requester, trust());
	bring_up(&requester, broker);
	size_t sent = 0;
	each_time([&](stop_probe *probe) {
		run_to(probe);
		sent += 500;
		for (int i = 0; i < 500; i++)
			ASSERT_EQ(requester.send({"2:agent"}, "{}"), 0);
		ASSERT_TRUE(probe->wait([](const probe_account &account) { return account.messages > 0; }));
		EXPECT_EQ(probe->stop(), 0);
		ASSERT_TRUE(requester.wait_deliveries(sent));
	});
	ASSERT_TRUE(requester.stop_and_wait());
}

TEST_F(bus_stop_broker, while_four_threads_send)
{
	each_time([&](stop_probe *probe) {
		run_to(probe);
		std::vector<std::thread> senders;
		for (int i = 0; i < 4; i++)
			senders.emplace_back([probe] {
				const auto released = [](const probe_account &account) {
					return account.releases > 0;
				};
				while (probe->send("requester") || !probe->wait(released, 1ms)) // refused: too many wait, or stopped
					;
			});
		EXPECT_TRUE(probe->wait([](const probe_account &account) { return account.told > 100; }));
		EXPECT_EQ(probe->stop(), 0);
		for (std::thread &sender : senders)
			sender.join();
	});
}
