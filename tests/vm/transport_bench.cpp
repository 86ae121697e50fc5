// The transport library beside the kernel's ISO-TP, on vcan0: requests and answers as fast as they go, what a tester
// learns of answers that fail, and long PDUs over a wire of 500 kbit/s between vcan0 and vcan1.
// On virtual time a duration counts instructions, 2 ns each, of the whole machine: of both nodes, of the kernel between
// them, and of interrupts, with which the process is charged that happens to run. It is exact, and the same on every
// host.
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>

#include "bus_line.h"
#include "report.h"
#include "vcan_bench.h"

namespace
{

constexpr int patience_ms = 5000;
constexpr size_t longest = 8191;
constexpr uint32_t bitrate = 500000;

// A node on an interface, of either kind; it sends and receives with these identifiers.
struct place {
	const char *ifname;
	uint32_t sends;
	uint32_t receives;
	uint8_t block_size;
};

class endpoint
{
public:
	virtual ~endpoint() = default;
	virtual bool send(const bytes &pdu) = 0;
	// The length of what has come; 0 = nothing in time, negative = a failure.
	virtual long receive(int timeout_ms) = 0;

protected:
	uint8_t buffer[longest];
};

class our_endpoint : public endpoint
{
public:
	explicit our_endpoint(const place &where)
	{
		uds_transport_params params{};
		params.phy_req_id = where.sends;
		params.phy_resp_id = where.receives;
		params.bsize = where.block_size;
		strcpy(params.ifname, where.ifname);
		handle_ = transport_init(0, &params);
		EXPECT_GT(handle_, 0);
	}
	~our_endpoint() override
	{
		EXPECT_EQ(transport_deinit(handle_, 0), 0);
	}
	our_endpoint(const our_endpoint &) = delete;
	our_endpoint &operator=(const our_endpoint &) = delete;

	bool send(const bytes &pdu) override
	{
		return send_diag_command(handle_, pdu.data(), static_cast<uint32_t>(pdu.size()), 0) == 0;
	}
	long receive(int timeout_ms) override
	{
		uint32_t length = longest;
		const int result = recv_diag_command(handle_, buffer, &length, timeout_ms, 0);
		return result == 0 ? static_cast<long>(length) : -1;
	}

private:
	int handle_ = 0;
};

// Padded as ours; its sends end with the last frame, as ours do; and it leaves no pause after a frame, which would be
// of 50 us.
class kernel_endpoint : public endpoint
{
public:
	explicit kernel_endpoint(const place &where) : socket_(socket(PF_CAN, SOCK_DGRAM | SOCK_CLOEXEC, CAN_ISOTP))
	{
		can_isotp_options options{};
		options.flags = CAN_ISOTP_TX_PADDING | CAN_ISOTP_WAIT_TX_DONE;
		options.txpad_content = 0xCC;
		options.frame_txtime = CAN_ISOTP_FRAME_TXTIME_ZERO;
		EXPECT_EQ(setsockopt(socket_, SOL_CAN_ISOTP, CAN_ISOTP_OPTS, &options, sizeof(options)), 0);
		const can_isotp_fc_options control{where.block_size, 0, 0};
		EXPECT_EQ(setsockopt(socket_, SOL_CAN_ISOTP, CAN_ISOTP_RECV_FC, &control, sizeof(control)), 0);
		sockaddr_can address = address_on(where.ifname);
		address.can_addr.tp.rx_id = where.receives;
		address.can_addr.tp.tx_id = where.sends;
		EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	}
	~kernel_endpoint() override
	{
		close(socket_);
	}
	kernel_endpoint(const kernel_endpoint &) = delete;
	kernel_endpoint &operator=(const kernel_endpoint &) = delete;

