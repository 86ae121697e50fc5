// The pure channel under a clock that stands still but when the tester waits. What a library around it does is done
// here in its simplest form: the channel works while a call of ours is under way, a send drops what came before it, and
// a receive ends after its time unless a message has begun.
#include <algorithm>
#include <deque>

#include "play_row.h"

namespace
{

class pure_bench : public row_bench
{
public:
	explicit pure_bench(const isotp_settings &settings)
			: channel_(isotp_channel_new(&settings), isotp_channel_free), receives_(settings.rx_id != 0)
	{
	}

	int64_t now_us() const override
	{
		return now_us_;
	}

	void begin_send(const bytes &pdu) override
	{
		inbox_.clear();
		arrivals_.clear();
		if (isotp_receiving(channel_.get()))
			receive_until_us_ = now_us_ + receive_for_us_;
		isotp_drop_reception(channel_.get());
		sending_ = isotp_send(channel_.get(), pdu.data(), pdu.size(), now_us_) == 0;
		if (!sending_)
			sent_.push_back({now_us_, OUTCOME_REFUSED, {}});
		work();
	}

	void begin_receive(int timeout_ms) override
	{
		receiving_ = receives_;
		receive_for_us_ = timeout_ms * ms;
		receive_until_us_ = now_us_ + receive_for_us_;
		if (!receiving_)
			received_.push_back({now_us_, OUTCOME_REFUSED, {}});
		work();
	}

	bool put(const bus_frame &frame) override
	{
		inbox_.push_back(frame);
		work();
		return true;
	}

	void stop_bus(bool stopped) override
	{
		is_stopped_ = stopped;
		work();
	}

	bool next_frame(int64_t until_us, seen_frame *seen) override
	{
		return take(seen_, until_us, seen);
	}

	bool next_sent(int64_t until_us, ended_call *ended) override
	{
		return take(sent_, until_us, ended);
	}

	bool next_received(int64_t until_us, ended_call *ended) override
	{
		return take(received_, until_us, ended);
	}

	void wait_until(int64_t until_us) override
	{
		while (now_us_ < until_us)
			turn(until_us);
	}

private:
	template <typename what>
	bool take(std::deque<what> &queue, int64_t until_us, what *taken)
	{
		while (queue.empty() && now_us_ < until_us)
			turn(until_us);
		if (queue.empty())
			return false;
		*taken = queue.front();
		queue.pop_front();
		return true;
	}

	// To the next moment at which something may happen.
	void turn(int64_t until_us)
	{
		int64_t next_us = until_us;
		if (sending_ || receiving_)
			next_us = std::min(next_us, isotp_deadline(channel_.get()));
		if (receiving_ && !isotp_receiving(channel_.get()))
			next_us = std::min(next_us, receive_until_us_);
		now_us_ = std::max(next_us, now_us_ + 1);
		work();
	}

	void take_event(isotp_event event)
	{
		if (event == ISOTP_EVENT_BEGUN) {
			begun_us_ = now_us_;
		} else if (event == ISOTP_EVENT_PDU) {
			size_t length = 0;
			const uint8_t *pdu = isotp_pdu(channel_.get(), &length);
			arrivals_.push_back({now_us_, ISOTP_OK, bytes(pdu, pdu + length)});
		} else if (event == ISOTP_EVENT_FAILED && receiving_) {
			arrivals_.push_back({now_us_, isotp_reception_result(channel_.get()), {}});
		}
	}

	void put_out()
	{
		bus_frame frame{};
		while (const isotp_out out = isotp_next_frame(channel_.get(), &frame, now_us_)) {
			if (is_stopped_)
				return;
			isotp_frame_sent(channel_.get(), out, now_us_);
			seen_.push_back({now_us_, frame});
		}
	}

	void end_receive()
	{
		const bool is_begun = isotp_receiving(channel_.get());
		if (!arrivals_.empty()) {
			received_.push_back(arrivals_.front());
			received_.back().at_us = now_us_;
			arrivals_.pop_front();
			receiving_ = false;
		} else if ((is_begun ? begun_us_ : now_us_) >= receive_until_us_) {
			isotp_drop_reception(channel_.get());
			received_.push_back({now_us_, OUTCOME_NO_ANSWER, {}});
			receiving_ = false;
		}
	}

	void work()
	{
		if (!sending_ && !receiving_)
			return;
		put_out();
		for (; !inbox_.empty(); inbox_.pop_front()) {
			take_event(isotp_take_frame(channel_.get(), &inbox_.front(), now_us_));
			put_out();
		}
		take_event(isotp_step(channel_.get(), now_us_));
		put_out();
		if (sending_ && isotp_sending(channel_.get()) != ISOTP_SEND_UNDER_WAY) {
			sent_.push_back({now_us_, isotp_send_result(channel_.get()), {}});
			sending_ = false;
		}
		if (receiving_)
			end_receive();
	}

	std::unique_ptr<isotp_channel, void (*)(isotp_channel *)> channel_;
	bool receives_;
	int64_t now_us_ = INT64_C(10'000'000'000'000); // beyond 32 bits, as an uptime of months
	bool is_stopped_ = false;
	bool sending_ = false;
	bool receiving_ = false;
	int64_t receive_for_us_ = 0;
	int64_t receive_until_us_ = 0;
	int64_t begun_us_ = 0;
	std::deque<bus_frame> inbox_;
	std::deque<ended_call> arrivals_;
	std::deque<seen_frame> seen_;
	std::deque<ended_call> sent_;
	std::deque<ended_call> received_;
};

} // namespace

std::unique_ptr<row_bench> new_pure_bench(const row_ids &ids, const row_settings &settings)
{
	isotp_settings channel = isotp_default_settings(ids.our_id, ids.their_id);
	channel.block_size = settings.block_size;
	channel.st_min = settings.st_min;
	channel.padding = settings.padding;
	return std::make_unique<pure_bench>(channel);
}
