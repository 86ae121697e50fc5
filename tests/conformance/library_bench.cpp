// libudsutils behind its C entry points; the tester is a link of the same interface that takes our frames.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <thread>

#include "can_link.h"
#include "play_row.h"
#include "udsutils.h"

namespace
{

// A blocking call in a thread of its own.
class call_thread
{
public:
	~call_thread()
	{
		if (thread_.joinable())
			thread_.join();
	}

	void begin(std::function<ended_call()> call)
	{
		if (thread_.joinable())
			thread_.join();
		has_ended_ = false;
		thread_ = std::thread([this, call = std::move(call)] {
			const ended_call ended = call();
			const std::lock_guard<std::mutex> held(lock_);
			ended_ = ended;
			has_ended_ = true;
			news_.notify_all();
		});
	}

	bool await(int64_t until_us, ended_call *ended)
	{
		// The clock of can_link is the steady one.
		const std::chrono::steady_clock::time_point until{std::chrono::microseconds(until_us)};
		std::unique_lock<std::mutex> held(lock_);
		if (!news_.wait_until(held, until, [this] { return has_ended_; }))
			return false;
		has_ended_ = false;
		*ended = std::move(ended_);
		return true;
	}

private:
	std::mutex lock_;
	std::condition_variable news_;
	bool has_ended_ = false;
	ended_call ended_{};
	std::thread thread_;
};

void sleep_until(int64_t until_us)
{
	timespec moment{};
	moment.tv_sec = static_cast<time_t>(until_us / 1000000);
	moment.tv_nsec = static_cast<long>(until_us % 1000000 * 1000);
	while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &moment, nullptr) == EINTR)
		;
}

class library_bench : public row_bench
{
public:
	~library_bench() override
	{
		if (handle_ > 0)
			(void)transport_deinit(handle_, 0); // also ends the calls that a failed row has left
		can_link_close(&tester_);
	}

	bool open(const char *ifname, const row_ids &ids, const row_settings &settings)
	{
		char padding[3];
		(void)snprintf(padding, sizeof(padding), "%02X", unsigned{settings.padding});
		setenv("QUILLET_CAN_PADDING", padding, 1);
		uds_transport_params params{};
		params.phy_req_id = ids.our_id;
		params.phy_resp_id = ids.their_id;
		params.bsize = settings.block_size;
		params.st_min = settings.st_min;
		strncpy(params.ifname, ifname, sizeof(params.ifname) - 1);
		handle_ = transport_init(0, &params);
		unsetenv("QUILLET_CAN_PADDING");
		return handle_ > 0 && can_link_open(&tester_, ifname, CAN_LINK_TAKES_ONE, ids.our_id) == 0;
	}

	int64_t now_us() const override
	{
		return can_link_monotonic_us();
	}

	void begin_send(const bytes &pdu) override
	{
		sender_.begin([handle = handle_, pdu] {
			static constexpr uint8_t nothing = 0; // an empty PDU has no address of its own
			const uint8_t *data = pdu.empty() ? &nothing : pdu.data();
			const int result = send_diag_command(handle, data, static_cast<uint32_t>(pdu.size()), 0);
			return ended_call{can_link_monotonic_us(), result == 0 ? int{ISOTP_OK} : int{OUTCOME_FAILED}, {}};
		});
	}

	void begin_receive(int timeout_ms) override
	{
		receiver_.begin([handle = handle_, timeout_ms] { return receive(handle, timeout_ms); });
	}

	bool put(const bus_frame &frame) override
	{
		const int64_t until_us = now_us() + isotp_timeout_us;
		int result = tester_.send(tester_.state, &frame);
		while (result > 0 && now_us() < until_us) {
			sleep_until(now_us() + ms);
			result = tester_.send(tester_.state, &frame);
		}
		return result == 0;
	}

	void stop_bus(bool) override
	{
		abort(); // rows of ROW_PURE are not played here
	}

	// A frame that is read after the moment has come after it, as far as anybody can tell: it waits for the next call.
	bool next_frame(int64_t until_us, seen_frame *seen) override
	{
		while (!has_seen_) {
			const int got = tester_.receive(tester_.state, &seen_.frame);
			seen_.at_us = now_us();
			has_seen_ = got > 0;
			if (got < 0 || (got == 0 && seen_.at_us >= until_us))
				return false;
			if (got == 0)
				tester_.wait(tester_.state, -1, until_us);
		}
		if (seen_.at_us > until_us)
			return false;
		has_seen_ = false;
		*seen = seen_;
		return true;
	}

	bool next_sent(int64_t until_us, ended_call *ended) override
	{
		return sender_.await(until_us, ended);
	}

	bool next_received(int64_t until_us, ended_call *ended) override
	{
		return receiver_.await(until_us, ended);
	}

	void wait_until(int64_t until_us) override
	{
		sleep_until(until_us);
	}

private:
	static ended_call receive(int handle, int timeout_ms)
	{
		bytes buffer(isotp_pdu_max + 1, 0xEE);
		const bytes untouched = buffer;
		uint32_t length = isotp_pdu_max;
		const int result = recv_diag_command(handle, buffer.data(), &length, timeout_ms, 0);
		const int64_t at_us = can_link_monotonic_us();
		if (result == 0 && length <= isotp_pdu_max && buffer.back() == 0xEE) {
			buffer.resize(length);
			return {at_us, ISOTP_OK, buffer};
		}
		const bool is_untouched = length == isotp_pdu_max && buffer == untouched;
		return {at_us, is_untouched ? OUTCOME_FAILED : OUTCOME_WROTE, {}};
	}

	int handle_ = -1;
	can_link tester_{};
	bool has_seen_ = false;
	seen_frame seen_{};
	call_thread sender_; // joined before all else goes, behind transport_deinit
	call_thread receiver_;
};

} // namespace

std::unique_ptr<row_bench> new_library_bench(const char *ifname, const row_ids &ids, const row_settings &settings)
{
	static std::mutex environment;
	const std::lock_guard<std::mutex> held(environment);
	auto bench = std::make_unique<library_bench>();
	if (!bench->open(ifname, ids, settings))
		return nullptr;
	return bench;
}