	bool send(const bytes &pdu) override
	{
		return write(socket_, pdu.data(), pdu.size()) == static_cast<ssize_t>(pdu.size());
	}
	long receive(int timeout_ms) override
	{
		return readable(socket_, timeout_ms) ? read(socket_, buffer, longest) : 0;
	}

private:
	const int socket_;
};

template <typename node>
std::unique_ptr<endpoint> make(const place &where)
{
	return std::make_unique<node>(where);
}

constexpr struct kind {
	const char *name;
	std::unique_ptr<endpoint> (*make)(const place &where);
} kinds[] = {{"ours", make<our_endpoint>}, {"the kernel's", make<kernel_endpoint>}};

constexpr place tester_at(uint8_t block_size = 0)
{
	return {"vcan0", request_id, response_id, block_size};
}

// Another process, for as long as this lives.
class other_process
{
public:
	// The work begins with a byte to the descriptor, when it is ready.
	template <typename work>
	explicit other_process(const work &run)
	{
		int ready[2];
		EXPECT_EQ(pipe(ready), 0);
		child_ = fork();
		if (child_ == 0) {
			run(ready[1]);
			_exit(0);
		}
		EXPECT_TRUE(readable(ready[0], patience_ms));
		close(ready[0]);
		close(ready[1]);
	}
	~other_process()
	{
		kill(child_, SIGKILL);
		waitpid(child_, nullptr, 0);
	}
	other_process(const other_process &) = delete;
	other_process &operator=(const other_process &) = delete;

private:
	pid_t child_;
};

void say_ready(int descriptor)
{
	EXPECT_EQ(write(descriptor, "", 1), 1);
}

// Exchanges

struct shape {
	size_t request;
	size_t answer;
	uint8_t block_size;
	int count;
};

void run_ecu(const shape &one, int ready)
{
	kernel_endpoint ecu({"vcan0", response_id, request_id, one.block_size});
	const bytes answer = pattern(one.answer);
	say_ready(ready);
	for (;;)
		if (ecu.receive(patience_ms) > 0)
			ecu.send(answer);
}

double processor_us()
{
	rusage used{};
	getrusage(RUSAGE_SELF, &used);
	return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) * 1e6 +
			static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
}

// Of the machine, since it was switched on. Other files of /proc tell it in hundredths of a second.
double idle_us()
{
	std::ifstream timers("/proc/timer_list");
	for (std::string word; timers >> word;)
		if (word == ".idle_sleeptime") {
			double idle_ns = 0;
			timers >> word >> idle_ns;
			return idle_ns / 1000;
		}
	ADD_FAILURE() << "/proc/timer_list tells no idle time";
	return 0;
}

void exchange_many(const kind &tester_kind, const shape &one)
{
	const other_process ecu([&one](int ready) { run_ecu(one, ready); });
	const auto tester = tester_kind.make(tester_at(one.block_size));
	const bytes request = pattern(one.request);
	std::vector<int64_t> samples;
	const int warm_up = one.count / 10;
	double processor_before = 0, idle_before = 0, began_ms = 0;
	for (int i = 0; i < warm_up + one.count; ++i) {
		if (i == warm_up) {
			processor_before = processor_us();
			idle_before = idle_us();
			began_ms = now_ms();
		}
		const int64_t began_ns = now_ns();
		const bool is_answered = tester->send(request) && tester->receive(patience_ms) == static_cast<long>(one.answer);
		ASSERT_TRUE(is_answered) << "exchange " << i << " with a tester of " << tester_kind.name;
		if (i >= warm_up)
			samples.push_back(now_ns() - began_ns);
	}
	const double idle_percent = (idle_us() - idle_before) / (now_ms() - began_ms) / 10;
	printf("   %-12s %4zu bytes there, %4zu back, block size %d: p50 %8.1f us, p99 %8.1f us; "
		   "processor time of the tester %8.1f us; idle %.0f %%\n",
			tester_kind.name, one.request, one.answer, int(one.block_size), quantile_us(samples, 0.5),
			quantile_us(samples, 0.99), (processor_us() - processor_before) / one.count, idle_percent);
}

void open_many(const kind &tester_kind)
{
	constexpr int count = 50;
	const double processor_before = processor_us();
	const double began_ms = now_ms();
	for (int i = 0; i < count; ++i)
		tester_kind.make(tester_at());
	printf("   %-12s opened and closed in %.1f us, processor time %.1f us\n", tester_kind.name,
			(now_ms() - began_ms) * 1000 / count, (processor_us() - processor_before) / count);
}

void play_exchanges()
{
	constexpr shape shapes[] = {{3, 4, 0, 300}, {3, 20, 0, 300}, {3, 4095, 0, 20}, {3, 4095, 8, 20}, {4095, 3, 0, 20}};
	printf("== exchanges on an interface that takes no time; the ECU is the kernel's ISO-TP for both\n");
	for (const kind &each : kinds)
		open_many(each);
	for (const shape &one : shapes)
		for (const kind &each : kinds)
			exchange_many(each, one);
}

// Transfers

