// A link whose clock stands still but for waiting: frames come at moments that the test lays down, or as answers to
// frames that were sent.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "can_link.h"
#include "isotp_bench.h"

struct script_link {
	int64_t now_us = INT64_C(5'000'000'000'000);
	std::multimap<int64_t, bus_frame> coming;
	std::vector<bus_frame> sent;
	std::function<void(const bus_frame &)> on_sent;
	std::function<void()> on_wait;
	int full_for = 0;    // sends that find no room; -1 = all
	int64_t late_us = 0; // how long after its end a wait comes back
	bool is_dead = false;
	int closed = 0;

	void comes(int64_t in_us, uint32_t id, const bytes &data)
	{
		coming.emplace(now_us + in_us, frame_of(id, data));
	}

	can_link link()
	{
		return {.state = this,
				.send = send,
				.receive = receive,
				.mark = mark,
				.wait = wait,
				.now_us = now,
				.descriptor = -1,
				.close = close,
				.detach = nullptr};
	}

private:
	static script_link *self(void *state)
	{
		return static_cast<script_link *>(state);
	}

	static int send(void *state, const bus_frame *frame)
	{
		script_link *link = self(state);
		if (link->is_dead)
			return -1;
		if (link->full_for != 0) {
			link->full_for -= link->full_for > 0;
			return 1;
		}
		link->sent.push_back(*frame);
		if (link->on_sent)
			link->on_sent(*frame);
		return 0;
	}

	static int receive(void *state, bus_frame *frame)
	{
		script_link *link = self(state);
		if (link->is_dead)
			return -1;
		if (link->coming.empty() || link->coming.begin()->first > link->now_us)
			return 0;
		*frame = link->coming.begin()->second;
		link->coming.erase(link->coming.begin());
		return 1;
	}

	static void mark(void *) // nothing is held beyond `coming`
	{
	}

	static void wait(void *state, int, int64_t deadline_us)
	{
		script_link *link = self(state);
		if (link->on_wait)
			link->on_wait();
		if (link->is_dead) // a dead connection is worth a look at once
			return;
		ASSERT_TRUE(deadline_us != isotp_never || !link->coming.empty()) << "nothing would ever end this wait";
		int64_t until_us = deadline_us;
		if (!link->coming.empty() && link->coming.begin()->first < until_us)
			until_us = link->coming.begin()->first;
		if (until_us > link->now_us)
			link->now_us = until_us + link->late_us;
	}

	static int64_t now(void *state)
	{
		return self(state)->now_us;
	}

	static void close(void *state)
	{
		self(state)->closed++;
	}
};