int open_wire_end(const char *ifname)
{
	const int descriptor = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
	const int queue = 4 << 20;
	EXPECT_EQ(setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &queue, sizeof(queue)), 0);
	const sockaddr_can address = address_on(ifname);
	EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	return descriptor;
}

void take_frame(bus_line &line, int end, size_t number)
{
	can_frame read_frame{};
	EXPECT_EQ(read(end, &read_frame, sizeof(read_frame)), static_cast<ssize_t>(sizeof(read_frame)));
	bus_frame frame{};
	frame.id = read_frame.can_id;
	frame.length = read_frame.can_dlc;
	memcpy(frame.data, read_frame.data, sizeof(frame.data));
	bus_line_put(line, number, frame, now_ns() / 1000);
}

void give_frame(const bus_line_entry &entry, const int (&ends)[2])
{
	can_frame written{};
	written.can_id = entry.frame.id;
	written.can_dlc = entry.frame.length;
	memcpy(written.data, entry.frame.data, sizeof(written.data));
	EXPECT_EQ(write(ends[1 - entry.sender], &written, sizeof(written)), static_cast<ssize_t>(sizeof(written)));
}

// One frame at a time between vcan0 and vcan1, as quillet-can paces its buses. A sender is not held back: it is rid of
// its frames at once, and they wait here.
[[noreturn]] void run_wire(int ready)
{
	prctl(PR_SET_TIMERSLACK, 1UL);
	bus_line line = bus_line_new({.bitrate = bitrate});
	const int ends[2] = {open_wire_end("vcan0"), open_wire_end("vcan1")};
	say_ready(ready);
	for (;;) {
		const int64_t left_us = std::clamp(bus_line_deadline(line) - now_ns() / 1000, int64_t{0}, int64_t{1000000});
		const timespec left{static_cast<time_t>(left_us / 1000000), static_cast<long>(left_us % 1000000 * 1000)};
		pollfd polled[] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
		ppoll(polled, 2, &left, nullptr);
		for (size_t end = 0; end < 2; ++end)
			if (polled[end].revents != 0)
				take_frame(line, ends[end], end);
		uint64_t sender = 0;
		while (bus_line_end_transmission(line, now_ns() / 1000, &sender)) {
			bus_line_entry entry{};
			while (bus_line_take(line, now_ns() / 1000, &entry))
				give_frame(entry, ends);
		}
	}
}

// Every frame has 8 bytes.
double bus_ms(size_t length, uint8_t block_size)
{
	bus_frame frame{};
	frame.length = 8;
	const size_t consecutive = (length - (length < 4096 ? 6 : 2) + 6) / 7;
	const size_t blocks = block_size == 0 ? 1 : (consecutive + block_size - 1) / block_size;
	return static_cast<double>((1 + consecutive + blocks) * bus_frame_bits(frame)) * 1000 / bitrate;
}

void transfer(const kind &from, const kind &to, size_t length, uint8_t block_size)
{
	const auto sender = from.make(tester_at(block_size));
	const auto receiver = to.make({"vcan1", response_id, request_id, block_size});
	const bytes pdu = pattern(length);
	const double idle_before = idle_us();
	const double began_ms = now_ms();
	bool is_sent = false;
	std::thread sending([&] { is_sent = sender->send(pdu); });
	const long received = receiver->receive(patience_ms);
	const double took_ms = now_ms() - began_ms;
	const double idle_ms = (idle_us() - idle_before) / 1000;
	sending.join();
	EXPECT_TRUE(is_sent && received == static_cast<long>(length)) << "sent " << is_sent << ", received " << received;
	printf("   %-12s to %-12s block size %d, %zu bytes: %5.1f %% of the bus, %.1f ms of frames in %.1f ms, the machine "
		   "busy for %.1f ms\n",
			from.name, to.name, int(block_size), length, 100 * bus_ms(length, block_size) / took_ms,
			bus_ms(length, block_size), took_ms, took_ms - idle_ms);
}

void play_transfers()
{
	printf("== transfers over a wire of 500 kbit/s: bus time of all frames, flow controls included / time in all\n");
	const other_process wire(run_wire);
	for (uint8_t block_size : {uint8_t{0}, uint8_t{8}})
		for (size_t length : {size_t{4095}, size_t{8191}})
			for (const kind &from : kinds)
				for (const kind &to : kinds)
					transfer(from, to, length, block_size);
}

// Failures

struct failure {
	const char *what;
	int timeout_ms;
	void (*play_ecu)(const raw_peer &ecu);
};

void pause_ms(int milliseconds)
{
	std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void stay_silent(const raw_peer &)
{
}

void break_off(const raw_peer &ecu)
{
	ecu.send({0x10, 20, 0, 1, 2, 3, 4, 5});
}

void break_off_late(const raw_peer &ecu)
{
	pause_ms(900);
	break_off(ecu);
}

// Within N_Cr all the time, and longer than the tester waits for an answer to begin.
void answer_slowly(const raw_peer &ecu)
{
	break_off_late(ecu);
	for (uint8_t number = 1; number <= 2; ++number) {
		pause_ms(900);
		ecu.send({static_cast<uint8_t>(0x20 + number), 6, 7, 8, 9, 10, 11, 12});
	}
}

constexpr failure failures[] = {
		{"no answer, waited 1000 ms for it", 1000, stay_silent},
		{"no answer, waited 2000 ms for it", 2000, stay_silent},
		{"no answer, waited 3000 ms for it", 3000, stay_silent},
		{"an answer that ends after its first frame, waited 3000 ms", 3000, break_off},
		{"an answer of 20 bytes that begins after 900 ms and ends, waited 1000 ms", 1000, break_off_late},
		{"an answer of 20 bytes that begins after 900 ms and takes 1800 ms, waited 1000 ms", 1000, answer_slowly},
};

void tell(const char *name, const char *what, long received, double took_ms)
{
	const std::string result = received > 0 ? std::to_string(received) + " bytes"
			: received == 0                 ? "nothing"
											: "a failure";
	printf("   %-12s %s: %s after %.1f ms\n", name, what, result.c_str(), took_ms);
}

void play_failure(const kind &tester_kind, const failure &one)
{
	const auto tester = tester_kind.make(tester_at());
	const raw_peer ecu(request_id);
	ASSERT_TRUE(tester->send({0x22, 0xF1, 0x90}));
	std::thread answering([&] { one.play_ecu(ecu); });
	const double began_ms = now_ms();
	const long received = tester->receive(one.timeout_ms);
	tell(tester_kind.name, one.what, received, now_ms() - began_ms);
	answering.join();
}

// An answer to the request before, which came too late for it.
void play_old_answer(const kind &tester_kind)
{
	const auto tester = tester_kind.make(tester_at());
	const raw_peer ecu(request_id);
	ecu.send({0x03, 0x7F, 0x22, 0x31});
	ASSERT_TRUE(tester->send({0x22, 0xF1, 0x90}));
	std::thread answering([&ecu] {
		ecu.receive();
		pause_ms(100);
		ecu.send({0x06, 0x62, 0xF1, 0x90, 1, 2, 3});
	});
	const double began_ms = now_ms();
	const long received = tester->receive(1000);
	tell(tester_kind.name, "an old answer of 3 bytes before the request, the right one of 6 bytes after 100 ms",
			received, now_ms() - began_ms);
	answering.join();
}

void send_request(const kind &tester_kind, const char *what, void (*play_ecu)(const raw_peer &ecu))
{
	const auto tester = tester_kind.make(tester_at());
	const raw_peer ecu(request_id);
	std::thread answering([&] { play_ecu(ecu); });
	const double began_ms = now_ms();
	const bool is_sent = tester->send(pattern(20));
	printf("   %-12s a request of 20 bytes, %s: %s after %.1f ms\n", tester_kind.name, what,
			is_sent ? "sent" : "not sent", now_ms() - began_ms);
	answering.join();
}

void wait_twenty_times(const raw_peer &ecu)
{
	ecu.receive();
	for (int i = 0; i < 20; ++i) {
		ecu.send({0x31, 0, 0});
		pause_ms(10);
	}
	ecu.send({0x30, 0, 0});
}

void play_failures()
{
	printf("== failures\n");
	for (const failure &one : failures)
		for (const kind &each : kinds)
			play_failure(each, one);
	for (const kind &each : kinds)
		play_old_answer(each);
	for (const kind &each : kinds)
		send_request(each, "no flow control", stay_silent);
	for (const kind &each : kinds)
		send_request(each, "20 flow controls of status WAIT and then one to go on", wait_twenty_times);
}

}

int main(int argc, char **argv)
{
	testing::InitGoogleTest(&argc, argv); // the expectations here are those of a test that has no name
	setvbuf(stdout, nullptr, _IOLBF, 0);
	movra_uds_util_debug_init(0);
	play_exchanges();
	play_failures();
	play_transfers();
	return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}
